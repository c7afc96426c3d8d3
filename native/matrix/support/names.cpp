#include "support/names.hpp"

#include <algorithm>
#include <iterator>

namespace taviropy {

// Borrowed from the module, which outlives every call into it.
static PyObject* module_dict = nullptr;

// The module's own classes live as long as it does.
static PyTypeObject* plain_classes[8];
static std::size_t plain_class_count = 0;

void note_plain_class(nb::handle cls) {
    if (plain_class_count < std::size(plain_classes))
        plain_classes[plain_class_count++] = reinterpret_cast<PyTypeObject*>(cls.ptr());
}

bool is_plain(PyTypeObject* type) {
    if (!PyType_HasFeature(type, Py_TPFLAGS_HEAPTYPE))
        return type->tp_getattro == PyObject_GenericGetAttr;
    return std::find(plain_classes, plain_classes + plain_class_count, type) !=
           plain_classes + plain_class_count;
}

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
