// MQuadExpr: matrix products. With numbers the result stays quadratic, with variables it is
// nonlinear.

#include "core_interface/scalars.hpp"
#include "mquadexpr/mquadexpr.hpp"
#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/object_product.hpp"
#include "support/operators.hpp"
#include "support/sparse.hpp"

namespace taviropy::mquadexpr {

namespace {

/// self @ other, or other @ self
nb::object product_of(nb::handle self, nb::handle other, bool self_left) {
    return self_left ? matrix_product(self, other) : matrix_product(other, self);
}

bool is_matrix(nb::handle np, nb::handle sp, nb::handle other) {
    return is_ndarray(np, other) || is_sparse(sp, other);
}

nb::object full_product(nb::handle self, nb::handle other, bool self_left) {
    auto np = import_numpy();
    auto sp = import_sparse();
    nb::object left_shape = (self_left ? self : other).attr("shape");
    nb::object right_shape = (self_left ? other : self).attr("shape");
    nb::object shape = product_shape(left_shape, right_shape);
    // What is empty, or a sum of nothing, goes past NumPy's object products.
    if (is_empty_product(left_shape, right_shape, shape))
        return names::MQuadExpr().attr("zeros")(shape);
    nb::object ndle = product_of(self.attr("_ndle"), other, self_left);
    nb::object quadratic = self.attr("_qearr"), numbers = dense(sp, other);
    nb::object qearr =
        self_left ? object_product(np, quadratic, numbers) : object_product(np, numbers, quadratic);
    nb::object result = new_full(qearr, ndle);
    _normalize(result);
    return result;
}

/// A product of one element is a pure scaling; any other shape makes `self` full.
nb::object compact_product(nb::handle self, nb::handle other, bool self_left) {
    auto sp = import_sparse();
    nb::object ndle = product_of(self.attr("_ndle"), other, self_left);
    if (!allows_compact(ndle.attr("shape"))) {
        _convert_to_full(self);
        return full_product(self, other, self_left);
    }
    nb::float_ value(as_double(dense(sp, other).attr("item")()));
    nb::list quadparts(_copy_quadparts(self));
    for (nb::handle entry : quadparts) QuadPart(entry).Q.attr("data") *= value;
    return new_compact(quadparts, ndle);
}

nb::object numeric_product(nb::handle self, nb::handle other, bool self_left) {
    auto np = import_numpy();
    auto sp = import_sparse();
    bool compact = take_compact_lane(self);
    if (!is_matrix(np, sp, other)) return not_implemented();
    return compact ? compact_product(self, other, self_left) : full_product(self, other, self_left);
}

}  // namespace

static nb::object _matmul_compact_ndarray_or_spmatrix(nb::handle self, nb::handle other) {
    return compact_product(self, other, true);
}

static nb::object _matmul_full_ndarray_or_spmatrix(nb::handle self, nb::handle other) {
    return full_product(self, other, true);
}

static nb::object _rmatmul_compact_ndarray_or_spmatrix(nb::handle self, nb::handle other) {
    return compact_product(self, other, false);
}

static nb::object _rmatmul_full_ndarray_or_spmatrix(nb::handle self, nb::handle other) {
    return full_product(self, other, false);
}

static nb::object matmul(nb::handle self, nb::handle other) {
    if (is_a(other, names::MVar, names::MLinExpr, names::MQuadExpr))
        return matrix_product(as_nonlinear(self), other);
    return numeric_product(self, other, true);
}

static nb::object rmatmul(nb::handle self, nb::handle other) {
    if (is_a(other, names::MVar, names::MLinExpr)) return matrix_product(other, as_nonlinear(self));
    return numeric_product(self, other, false);
}

void add_matmul_methods(ClassBody& body) {
    body.method<&matmul>("__matmul__(self, other)")
        .method<&rmatmul>("__rmatmul__(self, other)")
        .method<&_matmul_compact_ndarray_or_spmatrix>(
            "_matmul_compact_ndarray_or_spmatrix(self, other)")
        .method<&_matmul_full_ndarray_or_spmatrix>("_matmul_full_ndarray_or_spmatrix(self, other)")
        .method<&_rmatmul_compact_ndarray_or_spmatrix>(
            "_rmatmul_compact_ndarray_or_spmatrix(self, other)")
        .method<&_rmatmul_full_ndarray_or_spmatrix>(
            "_rmatmul_full_ndarray_or_spmatrix(self, other)");
}

}  // namespace taviropy::mquadexpr
