// MVar: a handle on an array of variables. Its operators are in mvar_operators.cpp, sum and
// diagonal in mvar_reductions.cpp.

#include "mvar.hpp"

#include <cstdio>

#include "support/errors.hpp"
#include "support/handles.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"
#include "support/object_arrays.hpp"
#include "units.hpp"

namespace taviropy {

namespace mvar {

using namespace nb::literals;

namespace {

using Methods = HandleMethods<kMVar>;

constexpr const char* kClassDoc = R"(Matrix variable handle, acting as an array of Var objects.

Users create such objects through Model.addMVar() or MVar.fromlist(). Shape,
dimensions, indexing and broadcasting are those of numpy.ndarray; see there.
An MVar never changes: operators give new objects, which may share its array.

An attribute of the model is read and written for all variables at once, as
an array of the shape of the MVar: x.UB, x.LB = 0.0. On an empty MVar every
attribute name reads as an empty array, also the names by which NumPy, SciPy
and copy.deepcopy ask what an object can do: these three fail on an empty MVar
where they ask, as with a SciPy sparse matrix on its left.)";

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
                cmodel = handles::model_of(*buffer);
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

// The class that this module makes; lives as long as the module does.
PyTypeObject* own_class = nullptr;

/// What `__setattr__` does with a private name.
void store_private(nb::handle self, PyObject* name, nb::handle value) {
    check(PyObject_GenericSetAttr(self.ptr(), name, value.ptr()));
}

nb::object of_fields(const Fields& fields) {
    static PyObject* no_arguments = PyTuple_New(0);
    static PyObject* vararr = PyUnicode_InternFromString("_vararr");
    static PyObject* cmodel = PyUnicode_InternFromString("_cmodel");
    nb::object self = checked(PyBaseObject_Type.tp_new(own_class, no_arguments, nullptr));
    store_private(self, vararr, fields.vararr);
    store_private(self, cmodel, fields.cmodel);
    return self;
}

constexpr const char* kCopyDoc = R"(ROUTINE:
  copy()

PURPOSE:
  Make a new handle on the same variables.

ARGUMENTS:
  None.

RETURN VALUE:
  An MVar of the same shape. It shares the array of variables.

EXAMPLE:
  y = x.copy())";

nb::object copy(nb::handle self) { return new_mvar(self.attr("_vararr")); }

constexpr const char* kTolistDoc = R"(ROUTINE:
  tolist()

PURPOSE:
  Give the variables as a list.

ARGUMENTS:
  None.

RETURN VALUE:
  A list of Var objects, nested as the shape says; for a 0-d MVar the Var.

EXAMPLE:
  for var in x.tolist():
      print(var))";

constexpr const char* kFromlistDoc = R"(ROUTINE:
  fromlist(varlist)

PURPOSE:
  Make an MVar of existing variables.

ARGUMENTS:
  varlist: a list of Var objects, or nested lists of them.

RETURN VALUE:
  An MVar, 1-D for a plain list. ValueError names an element that is no Var.

EXAMPLE:
  x = MVar.fromlist([v0, v1, v2])
  y = MVar.fromlist([[v0, v1], [v2, v3]])  # shape (2, 2))";

bool is_list_of_vars(nb::handle object) {
    if (!PyList_Check(object.ptr())) return false;
    nb::object Var = names::Var();
    for (Py_ssize_t k = 0; k < PyList_GET_SIZE(object.ptr()); ++k)
        if (!is_instance(nb::borrow(PyList_GET_ITEM(object.ptr(), k)), Var)) return false;
    return true;
}

/// np.lib.NumpyVersion(np.__version__) >= "1.23.0": since then np.fromiter takes objects.
bool has_fromiter_of_objects(nb::handle np) {
    nb::object version = np.attr("__version__");
    int major = 0, minor = 0, end = 0;
    const char* text = PyUnicode_Check(version.ptr()) ? PyUnicode_AsUTF8(version.ptr()) : nullptr;
    if (text && std::sscanf(text, "%2d.%2d.%n", &major, &minor, &end) == 2 && end > 0 &&
        (major != 1 || minor != 23))
        return major > 1 || (major == 1 && minor > 23);
    PyErr_Clear();
    return np.attr("lib").attr("NumpyVersion")(version) >= nb::str("1.23.0");
}

nb::object fromlist(nb::handle varlist) {
    nb::object np = import_numpy();
    // Unlike np.array, np.fromiter doesn't ask each variable for its items.
    if (has_fromiter_of_objects(np) && is_list_of_vars(varlist))
        return new_mvar(
            np.attr("fromiter")(varlist, "count"_a = nb::len(varlist), "dtype"_a = "O"));
    nb::object vararr = np.attr("array")(varlist, "dtype"_a = "O");
    nb::object stranger = handles::find_stranger(kMVar, vararr);
    if (stranger.is_valid()) handles::refuse_stranger(kMVar, stranger);
    return new_mvar(vararr);
}

