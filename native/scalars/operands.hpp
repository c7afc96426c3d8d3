// What an operand is: a number, one of the scalar objects, or something else.
#pragma once

#include "base/numbers.hpp"
#include "scalars.hpp"

namespace taviropy {

enum class OperandKind { other, number, var, linear, quadratic, nonlinear };

struct Operand {
    OperandKind kind;
    PyObject* object;
    double number;  ///< value where the kind is number
};

/// A number as a double; TypeError, with `what` in it, for anything else.
double number_value(PyObject* object, const char* what);

/// What `float()` makes of an object.
double float_value(PyObject* object);

/// Classifies an operand. A number that has no float value raises what `float()` raises.
Operand classify(PyObject* object);

/// The terms of a number, a Var or a LinExpr, without a copy: good until code of others runs, or
/// the expression drops a list.
struct LinearView {
    double constant = 0.0;
    Py_ssize_t size = 0;
    PyObject* const* coeffs = nullptr;
    PyObject* const* vars = nullptr;
};
LinearView linear_view(const Operand& operand);
LinearView linear_view(LinExprObject* linexpr);

/// The quadratic terms of a QuadExpr, without a copy; its linear part is viewed on its own.
struct QuadraticView {
    Py_ssize_t size = 0;
    PyObject* const* coeffs = nullptr;
    PyObject* const* vars1 = nullptr;
    PyObject* const* vars2 = nullptr;
};
QuadraticView view_of(QuadExprObject* quadexpr);
LinExprObject* linear_part(QuadExprObject* quadexpr);

// The same of a LinExpr, for what is written for both.
inline LinearView view_of(LinExprObject* linexpr) { return linear_view(linexpr); }
inline LinExprObject* linear_part(LinExprObject* linexpr) { return linexpr; }

/// A coefficient as stored in a term list.
double coefficient(PyObject* stored);
/// The variable stored in a term list.
HandleObject* variable(PyObject* stored);

}  // namespace taviropy
