// MLinExpr: multiplication, division and powers.
//
// A product with numbers stays linear, one with a linear operand is quadratic, and everything
// beyond that is nonlinear.

#include "core_interface/scalars.hpp"
#include "mlinexpr/mlinexpr.hpp"
#include "mvar/mvar.hpp"
#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/numbers.hpp"
#include "support/object_arrays.hpp"
#include "support/operators.hpp"
#include "support/sparse.hpp"

namespace taviropy::mlinexpr {

using namespace nb::literals;

namespace {

/// self._const *= other
void scale_const(nb::handle self, nb::handle other) { self.attr("_const") *= other; }

/// A.data *= value, for the matrix of the one part.
void scale_data(const Part& part, double value) { part.A.attr("data") *= nb::float_(value); }

/// A new list of the coefficients times a number.
nb::object scaled_list(PyObject* coeffs, double value) {
    return list_of(PyList_GET_SIZE(coeffs), [&](Py_ssize_t k) {
        return PyFloat_FromDouble(coefficient(PyList_GET_ITEM(coeffs, k)) * value);
    });
}

/// le._mul(value)
void scale_element(const nb::object& le, double value) {
    LinExprObject* fields = as_linexpr(le.ptr());
    if (!is_plain_linexpr(le.ptr())) {
        le.attr("_mul")(nb::float_(value));
        return;
    }
    set_field(fields->coeffs, scaled_list(fields->coeffs, value));
    fields->constant *= value;
}

/// A copy of an element, times a number.
nb::object scaled_copy(const nb::object& le, double value) {
    LinExprObject* fields = as_linexpr(le.ptr());
    if (is_plain_linexpr(le.ptr()))
        return make_linexpr(fields->constant * value, scaled_list(fields->coeffs, value),
                            copy_list(fields->vars));
    nb::object copy = le.attr("copy")();
    copy.attr("_mul")(nb::float_(value));
    return copy;
}

}  // namespace

// ---- In place ----------------------------------------------------------------------------------

static nb::object _imul_compact_scalar(nb::handle self, nb::handle value) {
    const double factor = as_double(value);
    if (factor == 1.0) return nb::borrow(self);
    scale_const(self, nb::float_(factor));
    Part part = merged_part(self);
    if (part.A.is_valid()) scale_data(part, factor);
    return nb::borrow(self);
}

static nb::object _imul_compact_ndarray(nb::handle self, nb::handle arr) {
    auto np = import_numpy();
    refuse_infinite(np, arr);
    scale_const(self, plain_array(np, arr));
    const Py_ssize_t size = size_of(arr);
    PY_ASSERT(size == 1 || size == leading_adim(self));
    Part part = merged_part(self);
    if (!part.A.is_valid()) return nb::borrow(self);
    if (size == 1)
        scale_data(part, as_double(arr.attr("item")()));
    else
        sparse::scale_rows(part.A, arr);
    return nb::borrow(self);
}

static nb::object _imul_compact_spmatrix(nb::handle self, nb::handle spmat) {
    return _imul_compact_ndarray(self, sparse::to_array(spmat));
}

static nb::object _imul_scalar(nb::handle self, nb::handle other) {
    constexpr WalkFlags flags = {flag::zerosize_ok, {flag::readwrite}};
    const double value = as_double(other);
    if (value == 1.0) return nb::borrow(self);
    nb::object learr = learr_of(self);
    walk<1>(flags, {learr},
            [&](const auto& chunks, Py_ssize_t k) { scale_element(chunks[0].element(k), value); });
    return nb::borrow(self);
}

static nb::object _imul_ndarray(nb::handle self, nb::handle other) {
    constexpr WalkFlags flags = {
        flag::buffered, {flag::readwrite | flag::no_broadcast, flag::readonly | flag::copy}, "Od"};
    auto np = import_numpy();
    refuse_masked(np, other);
    nb::object learr = learr_of(self), numbers = number_array(np, other);
    walk<2>(flags, {learr, numbers}, [&](const auto& chunks, Py_ssize_t k) {
        scale_element(chunks[0].element(k), chunks[1].number(k));
    });
    return nb::borrow(self);
}

static nb::object _imul_full_spmatrix(nb::handle self, nb::handle spmat) {
    return _imul_ndarray(self, sparse::to_array(spmat));
}

static nb::object imul_compact(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    if (is_ndarray(np, other)) return _imul_compact_ndarray(self, other);
    if (is_sparse(sp, other)) return _imul_compact_spmatrix(self, other);
    if (is_scalar(other)) return _imul_compact_scalar(self, real_float(other));
    return not_implemented();
}

static nb::object imul_full(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    if (is_ndarray(np, other)) return _imul_ndarray(self, other);
    if (is_sparse(sp, other)) return _imul_full_spmatrix(self, other);
    if (is_scalar(other)) return _imul_scalar(self, real_float(other));
    return not_implemented();
}

nb::object imul(nb::handle self, nb::handle other) {
    return take_compact_lane(self) ? imul_compact(self, other) : imul_full(self, other);
}

// ---- Products ----------------------------------------------------------------------------------

static nb::object _mul_compact_ndarray(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    nb::object other_shape = other.attr("shape");
    nb::object result_shape = names::_broadcast_shapes()(shape_of(self), other_shape);
    if (!allows_compact(result_shape)) return _to_full(self) * other;
    nb::object b = const_of(self);
    if (result_shape.equal(b.attr("shape")))
        b = b.attr("copy")();
    else
        b = np.attr("array")(np.attr("broadcast_to")(b, result_shape));
    nb::object result = new_compact(nb::list(), b);
    Part part = merged_part(self);
    if (part.A.is_valid()) {
        const Py_ssize_t size = size_of(other), rows = leading_adim(self);
        nb::object A;
        if (size == 1 || size == rows) {
            A = sparse::copy(part.A);
        } else {
            PY_ASSERT(rows == 1 && size > 1);
            A = sparse::repeat_row(part.A, size_of(b));
        }
        add_own_part(result, A, mvar::new_mvar(part.x.attr("_vararr")));
    }
    result *= other;
    return result;
}

static nb::object _mul_ndarray_numpy(nb::handle self, nb::handle other) {
    constexpr WalkFlags flags = {flag::buffered | flag::reduce_ok,
                                 {flag::readwrite, flag::readonly | flag::copy, flag::writeonly},
                                 "OdO"};
    auto np = import_numpy();
    refuse_masked(np, other);
    nb::object learr = learr_of(self), numbers = number_array(np, other);
    nb::object shape =
        names::_broadcast_shapes()(nb::getattr(learr, "shape"), nb::getattr(numbers, "shape"));
    nb::object out = empty_object_array(np, shape);
    GcPause pause;
    walk<3>(flags, {learr, numbers, out}, [&](const auto& chunks, Py_ssize_t k) {
        chunks[2].store(k, scaled_copy(chunks[0].element(k), chunks[1].number(k)));
    });
    return new_full(out);
}

/// `self` is full; gives a full MQuadExpr.
static nb::object _mul_full_mlinexpr_mvar(nb::handle self, nb::handle other) {
    nb::object arr;
    if (is_a(other, names::MLinExpr))
        arr = learr_of(is_compact(other) ? _to_full(other) : nb::borrow(other));
    else if (is_a(other, names::MVar))
        arr = other.attr("_vararr");
    else
        raise(PyExc_UnboundLocalError,
              "an element-wise product needs an MLinExpr or MVar, not " + text_of(other));
    GcPause pause;
    nb::object qearr = learr_of(self) * arr;
    if (is_quadexpr(qearr)) return names::MQuadExpr().attr("_from_quad_expr")(qearr);
    nb::object ndle = new_full(_split_lin_quad(qearr));
    return names::MQuadExpr()("qearr"_a = qearr, "ndle"_a = ndle);
}

nb::object _split_lin_quad(nb::handle mixarr) {
    constexpr WalkFlags flags = {flag::buffered, {flag::readwrite, flag::readwrite}};
    nb::object learr = empty_object_array(import_numpy(), mixarr.attr("shape"));
    walk<2>(flags, {mixarr, learr}, [&](const auto& chunks, Py_ssize_t k) {
        nb::object element = chunks[0].element(k);
        if (is_quadexpr(element)) {
            element.attr("_normalize")();
            PyObject*& linear = as_quadexpr(element.ptr())->linear;
            chunks[1].store(k, nb::borrow(linear));
            set_field(linear, new_linexpr());
        } else {
            as_linexpr(element.ptr());
            element.attr("_normalize")();
            chunks[1].store(k, element);
            chunks[0].store(k, new_quadexpr());
        }
    });
    return learr;
}

static nb::object scaled_by_number(nb::handle self, nb::handle other) {
    nb::object result = copy_of(self);  // first, so that it merges the parts of self in any case
    result *= real_float(other);
    return result;
}

/// What both lanes do with operands other than arrays; `full` is a full form of the expression.
template <class Full>
static nb::object mul_expression(nb::handle self, nb::handle other, Full&& full) {
    if (is_a(other, names::MVar)) return _mul_full_mlinexpr_mvar(full(), other);
    if (is_a(other, names::Var)) {
        nb::object tmp = full();
        return _mul_full_mlinexpr_mvar(tmp, names::MVar().attr("fromlist")(other));
    }
    if (is_linexpr(other)) {
        nb::object tmp = full();
        return _mul_full_mlinexpr_mvar(tmp, from_linexpr(other));
    }
    if (is_a(other, names::MLinExpr)) return _mul_full_mlinexpr_mvar(full(), other);
    if (is_scalar(other)) return scaled_by_number(self, other);
    return not_implemented();
}

static nb::object mul_compact(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    if (is_ndarray(np, other)) return _mul_compact_ndarray(self, other);
    if (is_sparse(sp, other)) return _mul_compact_ndarray(self, sparse::to_array(other));
    return mul_expression(self, other, [&] { return _to_full(self); });
}

static nb::object mul_full(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    if (is_ndarray(np, other)) return _mul_ndarray_numpy(self, other);
    if (is_sparse(sp, other)) return _mul_ndarray_numpy(self, sparse::to_array(other));
    return mul_expression(self, other, [&] { return nb::borrow(self); });
}

nb::object mul(nb::handle self, nb::handle other) {
    if (is_quadexpr(other) || is_a(other, names::NLExpr)) return as_nonlinear(self) * other;
    return take_compact_lane(self) ? mul_compact(self, other) : mul_full(self, other);
}

static nb::object rmul(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    if (is_quadexpr(other) || is_a(other, names::NLExpr)) return other * as_nonlinear(self);
    if (is_a(other, names::Var) || is_linexpr(other) || is_a(other, names::MVar, names::MLinExpr) ||
        is_ndarray(np, other) || is_sparse(sp, other) || is_scalar(other))
        return self * other;
    return not_implemented();
}

// ---- Division and powers -----------------------------------------------------------------------

static nb::object itruediv(nb::handle self, nb::handle other) {
    return divide_in_place(self, other);
}

static bool is_expression(nb::handle other) {
    return is_scalar_expression(other) || is_a(other, names::MVar, names::MLinExpr);
}

static nb::object truediv(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    if (is_expression(other)) return as_nonlinear(self) / other;
    nb::object factor = reciprocal(np, sp, other);
    return factor.is_valid() ? self * factor : not_implemented();
}

static nb::object rtruediv(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    if (is_scalar(other) || is_ndarray(np, other) || is_a(other, names::Var) || is_linexpr(other) ||
        is_quadexpr(other))
        return other / as_nonlinear(self);
    if (is_sparse(sp, other)) {
        nb::object denominator = as_nonlinear(self);
        return sparse::to_array(other) / denominator;
    }
    return not_implemented();
}

/// self ** array: the square where the array holds a single 2, enlarged to the array's shape.
static nb::object power_of_array(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    if (!is_array_of_two(other)) return power(as_nonlinear(self), other);
    nb::object shape = shape_of(self), other_shape = other.attr("shape");
    nb::object base = nb::borrow(self);
    if (!nb::object(names::_broadcast_shapes()(shape, other_shape)).equal(shape))
        base = self * np.attr("ones")(other_shape);
    return base * base;
}

static nb::object pow(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    if (is_ndarray(np, other)) return power_of_array(self, other);
    if (is_scalar(other)) {
        if (is_two(other)) return self * self;
        return power(as_nonlinear(self), other);
    }
    if (is_expression(other) || is_a(other, names::MQuadExpr))
        return power(as_nonlinear(self), other);
    return not_implemented();
}

static nb::object rpow(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    if (is_ndarray(np, other) || is_scalar_expression(other) || is_scalar(other))
        return power(other, as_nonlinear(self));
    return not_implemented();
}

// ---- Signs -------------------------------------------------------------------------------------

static nb::object pos(nb::handle self) { return copy_of(self); }

static nb::object neg(nb::handle self) { return self * nb::float_(-1.0); }

// ---- The table ---------------------------------------------------------------------------------

void add_scaling_methods(ClassBody& body) {
    body.method<&mul>("__mul__(self, other)")
        .method<&rmul>("__rmul__(self, other)")
        .method<&imul>("__imul__(self, other)")
        .method<&truediv>("__truediv__(self, other)")
        .method<&rtruediv>("__rtruediv__(self, other)")
        .method<&itruediv>("__itruediv__(self, other)")
        .method<&pow>("__pow__(self, other)")
        .method<&rpow>("__rpow__(self, other)")
        .method<&pos>("__pos__(self)")
        .method<&neg>("__neg__(self)")
        .method<&_imul_compact_scalar>("_imul_compact_scalar(self, value)",
                                       R"(Multiplies a compact expression by a number, in place.)")
        .method<&_imul_compact_ndarray>(
            "_imul_compact_ndarray(self, arr)",
            R"(Multiplies a compact expression by finite numbers, in place; TaviroError for others,
nothing having changed.)")
        .method<&_imul_compact_spmatrix>("_imul_compact_spmatrix(self, spmat)",
                                         R"(The same by a sparse matrix.)")
        .method<&_imul_scalar>("_imul_scalar(self, other)",
                               R"(Multiplies a full expression by a number, in place.)")
        .method<&_imul_ndarray>("_imul_ndarray(self, other)",
                                R"(Multiplies a full expression by numbers, in place.)")
        .method<&_imul_full_spmatrix>("_imul_full_spmatrix(self, spmat)",
                                      R"(The same by a sparse matrix.)")
        .method<&_mul_compact_ndarray>(
            "_mul_compact_ndarray(self, other)",
            R"(A compact expression times numbers; compact where the shape allows it.)")
        .method<&_mul_ndarray_numpy>("_mul_ndarray_numpy(self, other)",
                                     R"(A full expression times numbers.)")
        .method<&_mul_full_mlinexpr_mvar>(
            "_mul_full_mlinexpr_mvar(self, other)",
            R"(A full expression times an MVar or MLinExpr, element by element, as an MQuadExpr.)")
        .static_method<&_split_lin_quad>(
            "_split_lin_quad(mixarr)",
            R"(Takes the linear parts out of an object array of QuadExpr and LinExpr, and gives an
array of them; what stays is purely quadratic.)");
}

}  // namespace taviropy::mlinexpr
