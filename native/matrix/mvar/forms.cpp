// What an MVar is made of, and what else its variables can be given as.

#include "mvar/mvar.hpp"
#include "support/errors.hpp"
#include "support/handles.hpp"
#include "support/imports.hpp"
#include "support/object_arrays.hpp"

namespace taviropy::mvar {

using namespace nb::literals;

using Methods = HandleMethods<kMVar>;

namespace {

/// The two fields of an MVar of an array.
struct Fields {
    nb::object vararr, cmodel;

    explicit Fields(nb::handle arr) {
        nb::object np = import_numpy();
        {
            // np.require gives an object array that is writable as it is.
            ArrayBuffer buffer;
            if (arr.type().is(np.attr("ndarray")) &&
                buffer.acquire(arr, PyBUF_STRIDES | PyBUF_FORMAT | PyBUF_WRITABLE) &&
                buffer.holds('O')) {
                vararr = nb::borrow(arr);
                cmodel = handles::model_of(buffer);
                return;
            }
        }
        vararr = np.attr("require")(arr, "dtype"_a = "O", "requirements"_a = "W");
        // What is masked is no variable; NumPy itself can't hand out elements of such an array.
        if (!vararr.type().is(np.attr("ndarray")) &&
            is_instance(vararr, np.attr("ma").attr("MaskedArray")))
            raise(PyExc_AttributeError,
                  "the elements of a masked array are no variables where they are masked: give "
                  "MVar an array without a mask, such as array.compressed()");
        cmodel = handles::model_of(vararr);
    }
};

nb::object init(nb::handle self, nb::handle arr) {
    Fields fields(arr);
    handles::store_fields(self, "_vararr", fields.vararr, "_cmodel", fields.cmodel);
    return nb::none();
}

OwnClass own_class;

/// What `__setattr__` does with a private name.
void store_private(nb::handle self, PyObject* name, nb::handle value) {
    check(PyObject_GenericSetAttr(self.ptr(), name, value.ptr()));
}

nb::object of_fields(const Fields& fields) {
    static PyObject* vararr = PyUnicode_InternFromString("_vararr");
    static PyObject* cmodel = PyUnicode_InternFromString("_cmodel");
    nb::object self = own_class.make();
    store_private(self, vararr, fields.vararr);
    store_private(self, cmodel, fields.cmodel);
    return self;
}

constexpr const char* kNlDoc = R"(PROPERTY:
  nl

PURPOSE:
  Give the variables as a nonlinear expression, to apply functions to.

RETURN VALUE:
  An MNLExpr of the same shape.

EXAMPLE:
  expr = x.nl ** 3)";

nb::object nl(nb::handle self) { return as_nonlinear(self); }

nb::object _toexpr(nb::handle self) { return names::MLinExpr().attr("_from_mvar")(self); }

}  // namespace

nb::object new_mvar(nb::handle array) {
    nb::object cls = names::MVar();
    if (!own_class.is(cls)) return cls(array);
    return of_fields(Fields(array));
}

nb::object flat(nb::handle x) { return new_mvar(x.attr("_vararr").attr("reshape")(-1)); }

void add_form_methods(ClassBody& body) {
    own_class = names::MVar();
    body.method<&init>("__init__(self, arr)")
        .property<&Methods::shape>("shape", kShapeDoc)
        .property<&Methods::ndim>("ndim", kNdimDoc)
        .property<&Methods::size>("size", kSizeDoc)
        .property<&nl>("nl", kNlDoc)
        .method<&_toexpr>("_toexpr(self)");
}

}  // namespace taviropy::mvar
