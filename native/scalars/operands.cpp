#include "operands.hpp"

#include "base/terms.hpp"

namespace taviropy {

double number_value(PyObject* object, const char* what) {
    if (PyFloat_Check(object)) return PyFloat_AS_DOUBLE(object);
    if (!is_number(object))
        raise(PyExc_TypeError, "%s is of type '%s'; expected a number", what,
              Py_TYPE(object)->tp_name);
    return float_value(object);
}

double float_value(PyObject* object) {
    Ref value = checked(PyNumber_Float(object));
    return PyFloat_AS_DOUBLE(value.get());
}

Operand classify(PyObject* object) {
    PyTypeObject* type = Py_TYPE(object);
    if (type == types.var) return {OperandKind::var, object, 0.0};
    if (PyFloat_Check(object)) return {OperandKind::number, object, PyFloat_AS_DOUBLE(object)};
    if (is_linexpr(object)) return {OperandKind::linear, object, 0.0};
    if (is_quadexpr(object)) return {OperandKind::quadratic, object, 0.0};
    if (is_nlexpr(object)) return {OperandKind::nonlinear, object, 0.0};
    if (is_number(object)) return {OperandKind::number, object, number_value(object, "operand")};
    return {OperandKind::other, object, 0.0};
}

LinearView linear_view(const Operand& operand) {
    if (operand.kind == OperandKind::number) return {operand.number, 0, nullptr, nullptr};
    if (operand.kind == OperandKind::var) return {0.0, 1, &float_one, &operand.object};
    return linear_view(as_linexpr(operand.object));
}

LinearView linear_view(LinExprObject* linexpr) {
    Py_ssize_t size = PyList_GET_SIZE(linexpr->coeffs);
    if (!check_lengths("LinExpr", linexpr->coeffs, linexpr->vars)) throw PythonError();
    return {linexpr->constant, size, PySequence_Fast_ITEMS(linexpr->coeffs),
            PySequence_Fast_ITEMS(linexpr->vars)};
}

QuadraticView view_of(QuadExprObject* quadexpr) {
    Py_ssize_t size = PyList_GET_SIZE(quadexpr->coeffs);
    if (!check_lengths("QuadExpr", quadexpr->coeffs, quadexpr->vars1, quadexpr->vars2))
        throw PythonError();
    return {size, PySequence_Fast_ITEMS(quadexpr->coeffs), PySequence_Fast_ITEMS(quadexpr->vars1),
            PySequence_Fast_ITEMS(quadexpr->vars2)};
}

LinExprObject* linear_part(QuadExprObject* quadexpr) { return as_linexpr(quadexpr->linear); }

double coefficient(PyObject* stored) {
    double value;
    if (!read_coefficient(stored, value)) throw PythonError();
    return value;
}

HandleObject* variable(PyObject* stored) {
    if (!check_variable(stored, types.var)) throw PythonError();
    return as_handle(stored);
}

}  // namespace taviropy