constexpr const char* kFromvarDoc = R"(ROUTINE:
  fromvar(var)

PURPOSE:
  Make a 0-d MVar of one variable.

ARGUMENTS:
  var: a Var.

RETURN VALUE:
  An MVar of shape ().

EXAMPLE:
  x = MVar.fromvar(model.addVar()))";

nb::object fromvar(nb::handle var) {
    nb::object np = import_numpy();
    return new_mvar(is_a(var, names::Var) ? array_of_one(np, var)
                                          : np.attr("array")(var, "dtype"_a = "O"));
}

constexpr const char* kNlDoc = R"(PROPERTY:
  nl

PURPOSE:
  Give the variables as a nonlinear expression, to apply functions to.

RETURN VALUE:
  An MNLExpr of the same shape.

EXAMPLE:
  expr = x.nl ** 3)";

nb::object nl(nb::handle self) { return names::MNLExpr().attr("_from_mvar")(self); }

constexpr const char* kTransposeDoc = R"(ROUTINE:
  transpose()

PURPOSE:
  Reverse the order of the axes.

ARGUMENTS:
  None.

RETURN VALUE:
  An MVar of the reversed shape, on the same variables.

EXAMPLE:
  y = x.transpose()

NOTES:
  A 1-D MVar has one axis only, so this simply yields a copy.)";

nb::object transpose(nb::handle self) { return new_mvar(self.attr("_vararr").attr("transpose")()); }

constexpr const char* kTDoc = R"(PROPERTY:
  T

PURPOSE:
  Reverse the order of the axes; the same as transpose().

RETURN VALUE:
  An MVar of the reversed shape, on the same variables.

EXAMPLE:
  y = x.T)";

nb::object T(nb::handle self) { return self.attr("transpose")(); }

constexpr const char* kReshapeDoc = R"(ROUTINE:
  reshape(*shape, order='C')

PURPOSE:
  Arrange the variables in another shape.

ARGUMENTS:
  shape: the new shape, as integers or as one tuple. One entry may be -1, which
    stands for what is left.
  order: 'C' reads and places the variables with the last axis moving fastest,
    'F' with the first.

RETURN VALUE:
  An MVar of that shape. ValueError where the sizes differ.

EXAMPLE:
  y = x.reshape(2, 3)
  z = x.reshape(-1, order='F'))";

nb::object reshape(nb::handle self, nb::handle shape, nb::handle order) {
    nb::object function = self.attr("_vararr").attr("reshape");
    return new_mvar(function(*nb::borrow<nb::args>(shape), "order"_a = order));
}

constexpr const char* kItemDoc = R"(ROUTINE:
  item()

PURPOSE:
  Give the variable of an MVar that has just one.

ARGUMENTS:
  None.

RETURN VALUE:
  A Var.

EXAMPLE:
  var = x[0, 1].item()

NOTES:
  An MVar of any other size raises a ValueError.)";

nb::object _squeeze(nb::handle self, nb::handle axis) {
    return new_mvar(self.attr("_vararr").attr("squeeze")("axis"_a = axis));
}

nb::object _toexpr(nb::handle self) { return names::MLinExpr().attr("_from_mvar")(self); }

nb::object repr(nb::handle self) {
    import_numpy();
    nb::object head =
        checked(PyUnicode_FromFormat("<MVar %S", nb::object(self.attr("shape")).ptr()));
    handles::Places places = handles::look_at_places(self.attr("_idxarr")());
    // NumPy's text ends in the element type, behind the last comma.
    nb::object array = checked(PyObject_Repr(nb::object(self.attr("_vararr")).ptr()));
    Py_ssize_t length = PyUnicode_GET_LENGTH(array.ptr());
    Py_ssize_t end = PyUnicode_FindChar(array.ptr(), ',', 0, length, -1);
    if (end == -1) end = length > 0 ? length - 1 : 0;
    nb::object variables = checked(PyUnicode_Substring(array.ptr(), 0, end));
    return checked(PyUnicode_FromFormat("%U%s%s>\n%U)", head.ptr(),
                                        places.waiting ? " *awaiting update*" : "",
                                        places.removed ? " (some removed)" : "", variables.ptr()));
}

nb::object getitem(nb::handle self, nb::handle obj) {
    return new_mvar(handles::subarray(kMVar, self, obj));
}

constexpr const char* kGetAttrDoc = R"(ROUTINE:
  getAttr(attrname)

PURPOSE:
  Read an attribute of all variables.

