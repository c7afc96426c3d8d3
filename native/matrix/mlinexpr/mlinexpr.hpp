// MLinExpr: what its files, and the classes above it, call of each other in C++.
//
// A function here that carries the name of a method is that method: the class's table binds the
// very same function, so its contract is its docstring's. The names without an underscore in front
// that no method has are short forms for C++.
#pragma once

#include <nanobind/nanobind.h>

#include <functional>

#include "support/classes.hpp"
#include "support/names.hpp"

namespace taviropy::mlinexpr {

namespace nb = nanobind;

// ---- Fields and form ------------------------------------------------------------------------

inline nb::object learr_of(nb::handle self) { return self.attr("_learr"); }
inline nb::object const_of(nb::handle self) { return self.attr("_const"); }
inline nb::object parts_of(nb::handle self) { return self.attr("_matmulparts"); }

/// `self._is_compact`, with its assertions.
bool is_compact(nb::handle self);

/// `cls._keep_compact == 1`
bool keeps_compact(nb::handle cls);

/// Opens every operator with two lanes: true where it takes the compact one, which needs a compact
/// `self` and the class's switch. Otherwise `self` is full from here on.
bool take_compact_lane(nb::handle self);

/// `MLinExpr._allows_compact(shape)`, for a shape that is a tuple of ints.
bool allows_compact(nb::handle shape);

nb::object shape_of(nb::handle self);      ///< `self.shape`
Py_ssize_t leading_adim(nb::handle self);  ///< `self._leading_adim`: the rows that every matrix has

/// `cls(learr)`, `MLinExpr(learr)`: wraps an object array, which is neither copied nor inspected.
nb::object new_full(nb::handle cls, nb::handle learr);
inline nb::object new_full(nb::handle learr) { return new_full(names::MLinExpr(), learr); }

/// `cls(matmulparts=parts, b=b)`, without a copy; the parts must hold matrices of the sparse kit.
nb::object new_compact(nb::handle cls, nb::handle parts, nb::handle b);
inline nb::object new_compact(nb::handle parts, nb::handle b) {
    return new_compact(names::MLinExpr(), parts, b);
}

/// `MNLExpr._from_mlinexpr(self)`, for what leaves the linear and quadratic world.
inline nb::object as_nonlinear(nb::handle self) {
    return names::MNLExpr().attr("_from_mlinexpr")(self);
}

/// The one part of an expression, `self._matmulparts[0]`, after its parts were merged.
struct Part {
    nb::object A, x;
};

/// Merges the parts and gives the one that is left; invalid objects where there is none.
Part merged_part(nb::handle self);

/// `self._extract_Axb()`; A and x are None where there is no part.
struct Axb {
    nb::object A, x, b;
};
Axb extract_Axb(nb::handle self);

// ---- forms.cpp ------------------------------------------------------------------------------

nb::object _concat_matmulparts(nb::handle self);
nb::object _add_matmul_part(nb::handle self, nb::handle A, nb::handle x);
/// The same for a matrix of the sparse kit that nobody else holds: it is taken as it is.
void add_own_part(nb::handle self, nb::handle A, nb::handle x);
/// What becomes of an element on its way into an array.
using Conversion = std::function<nb::object(nb::object)>;

/// An object array of the elements that a compact expression's `_to_full` makes, each converted as
/// soon as it is made and not kept. Merges the parts, as `_to_full` does.
nb::object converted_elements(nb::handle self, const Conversion& convert);
nb::object _to_full(nb::handle self);
nb::object _convert_to_full(nb::handle self);
nb::object _flatten(nb::handle self);
nb::object _normalize(nb::handle self);
nb::object clear(nb::handle self);

// ---- build.cpp, build_matmul.cpp: class methods; the short forms pass the module's MLinExpr
// --------

nb::object zeros(nb::handle cls, nb::handle shape);
nb::object _zeros_full(nb::handle cls, nb::handle shape);
nb::object _from_compact_affine_expr(nb::handle cls, nb::handle x_left, nb::handle A,
                                     nb::handle x_right, nb::handle b);
/// Which operand of a product the variables are.
enum class Side { left, right };
/// Refuses a sparse array of one dimension, which SciPy leaves as it is when asked for a
/// csr_matrix.
void refuse_vector(nb::handle csr);
/// The compact product of A and the variables x, whose shape is given, plus the constant b.
nb::object compact_product(nb::handle cls, nb::handle A, nb::handle x, nb::handle x_shape,
                           Side side, nb::handle b);
nb::object _from_matmul_right(nb::handle cls, nb::handle A, nb::handle x);
nb::object _from_matmul_left(nb::handle cls, nb::handle x, nb::handle A);
nb::object _from_matmul_right_ndarray(nb::handle cls, nb::handle A, nb::handle x);
nb::object _from_matmul_right_spmatrix(nb::handle cls, nb::handle A, nb::handle x);
nb::object _from_matmul_left_ndarray(nb::handle cls, nb::handle x, nb::handle A);
nb::object _from_matmul_left_spmatrix(nb::handle cls, nb::handle x, nb::handle A);
nb::object _from_mvar(nb::handle cls, nb::handle fromobj, nb::handle force_full);
nb::object _from_mvar_compact(nb::handle cls, nb::handle x);
nb::object _from_mvar_full(nb::handle cls, nb::handle fromobj);
nb::object _from_var(nb::handle cls, nb::handle fromobj);
nb::object _from_linexpr(nb::handle cls, nb::handle fromobj);

inline nb::object zeros(nb::handle shape) { return zeros(names::MLinExpr(), shape); }
inline nb::object zeros_full(nb::handle shape) { return _zeros_full(names::MLinExpr(), shape); }
inline nb::object from_mvar(nb::handle x, bool force_full = false) {
    return _from_mvar(names::MLinExpr(), x, force_full ? Py_True : Py_False);
}
inline nb::object from_var(nb::handle v) { return _from_var(names::MLinExpr(), v); }
inline nb::object from_linexpr(nb::handle le) { return _from_linexpr(names::MLinExpr(), le); }
/// A compact constant: `MLinExpr._from_compact_affine_expr(b=b)`.
inline nb::object from_constant(nb::handle b) {
    nb::object cls = names::MLinExpr();
    return _from_compact_affine_expr(cls, Py_None, Py_None, Py_None, b);
}

/// `self.copy()`; a subclass's own `copy` counts.
nb::object copy_of(nb::handle self);
nb::object copy(nb::handle self);

// ---- add.cpp --------------------------------------------------------------------------------

nb::object add(nb::handle self, nb::handle other);
/// `expr + other`; where nobody else holds the expression, a number is added in place.
nb::object plus_fresh(nb::object expr, nb::handle other);
/// The same of `other + expr`, `expr - other` and `other - expr`.
nb::object rplus_fresh(nb::handle other, nb::object expr);
nb::object minus_fresh(nb::object expr, nb::handle other);
nb::object rminus_fresh(nb::handle other, nb::object expr);
nb::object iadd(nb::handle self, nb::handle other);
nb::object _add_full_mlinexpr(nb::handle self, nb::handle other);
nb::object _iadd_full_ndarray(nb::handle self, nb::handle other);
nb::object _iadd_full_mlinexpr(nb::handle self, nb::handle other);

// ---- scale.cpp ------------------------------------------------------------------------------

nb::object mul(nb::handle self, nb::handle other);
nb::object imul(nb::handle self, nb::handle other);
nb::object _split_lin_quad(nb::handle mixarr);

// ---- matmul.cpp -----------------------------------------------------------------------------

nb::object matmul(nb::handle self, nb::handle other);
nb::object rmatmul(nb::handle self, nb::handle other);

// ---- The families' methods, added to the class by define_mlinexpr ---------------------------

void add_form_methods(ClassBody& body);
void add_build_methods(ClassBody& body);
void add_build_matmul_methods(ClassBody& body);
void add_index_methods(ClassBody& body);
void add_text_methods(ClassBody& body);
void add_addition_methods(ClassBody& body);
void add_scaling_methods(ClassBody& body);
void add_matmul_methods(ClassBody& body);
void add_reduction_methods(ClassBody& body);
void add_comparison_methods(ClassBody& body);

}  // namespace taviropy::mlinexpr
