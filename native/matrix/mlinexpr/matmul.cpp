// MLinExpr: matrix products. With numbers the result stays linear, with variables it is quadratic.
//
// Compact expressions multiply by sparse algebra on their matrices, full ones element by element.

#include "core_interface/scalars.hpp"
#include "mlinexpr/mlinexpr.hpp"
#include "mquadexpr/mquadexpr.hpp"
#include "mvar/mvar.hpp"
#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/object_arrays.hpp"
#include "support/object_product.hpp"
#include "support/operators.hpp"
#include "support/sparse.hpp"

namespace taviropy::mlinexpr {

using namespace nb::literals;

namespace {

/// A full product of an operand with more than 25 rows or columns costs a multiplication of
/// expressions for each of its many terms. TypeError from `max` for operands with fewer than two
/// axes in all.
void warn_if_large(nb::handle left_shape, nb::handle right_shape) {
    nb::list extents;
    extents.extend(left_shape);
    extents.extend(right_shape);
    nb::object largest = nb::module_::import_("builtins").attr("max")(*nb::tuple(extents));
    if (!(largest > nb::int_(25))) return;
    nb::module_::import_("warnings")
        .attr("warn")(
            "Chained matrix multiplications of MVars is inefficient, collect numeric terms first "
            "when "
            "building expressions",
            nb::handle(PyExc_RuntimeWarning));
}

/// A product of object arrays; a bare element is what 0-d results come as.
nb::object element_product(nb::handle np, nb::handle left, nb::handle right) {
    nb::object result = object_product(np, left, right);
    return is_ndarray(np, result) ? result : array_of_one(np, result);
}

/// A full MQuadExpr of mixed products.
nb::object quadratic(nb::handle mixarr) {
    nb::object ndle = new_full(_split_lin_quad(mixarr));
    return names::MQuadExpr()("qearr"_a = mixarr, "ndle"_a = ndle);
}

}  // namespace

// ---- With numbers ------------------------------------------------------------------------------

static nb::object _matmul_full_spmatrix_or_ndarray(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    nb::object shape = shape_of(self), other_shape = other.attr("shape");
    warn_if_large(shape, other_shape);
    nb::object res_shape = product_shape(shape, other_shape);
    if (is_empty_product(shape, other_shape, res_shape)) return zeros(res_shape);
    nb::object result = new_full(element_product(np, learr_of(self), dense(sp, other)));
    _normalize(result);
    return result;
}

static nb::object _rmatmul_full_spmatrix_or_ndarray(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    nb::object shape = shape_of(self), other_shape = other.attr("shape");
    nb::object res_shape = product_shape(other_shape, shape);
    if (is_empty_product(other_shape, shape, res_shape)) return zeros(res_shape);
    warn_if_large(shape, other_shape);
    nb::object result = new_full(element_product(np, dense(sp, other), learr_of(self)));
    _normalize(result);
    return result;
}

/// Whether an expression is a row of one dimension or two; a row of its matrix is an element of it.
static bool is_row(nb::handle shape) {
    return nb::len(shape) == 1 || nb::object(shape[0]).equal(nb::int_(1));
}

/// The product's expression `b_out`, completed by the matrix of its terms. SciPy's coo_array gives
/// the product of a vector and one column with an axis too few.
static nb::object with_part(nb::handle self, nb::handle b_out, nb::handle shape,
                            nb::handle multiplier, bool along) {
    const bool short_of_axes = nb::cast<std::size_t>(b_out.attr("ndim")) < nb::len(shape);
    nb::object result = from_constant(short_of_axes ? b_out.attr("reshape")(shape) : b_out);
    if (nb::len(parts_of(self)) == 0) return result;
    Axb own = extract_Axb(self);
    PY_ASSERT(nb::len(shape_of(self)) == 1 || nb::len(shape_of(self)) == 2);
    nb::object A_out = along ? sparse::product(multiplier, own.A) : sparse::kron(multiplier, own.A);
    add_own_part(result, A_out, own.x.attr("copy")());
    return result;
}

static nb::object _matmul_compact_spmatrix_or_ndarray(nb::handle self, nb::handle spmat) {
    auto np = import_numpy();
    nb::object shape = shape_of(self);
    nb::object shape_prod = product_shape(shape, spmat.attr("shape"));
    if (!allows_compact(shape_prod)) return _matmul_full_spmatrix_or_ndarray(_to_full(self), spmat);
    nb::object matrix = sparse::sound(spmat);
    nb::object b_out = np.attr("asarray")(matrix_product(const_of(self), matrix));
    return with_part(self, b_out, shape_prod, matrix.attr("T"), is_row(shape));
}

static nb::object _rmatmul_compact_spmatrix_or_ndarray(nb::handle self, nb::handle spmat) {
    auto np = import_numpy();
    nb::object shape = shape_of(self);
    nb::object shape_prod = product_shape(spmat.attr("shape"), shape);
    if (!allows_compact(shape_prod))
        return _rmatmul_full_spmatrix_or_ndarray(_to_full(self), spmat);
    nb::object matrix = sparse::sound(spmat);
    nb::object b_out = np.attr("asarray")(matrix_product(matrix, const_of(self)));
    return with_part(self, b_out, shape_prod, matrix, nb::len(shape) == 1 || !is_row(shape));
}

// ---- With variables ----------------------------------------------------------------------------

/// left @ right of object arrays, whose shapes are given as those of their owners.
static nb::object full_product(nb::handle left, nb::handle left_shape, nb::handle right,
                               nb::handle right_shape) {
    auto np = import_numpy();
    nb::object shape = product_shape(left_shape, right_shape);
    if (is_empty_product(left_shape, right_shape, shape))
        return names::MQuadExpr().attr("zeros")(shape);
    return quadratic(element_product(np, left, right));
}

static nb::object _matmul_full_mvar(nb::handle self, nb::handle y) {
    return full_product(learr_of(self), shape_of(self), y.attr("_vararr"), y.attr("shape"));
}

static nb::object _rmatmul_full_mvar(nb::handle self, nb::handle y) {
    return full_product(y.attr("_vararr"), y.attr("shape"), learr_of(self), shape_of(self));
}

/// The one-element product of A x + b and y, on either side: y' A x, and `ndle` from b and y.
static nb::object bilinear(const Axb& own, nb::handle y, nb::handle ndle) {
    nb::list quadparts;
    if (!own.A.is_none())
        quadparts.append(
            nb::make_tuple(mvar::flat(y), sparse::to_coo(own.A, true), own.x.attr("copy")()));
    return mquadexpr::new_compact(quadparts, ndle);
}

static nb::object _matmul_compact_mvar(nb::handle self, nb::handle y) {
    nb::object shape_result = product_shape(shape_of(self), y.attr("shape"));
    if (!mquadexpr::allows_compact(shape_result)) return _matmul_full_mvar(_to_full(self), y);
    Axb own = extract_Axb(self);
    return bilinear(own, y, matrix_product(own.b, y));
}

static nb::object _rmatmul_compact_mvar(nb::handle self, nb::handle y) {
    nb::object shape_result = product_shape(y.attr("shape"), shape_of(self));
    if (!mquadexpr::allows_compact(shape_result)) return _rmatmul_full_mvar(_to_full(self), y);
    Axb own = extract_Axb(self);
    return bilinear(own, y, matrix_product(y, own.b));
}

// ---- With expressions --------------------------------------------------------------------------

static nb::object _matmul_full_mlinexpr(nb::handle self, nb::handle ndle) {
    auto np = import_numpy();
    nb::object shape = shape_of(self), other_shape = shape_of(ndle);
    nb::object res_shape = product_shape(shape, other_shape);
    if (is_empty_product(shape, other_shape, res_shape))
        return names::MQuadExpr().attr("zeros")(res_shape);
    warn_if_large(shape, other_shape);
    _convert_to_full(ndle);
    nb::object mixprod = element_product(np, learr_of(self), learr_of(ndle));
    PY_ASSERT(nb::object(mixprod.attr("shape")).equal(res_shape));
    return quadratic(mixprod);
}

/// (A x + b) @ (C y + d), of one element or none.
static nb::object _matmul_compact_mlinexpr_compact(nb::handle self, nb::handle ndle) {
    auto np = import_numpy();
    product_shape(shape_of(self), shape_of(ndle));
    Axb left = extract_Axb(self), right = extract_Axb(ndle);
    nb::object b_out = np.attr("asarray")(matrix_product(left.b, right.b));
    nb::list matmulparts, quadparts;
    if (!right.A.is_none())
        matmulparts.append(nb::make_tuple(sparse::product(left.b, right.A), right.x));
    if (!left.A.is_none())
        matmulparts.append(nb::make_tuple(sparse::product(right.b.attr("T"), left.A), left.x));
    if (!left.A.is_none() && !right.A.is_none()) {
        nb::object Q = matrix_product(left.A.attr("T"), right.A);
        quadparts.append(nb::make_tuple(left.x, sparse::to_coo(Q, false), right.x));
    }
    return mquadexpr::new_compact(quadparts, new_compact(matmulparts, b_out));
}

/// Unlike a product with numbers or variables, one that can't be compact makes both operands full.
static nb::object _matmul_compact_mlinexpr(nb::handle self, nb::handle ndle) {
    nb::object res_shape = product_shape(shape_of(self), shape_of(ndle));
    if (is_compact(ndle) && mquadexpr::allows_compact(res_shape))
        return _matmul_compact_mlinexpr_compact(self, ndle);
    _convert_to_full(self);
    return _matmul_full_mlinexpr(self, ndle);
}

// ---- Dispatch ----------------------------------------------------------------------------------

nb::object matmul(nb::handle self, nb::handle other) {
    GcPause pause;
    auto np = import_numpy();
    auto sp = import_sparse();
    const bool compact = take_compact_lane(self);
    if (is_sparse(sp, other) || is_ndarray(np, other))
        return compact ? _matmul_compact_spmatrix_or_ndarray(self, other)
                       : _matmul_full_spmatrix_or_ndarray(self, other);
    if (is_a(other, names::MVar))
        return compact ? _matmul_compact_mvar(self, other) : _matmul_full_mvar(self, other);
    if (is_a(other, names::MLinExpr))
        return compact ? _matmul_compact_mlinexpr(self, other) : _matmul_full_mlinexpr(self, other);
    return not_implemented();
}

nb::object rmatmul(nb::handle self, nb::handle other) {
    GcPause pause;
    auto np = import_numpy();
    auto sp = import_sparse();
    const bool compact = take_compact_lane(self);
    if (is_sparse(sp, other) || is_ndarray(np, other))
        return compact ? _rmatmul_compact_spmatrix_or_ndarray(self, other)
                       : _rmatmul_full_spmatrix_or_ndarray(self, other);
    if (is_a(other, names::MVar))
        return compact ? _rmatmul_compact_mvar(self, other) : _rmatmul_full_mvar(self, other);
    return not_implemented();
}

// ---- The table ---------------------------------------------------------------------------------

void add_matmul_methods(ClassBody& body) {
    body.method<&matmul>("__matmul__(self, other)")
        .method<&rmatmul>("__rmatmul__(self, other)")
        .method<&_matmul_compact_spmatrix_or_ndarray>(
            "_matmul_compact_spmatrix_or_ndarray(self, spmat)",
            R"(A compact expression times a matrix of numbers; compact where the shape allows it.)")
        .method<&_matmul_full_spmatrix_or_ndarray>(
            "_matmul_full_spmatrix_or_ndarray(self, other)",
            R"(A full expression times a matrix of numbers. RuntimeWarning for large operands.)")
        .method<&_matmul_compact_mvar>("_matmul_compact_mvar(self, y)",
                                       R"(A compact expression times variables, as an MQuadExpr.)")
        .method<&_matmul_full_mvar>("_matmul_full_mvar(self, y)",
                                    R"(A full expression times variables, as an MQuadExpr.)")
        .method<&_matmul_compact_mlinexpr>(
            "_matmul_compact_mlinexpr(self, ndle)",
            R"(A compact expression times another, as an MQuadExpr.)")
        .method<&_matmul_compact_mlinexpr_compact>(
            "_matmul_compact_mlinexpr_compact(self, ndle)",
            R"(The compact product of two compact expressions, of at most one element.)")
        .method<&_matmul_full_mlinexpr>("_matmul_full_mlinexpr(self, ndle)",
                                        R"(A full expression times another, which becomes full.)")
        .method<&_rmatmul_compact_spmatrix_or_ndarray>(
            "_rmatmul_compact_spmatrix_or_ndarray(self, spmat)",
            R"(A matrix of numbers times a compact expression; compact where the shape allows it.)")
        .method<&_rmatmul_full_spmatrix_or_ndarray>(
            "_rmatmul_full_spmatrix_or_ndarray(self, other)",
            R"(A matrix of numbers times a full expression. RuntimeWarning for large operands.)")
        .method<&_rmatmul_compact_mvar>("_rmatmul_compact_mvar(self, y)",
                                        R"(Variables times a compact expression, as an MQuadExpr.)")
        .method<&_rmatmul_full_mvar>("_rmatmul_full_mvar(self, y)",
                                     R"(Variables times a full expression, as an MQuadExpr.)");
}

}  // namespace taviropy::mlinexpr
