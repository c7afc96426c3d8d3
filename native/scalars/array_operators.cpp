// Operators of a scalar expression with a NumPy array or a SciPy matrix.
//
// The scalar types have an `__array_priority__`, so that an array on the left leaves the operator
// to them. An array of numbers gives an array-shaped expression, through the matrix module; an
// array of objects stays with NumPy, element by element; an array without dimensions counts as its
// item.
#include "arithmetic.hpp"
#include "base/arrays.hpp"

namespace taviropy {

namespace {

struct OperatorInfo {
    const char* ufunc;
    PyObject* (*python)(PyObject*, PyObject*);
};

PyObject* python_power(PyObject* left, PyObject* right) {
    return PyNumber_Power(left, right, Py_None);
}

const OperatorInfo& info(Operator op) {
    static const OperatorInfo table[] = {{"add", PyNumber_Add},
                                         {"subtract", PyNumber_Subtract},
                                         {"multiply", PyNumber_Multiply},
                                         {"divide", PyNumber_TrueDivide},
                                         {"power", python_power}};
    return table[static_cast<int>(op)];
}

/// scipy.sparse.issparse, or nullptr where SciPy's matrices are not loaded: then nothing is one.
PyObject* loaded_issparse() {
    static PyObject* function = nullptr;
    if (function) return function;
    Ref name = checked(PyUnicode_FromString("scipy.sparse"));
    Ref sparse(PyImport_GetModule(name.get()));
    if (sparse) function = PyObject_GetAttrString(sparse.get(), "issparse");
    if (!function) PyErr_Clear();
    return function;
}

bool is_sparse(PyObject* object) {
    PyObject* issparse = loaded_issparse();
    if (!issparse) return false;
    Ref answer = checked(PyObject_CallOneArg(issparse, object));
    return answer.get() == Py_True;
}

bool has_no_dimensions(PyObject* array) {
    Ref ndim = field(array, "ndim");
    long dimensions = checked(PyLong_AsLong(ndim.get()));
    return dimensions == 0;
}

Ref item_of(PyObject* array) { return checked(PyObject_CallMethod(array, "item", nullptr)); }

/// A matrix object of no dimensions that holds the scalar expression.
Ref as_matrix_object(PyObject* scalar) {
    Operand operand = classify(scalar);
    const char* class_name = operand.kind == OperandKind::var         ? "MVar"
                             : operand.kind == OperandKind::linear    ? "MLinExpr"
                             : operand.kind == OperandKind::quadratic ? "MQuadExpr"
                                                                      : "MNLExpr";
    Ref matrix_class = import_name("taviropy._matrixapi", class_name);
    if (operand.kind == OperandKind::linear)
        return checked(PyObject_CallMethod(matrix_class.get(), "_from_linexpr", "O", scalar));
    if (operand.kind == OperandKind::quadratic) {
        Ref zeros = checked(PyObject_CallMethod(matrix_class.get(), "zeros", "(())"));
        return checked(PyNumber_InPlaceAdd(zeros.get(), scalar));
    }
    Ref shape = checked(PyTuple_New(0));
    Ref box = new_array("object", shape.get());
    check(PyObject_SetItem(box.get(), shape.get(), scalar));
    return checked(PyObject_CallOneArg(matrix_class.get(), box.get()));
}

}  // namespace

bool is_array_operand(PyObject* object) { return is_ndarray(object) || is_sparse(object); }

Ref tuple_of(PyObject* iterable) {
    if (!PyTuple_Check(iterable) && !PyList_Check(iterable) && is_sparse(iterable))
        raise(PyExc_TypeError, "a sparse '%s' is no list of values; its toarray() is one",
              Py_TYPE(iterable)->tp_name);
    return checked(PySequence_Tuple(iterable));
}

bool is_mnlexpr(PyObject* object) {
    static PyObject* module_name = nullptr;
    if (!module_name)
        module_name = checked(PyUnicode_InternFromString("taviropy._matrixapi")).release();
    Ref module(PyImport_GetModule(module_name));
    Ref type(module ? PyObject_GetAttrString(module.get(), "MNLExpr") : nullptr);
    if (!type) {
        PyErr_Clear();  // not loaded, so that there is none
        return false;
    }
    return PyType_Check(type.get()) &&
           PyObject_TypeCheck(object, reinterpret_cast<PyTypeObject*>(type.get()));
}

Ref operate_with_array(Operator op, PyObject* left, PyObject* right) {
    bool array_is_left = classify(left).kind == OperandKind::other;
    PyObject* array = array_is_left ? left : right;
    PyObject* scalar = array_is_left ? right : left;
    if (!is_array_operand(array)) return not_implemented();
    bool dense = is_ndarray(array);
    Ref replaced;
    if (dense && has_no_dimensions(array)) {
        replaced = item_of(array);
        if (classify(replaced.get()).kind == OperandKind::other) return not_implemented();
        return checked(array_is_left ? info(op).python(replaced.get(), scalar)
                                     : info(op).python(scalar, replaced.get()));
    }
    if (dense && dtype_kind(array) == 'O') {
        Ref ufunc = import_name("numpy", info(op).ufunc);
        return checked(PyObject_CallFunctionObjArgs(ufunc.get(), left, right, nullptr));
    }
    replaced = as_matrix_object(scalar);
    return checked(array_is_left ? info(op).python(array, replaced.get())
                                 : info(op).python(replaced.get(), array));
}

Ref compare_with_array(PyObject* self, PyObject* other, int operation) {
    if (!is_ndarray(other)) return Ref();
    if (has_no_dimensions(other)) {
        Ref item = item_of(other);
        return checked(PyObject_RichCompare(self, item.get(), operation));
    }
    if ((operation != Py_EQ && operation != Py_NE) || dtype_kind(other) != 'O') return Ref();
    Ref ufunc = import_name("numpy", operation == Py_EQ ? "equal" : "not_equal");
    return checked(PyObject_CallFunctionObjArgs(ufunc.get(), self, other, nullptr));
}

}  // namespace taviropy
