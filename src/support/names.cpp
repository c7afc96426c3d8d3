#include "support/names.hpp"

namespace taviropy {

// Borrowed from the module, which outlives every call into it.
static PyObject* module_dict = nullptr;

void set_namespace(nb::module_ module) { module_dict = PyModule_GetDict(module.ptr()); }

nb::handle namespace_dict() { return module_dict; }

nb::object Name::operator()() const {
    if (!key_) {
        key_ = PyUnicode_InternFromString(text_);
        if (!key_) throw nb::python_error();
    }
    PyObject* found = PyDict_GetItemWithError(module_dict, key_);
    if (!found && !PyErr_Occurred()) {
        found = PyDict_GetItemWithError(PyEval_GetBuiltins(), key_);
        if (!found && !PyErr_Occurred())
            PyErr_Format(PyExc_NameError, "name '%s' is not defined", text_);
    }
    if (!found) throw nb::python_error();
    return nb::borrow(found);
}

}  // namespace taviropy
