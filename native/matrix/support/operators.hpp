// What the operators of several matrix classes do with their operands.
#pragma once

#include <nanobind/nanobind.h>

#include "support/errors.hpp"

namespace taviropy {

/// left @ right
inline nb::object matrix_product(nb::handle left, nb::handle right) {
    return checked(PyNumber_MatrixMultiply(left.ptr(), right.ptr()));
}

/// base ** exponent
inline nb::object power(nb::handle base, nb::handle exponent) {
    return checked(PyNumber_Power(base.ptr(), exponent.ptr(), Py_None));
}

/// number == 2.0
inline bool is_two(nb::handle number) { return number.equal(nb::float_(2.0)); }

/// A scalar object of the package that stands for an expression: Var, LinExpr, QuadExpr or NLExpr.
bool is_scalar_expression(nb::handle object);

/// Whether an array holds the one number 2.
bool is_array_of_two(nb::handle array);

/// array.size
Py_ssize_t size_of(nb::handle array);

/// 1.0 / divisor, for a number, an array or a sparse matrix; an invalid object for anything else.
nb::object reciprocal(nb::handle np, nb::handle sp, nb::handle divisor);

/// `self += -1.0 * other` and `self *= 1.0 / other`, which are the in-place - and / of an
/// expression. Py_NotImplemented where there is no reciprocal.
nb::object subtract_in_place(nb::handle self, nb::handle other);
nb::object divide_in_place(nb::handle self, nb::handle other);

/// The shape of a matrix product; ValueError where the operands don't chain.
nb::object product_shape(nb::handle left_shape, nb::handle right_shape);

/// Whether an extent of a shape is 0.
bool has_zero(nb::handle shape);

/// Whether a matrix product sums nothing or has no elements: NumPy's products of object arrays give
/// no expressions then.
bool is_empty_product(nb::handle left_shape, nb::handle right_shape, nb::handle result_shape);

/// A dense array of a sparse matrix, checked; anything else as it is.
nb::object dense(nb::handle sp, nb::handle matrix);

}  // namespace taviropy
