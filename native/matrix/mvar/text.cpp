// MVar as text.

#include "mvar/mvar.hpp"
#include "support/errors.hpp"
#include "support/handles.hpp"
#include "support/imports.hpp"

namespace taviropy::mvar {

namespace {

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

}  // namespace

void add_text_methods(ClassBody& body) { body.method<&repr>("__repr__(self)"); }

}  // namespace taviropy::mvar
