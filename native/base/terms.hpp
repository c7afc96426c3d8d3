// The one reader of what stands in the term lists of expressions.
//
// The lists are open to the user, so that anything may stand there, and code of the user that ran
// in the middle of a pass could change the list under it. None runs here: a number is read where it
// is stored, and whatever isn't of the right type is refused without a question to it.
#pragma once

#include <Python.h>

namespace taviropy::base {

/// Reads a coefficient, a float or an int. False, with a TypeError set, for anything else; an int
/// beyond all floats is an OverflowError.
inline bool read_coefficient(PyObject* stored, double& value) {
    if (PyFloat_Check(stored)) {
        value = PyFloat_AS_DOUBLE(stored);
        return true;
    }
    if (PyLong_Check(stored)) {
        value = PyLong_AsDouble(stored);
        return value != -1.0 || !PyErr_Occurred();
    }
    PyErr_Format(PyExc_TypeError,
                 "a coefficient of an expression is of type '%s'; expected a float",
                 Py_TYPE(stored)->tp_name);
    return false;
}

/// Whether a variable is of the type Var; a TypeError is set where it isn't.
inline bool check_variable(PyObject* stored, PyTypeObject* var_type) {
    if (Py_IS_TYPE(stored, var_type)) return true;
    PyErr_Format(PyExc_TypeError, "a variable of an expression is of type '%s'; expected a Var",
                 Py_TYPE(stored)->tp_name);
    return false;
}

/// Whether lists of terms are of one length; a ValueError that names the type is set where they
/// aren't.
template <class... Lists>
bool check_lengths(const char* type, PyObject* coeffs, const Lists&... vars) {
    if (((PyList_GET_SIZE(vars) == PyList_GET_SIZE(coeffs)) && ...)) return true;
    PyErr_Format(PyExc_ValueError,
                 "the term lists of a %s have come to differ in length; its lists are to be read, "
                 "and changed through its methods",
                 type);
    return false;
}

}  // namespace taviropy::base