ARGUMENTS:
  attrname: the name of a variable attribute, such as "UB" or "X".

RETURN VALUE:
  A new numpy.ndarray of the shape of the MVar: float64, int32, one-character
  strings or objects, as the attribute is. An empty MVar gives an empty float
  array, whatever the name. AttributeError where variables have no such
  attribute, TaviroError where it has no value.

EXAMPLE:
  values = x.getAttr("X")
  values = x.X              # the same)";

constexpr const char* kSetAttrDoc = R"(ROUTINE:
  setAttr(attrname, value)

PURPOSE:
  Write an attribute of all variables.

ARGUMENTS:
  attrname: the name of a variable attribute, such as "UB".
  value: a number or string for all; an array of the shape of the MVar, or of
    one element; for a 1-D MVar also a list of its length.

RETURN VALUE:
  None. AttributeError where variables have no such attribute, where it can't
  be set, and for values of another shape or type; nothing is changed then.

EXAMPLE:
  x.setAttr("UB", [1.0, 2.0, 3.0])
  x.UB = 5.0                # the same for one value

NOTES:
  On an empty MVar this does nothing, whatever the name. A 0-d MVar takes a
  number or an array of one element; a list of one is a TypeError.)";

constexpr const char* kPrefetchAttrDoc = R"(ROUTINE:
  prefetchAttr(attrname)

PURPOSE:
  Announce that an attribute of the variables is going to be read.

ARGUMENTS:
  attrname: the name of a variable attribute.

RETURN VALUE:
  None. AttributeError for a name that no attribute has.

EXAMPLE:
  x.prefetchAttr("X")

NOTES:
  On an empty MVar this does nothing, whatever the name.)";

/// A data vector of the model's columns, as an array of the entries that belong to the variables.
nb::object _indexed_data(nb::handle self, nb::handle a, nb::handle dtype) {
    nb::object np = import_numpy();
    nb::object columns = np.attr("array")(a, "dtype"_a = dtype);
    nb::object result = np.attr("empty_like")(nb::getattr(self, "_vararr"), "dtype"_a = dtype);
    nb::object indices = self.attr("_idxarr")();
    nb::setattr(result, "flat", nb::object(columns[indices.attr("flat")]));
    return result;
}

}  // namespace

nb::object new_mvar(nb::handle array) {
    nb::object cls = names::MVar();
    if (cls.ptr() != reinterpret_cast<PyObject*>(own_class)) return cls(array);
    return of_fields(Fields(array));
}

}  // namespace mvar

void define_mvar(nb::module_ module) {
    using namespace mvar;
    nb::dict attributes;
    attributes["__array_priority__"] = 100;
    ClassBody body(module, "MVar", kClassDoc, attributes, /*hashable=*/false);
    own_class = reinterpret_cast<PyTypeObject*>(names::MVar().ptr());
    body.method<&init>("__init__(self, arr)")
        .method<&copy>("copy(self)", kCopyDoc)
        .method<&Methods::tolist>("tolist(self)", kTolistDoc)
        .static_method<&fromlist>("fromlist(varlist)", kFromlistDoc)
        .static_method<&fromvar>("fromvar(var)", kFromvarDoc)
        .property<&nl>("nl", kNlDoc)
        .method<&transpose>("transpose(self)", kTransposeDoc)
        .property<&T>("T", kTDoc)
        .method<&reshape>("reshape(self, *shape, order='C')", kReshapeDoc)
        .method<&Methods::item>("item(self)", kItemDoc)
        .method<&_squeeze>("_squeeze(self, axis=None)")
        .method<&_toexpr>("_toexpr(self)")
        .method<&Methods::_idxarr>("_idxarr(self)")
        .property<&Methods::shape>("shape", kShapeDoc)
        .property<&Methods::ndim>("ndim", kNdimDoc)
        .property<&Methods::size>("size", kSizeDoc)
        .property<&Methods::_typename>("_typename")
        .property<&Methods::_typeenum>("_typeenum")
        .method<&Methods::dir>("__dir__(self)")
        .method<&repr>("__repr__(self)")
        .method<&getitem>("__getitem__(self, obj)")
        .method<&Methods::getattr>("__getattr__(self, name)")
        .method<&Methods::setattr>("__setattr__(self, name, value)")
        .method<&Methods::getAttr>("getAttr(self, attrname)", kGetAttrDoc)
        .method<&Methods::setAttr>("setAttr(self, attrname, value)", kSetAttrDoc)
        .method<&Methods::prefetchAttr>("prefetchAttr(self, attrname)", kPrefetchAttrDoc)
        .method<&_indexed_data>("_indexed_data(self, a, dtype)");
    add_operators(body);
    add_reductions(body);
}

}  // namespace taviropy
