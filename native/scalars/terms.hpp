// Building and changing the term lists of expressions.
#pragma once

#include "operands.hpp"

namespace taviropy {

inline Ref float_object(double value) { return checked(PyFloat_FromDouble(value)); }
inline Ref empty_list() { return checked(PyList_New(0)); }

/// A stored coefficient times a factor; the stored object itself where the factor is 1.0.
inline Ref scaled_coefficient(PyObject* stored, double factor) {
    double value = coefficient(stored);
    if (factor == 1.0 && PyFloat_CheckExact(stored)) return borrow(stored);
    return float_object(factor * value);
}

/// A new list of known length, filled from the front.
class ListBuilder {
  public:
    explicit ListBuilder(Py_ssize_t size) : list_(checked(PyList_New(size))) {}

    void append(Ref item) { PyList_SET_ITEM(list_.get(), filled_++, item.release()); }
    void append_coefficients(PyObject* const* coeffs, Py_ssize_t size, double factor) {
        for (Py_ssize_t k = 0; k < size; ++k) append(scaled_coefficient(coeffs[k], factor));
    }
    void append_variables(PyObject* const* vars, Py_ssize_t size) {
        for (Py_ssize_t k = 0; k < size; ++k) append(borrow(as_object(variable(vars[k]))));
    }
    Ref finish() { return std::move(list_); }

  private:
    Ref list_;
    Py_ssize_t filled_ = 0;
};

/// factor * view as a new LinExpr.
Ref scaled_linexpr(const LinearView& view, double factor);
/// left + factor * right as a new LinExpr.
Ref linear_sum(const LinearView& left, const LinearView& right, double factor);
/// The product, unmerged: quadratic terms with the left factor outer, then b * left, a * right.
Ref linear_product(const LinearView& left, const LinearView& right);
/// factor * quadexpr as a new QuadExpr.
Ref scaled_quadexpr(QuadExprObject* quadexpr, double factor);
/// left + factor * right as a new QuadExpr; each a number, Var, LinExpr or QuadExpr.
Ref quadratic_sum(const Operand& left, const Operand& right, double factor);

/// linexpr += factor * operand; nothing is changed where it fails.
void add_to(LinExprObject* linexpr, const Operand& operand, double factor);
void add_to(QuadExprObject* quadexpr, const Operand& operand, double factor);
void scale(LinExprObject* linexpr, double factor);
void scale(QuadExprObject* quadexpr, double factor);

/// The value of a linear expression at the last solution.
double linexpr_value(LinExprObject* linexpr);

/// One item of a term list; IndexError, with the name of the type, outside.
Ref list_item(PyObject* list, PyObject* index, const char* type);

/// Merges equal variables in the order of their first appearance.
void normalize(LinExprObject* linexpr);
void normalize(QuadExprObject* quadexpr);

}  // namespace taviropy
