// Which objects are numbers.
#pragma once

#include <array>

#include "python.hpp"

namespace taviropy::base {

/// Types that have been found to be numbers, so that `numbers.Number` is asked once a type.
class NumberTypes {
  public:
    bool contains(PyTypeObject* type) const {
        for (Py_ssize_t k = 0; k < size_; ++k)
            if (types_[k] == type) return true;
        return false;
    }
    void add(PyTypeObject* type) {
        if (size_ == static_cast<Py_ssize_t>(types_.size())) return;
        Py_INCREF(type);
        types_[size_++] = type;
    }

  private:
    std::array<PyTypeObject*, 16> types_{};
    Py_ssize_t size_ = 0;
};

inline bool is_numpy_bool(PyObject* object) {
    Ref numpy(PyImport_GetModule(Ref(PyUnicode_InternFromString("numpy")).get()));
    if (!numpy) {
        PyErr_Clear();
        return false;
    }
    Ref type(PyObject_GetAttrString(numpy.get(), "bool_"));
    if (!type) {
        PyErr_Clear();  // NumPy is being imported
        return false;
    }
    return PyType_Check(type.get()) &&
           PyObject_TypeCheck(object, reinterpret_cast<PyTypeObject*>(type.get()));
}

/// Common types that are no numbers; asking the abstract class would be slow.
inline bool is_plainly_no_number(PyObject* object) {
    return object == Py_None || PyUnicode_Check(object) || PyList_Check(object) ||
           PyTuple_Check(object) || PyDict_Check(object);
}

/// Whether Python's `numbers.Number` or NumPy's bool knows the object.
inline bool is_number(PyObject* object) {
    if (PyFloat_Check(object) || PyLong_Check(object)) return true;
    static NumberTypes number_types;
    PyTypeObject* type = Py_TYPE(object);
    if (number_types.contains(type)) return true;
    if (is_plainly_no_number(object)) return false;
    static PyObject* number_class = nullptr;
    if (!number_class) number_class = import_name("numbers", "Number").release();
    int status = PyObject_IsInstance(object, number_class);
    check(status);
    if (status == 0 && !is_numpy_bool(object)) return false;
    number_types.add(type);
    return true;
}

}  // namespace taviropy::base
