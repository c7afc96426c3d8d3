// MQuadExpr: multiplication, division and powers. A numeric operand scales the quadratic and the
// linear part alike; an operand that holds variables turns the whole into an MNLExpr.

#include "core_interface/scalars.hpp"
#include "mquadexpr/mquadexpr.hpp"
#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/numbers.hpp"
#include "support/object_arrays.hpp"
#include "support/operators.hpp"
#include "support/sparse.hpp"

namespace taviropy::mquadexpr {

namespace {

bool holds_variables(nb::handle other) {
    return is_scalar_expression(other) ||
           is_a(other, names::MVar, names::MLinExpr, names::MQuadExpr);
}

/// An array to multiply by, element by element, also where it is a numpy.matrix. A mask stays, for
/// the test of finite numbers to see.
nb::object factors(nb::handle np, nb::handle array) {
    return is_instance(array, np.attr("matrix")) ? plain_array(np, array) : nb::borrow(array);
}

/// Q.data *= factor, for the merged part if there is one.
void scale_parts(nb::handle self, nb::handle factor) {
    nb::object Q = _extract_xQy(self)[1];
    if (!Q.is_none()) Q.attr("data") *= factor;
}

}  // namespace

static nb::object _imul_compact_scalar(nb::handle self, nb::handle other) {
    nb::object value = real_float(other);
    self.attr("_ndle") *= value;
    scale_parts(self, value);
    return nb::none();
}

static nb::object _imul_compact_ndarray(nb::handle self, nb::handle other) {
    self.attr("_ndle") *= other;
    scale_parts(self, nb::float_(as_double(other.attr("item")())));
    return nb::none();
}

static nb::object _imul_full_scalar(nb::handle self, nb::handle other) {
    constexpr WalkFlags flags = {flag::buffered | flag::reduce_ok | flag::zerosize_ok,
                                 {flag::readwrite | flag::no_broadcast},
                                 "O"};
    nb::object value = real_float(other);
    self.attr("_ndle") *= value;
    nb::object qearr = self.attr("_qearr");
    walk<1>(flags, {qearr},
            [&](const auto& chunks, Py_ssize_t k) { chunks[0].element(k).attr("_mul")(value); });
    return nb::none();
}

static nb::object _imul_full_ndarray(nb::handle self, nb::handle other) {
    constexpr WalkFlags flags = {flag::buffered | flag::reduce_ok | flag::zerosize_ok,
                                 {flag::readwrite | flag::no_broadcast, flag::readonly},
                                 "Od"};
    self.attr("_ndle") *= other;
    nb::object qearr = self.attr("_qearr"), numbers = number_array(import_numpy(), other);
    walk<2>(flags, {qearr, numbers}, [](const auto& chunks, Py_ssize_t k) {
        chunks[0].element(k).attr("_mul")(chunks[1].number(k));
    });
    return nb::none();
}

static nb::object imul(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    bool compact = take_compact_lane(self);
    auto by_array = compact ? _imul_compact_ndarray : _imul_full_ndarray;
    auto by_scalar = compact ? _imul_compact_scalar : _imul_full_scalar;
    if (is_ndarray(np, other))
        by_array(self, factors(np, other));
    else if (is_sparse(sp, other))
        by_array(self, sparse::to_array(other));
    else if (is_scalar(other))
        by_scalar(self, other);
    else
        return not_implemented();
    return nb::borrow(self);
}

static nb::object itruediv(nb::handle self, nb::handle other) {
    return divide_in_place(self, other);
}

static nb::object truediv(nb::handle self, nb::handle other) {
    nb::object factor = reciprocal(import_numpy(), import_sparse(), other);
    if (factor.is_valid()) return self * factor;
    if (holds_variables(other)) return as_nonlinear(self) / other;
    return not_implemented();
}

static nb::object rtruediv(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    if (is_scalar(other) || is_ndarray(np, other) || is_scalar_expression(other))
        return other / as_nonlinear(self);
    if (is_sparse(sp, other)) {
        nb::object denominator = names::MNLExpr().attr("_from_mlinexpr")(self);
        return sparse::to_array(other) / denominator;
    }
    return not_implemented();
}

static nb::object _mul_full_ndarray(nb::handle self, nb::handle other) {
    nb::object ndle = self.attr("_ndle") * other;
    GcPause pause;
    return new_full(self.attr("_qearr") * plain_array(import_numpy(), other), ndle);
}

static nb::object _mul_compact_ndarray(nb::handle self, nb::handle other) {
    nb::object ndle = self.attr("_ndle") * other;
    if (!allows_compact(ndle.attr("shape"))) {
        _convert_to_full(self);
        return _mul_full_ndarray(self, other);
    }
    nb::float_ value(as_double(other.attr("item")()));
    nb::object result = new_compact(_copy_quadparts(self), ndle);
    scale_parts(result, value);
    return result;
}

static nb::object mul(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    if (holds_variables(other)) return as_nonlinear(self) * other;
    auto by_array = take_compact_lane(self) ? _mul_compact_ndarray : _mul_full_ndarray;
    if (is_ndarray(np, other)) return by_array(self, factors(np, other));
    if (is_sparse(sp, other)) return by_array(self, sparse::to_array(other));
    if (is_scalar(other)) {
        nb::object result = self.attr("copy")();
        result *= real_float(other);
        return result;
    }
    return not_implemented();
}

static nb::object rmul(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    if (holds_variables(other)) return other * as_nonlinear(self);
    if (is_ndarray(np, other) || is_sparse(sp, other) || is_scalar(other)) return self * other;
    return not_implemented();
}

static nb::object neg(nb::handle self) { return self * nb::float_(-1.0); }

static nb::object pos(nb::handle self) { return self.attr("copy")(); }

static nb::object pow(nb::handle self, nb::handle exponent) {
    return power(as_nonlinear(self), exponent);
}

static nb::object rpow(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    if (!is_ndarray(np, other) && !is_scalar_expression(other) && !is_scalar(other))
        return not_implemented();
    return power(other, as_nonlinear(self));
}

void add_scaling_methods(ClassBody& body) {
    body.method<&imul>("__imul__(self, other)")
        .method<&_imul_compact_scalar>("_imul_compact_scalar(self, other)")
        .method<&_imul_compact_ndarray>("_imul_compact_ndarray(self, other)")
        .method<&_imul_full_scalar>("_imul_full_scalar(self, other)")
        .method<&_imul_full_ndarray>("_imul_full_ndarray(self, other)")
        .method<&itruediv>("__itruediv__(self, other)")
        .method<&truediv>("__truediv__(self, other)")
        .method<&rtruediv>("__rtruediv__(self, other)")
        .method<&mul>("__mul__(self, other)")
        .method<&rmul>("__rmul__(self, other)")
        .method<&_mul_compact_ndarray>("_mul_compact_ndarray(self, other)")
        .method<&_mul_full_ndarray>("_mul_full_ndarray(self, other)")
        .method<&neg>("__neg__(self)")
        .method<&pos>("__pos__(self)")
        .method<&pow>("__pow__(self, exponent)")
        .method<&rpow>("__rpow__(self, other)");
}

}  // namespace taviropy::mquadexpr
