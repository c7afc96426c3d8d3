// MVar: sums, products, quotients and powers.
//
// A variable array does no arithmetic of its own. The type of the other operand decides what the
// result is, the first test that fires wins, and the class of the result does the work: MLinExpr
// what is linear, MQuadExpr products of two variable arrays, MNLExpr powers and quotients.

#include "mlinexpr/mlinexpr.hpp"
#include "mvar/mvar.hpp"
#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"
#include "support/operators.hpp"
#include "support/sparse.hpp"

namespace taviropy::mvar {

namespace {

/// A fresh expression of the variables, scaled in place.
nb::object scaled(nb::handle self, nb::handle factor) {
    nb::object expr = toexpr(self);
    expr *= factor;
    return expr;
}

bool is_small(nb::handle self, nb::handle array) {
    nb::object shape =
        names::_broadcast_shapes()(nb::getattr(self, "shape"), nb::getattr(array, "shape"));
    return truth(names::MLinExpr().attr("_allows_compact")(shape));
}

nb::object mul(nb::handle self, nb::handle other) {
    nb::object np = import_numpy();
    if (is_a(other, names::MVar))
        return names::MQuadExpr().attr("_from_mvar_times_mvar")(self, other);
    if (is_ndarray(np, other)) {
        if (is_small(self, other)) return toexpr(self) * other;
        nb::object elements = self.attr("_vararr") * other;
        return names::MLinExpr()(elements);
    }
    if (is_scalar(other)) return scaled(self, other);
    return toexpr(self) * other;
}

nb::object rmul(nb::handle self, nb::handle other) {
    nb::object np = import_numpy();
    if (is_a(other, names::MVar))
        return names::MQuadExpr().attr("_from_mvar_times_mvar")(other, self);
    if (is_ndarray(np, other)) {
        if (is_small(self, other)) {
            nb::object expr = toexpr(self);
            // What `other * expr` comes to, without the way through NumPy.
            if (other.type().is(np.attr("ndarray"))) return expr.attr("__rmul__")(other);
            return other * expr;
        }
        nb::object elements = other * self.attr("_vararr");
        return names::MLinExpr()(elements);
    }
    if (is_scalar(other)) return scaled(self, other);
    return other * toexpr(self);
}

nb::object pow(nb::handle self, nb::handle other) {
    nb::object np = import_numpy();
    if (is_ndarray(np, other)) {
        // The square of a variable stays quadratic, in the shape that broadcasting gives.
        if (is_array_of_two(other)) {
            nb::object shape =
                names::_broadcast_shapes()(nb::getattr(self, "shape"), nb::getattr(other, "shape"));
            nb::object base = self.attr("reshape")(shape);
            return base * base;
        }
        return power(as_nonlinear(self), other);
    }
    if (is_scalar(other)) return is_two(other) ? self * self : power(as_nonlinear(self), other);
    if (is_scalar_expression(other) || is_a(other, names::MVar, names::MLinExpr, names::MQuadExpr))
        return power(as_nonlinear(self), other);
    return not_implemented();
}

nb::object rpow(nb::handle self, nb::handle other) {
    nb::object np = import_numpy();
    if (is_scalar_expression(other) || is_ndarray(np, other) || is_scalar(other))
        return power(other, as_nonlinear(self));
    return not_implemented();
}

/// x + y of two vectors of one length: both identity matrices side by side, made at once. Invalid
/// where the general way is to see to it.
nb::object vector_sum(nb::handle self, nb::handle other) {
    if (Py_TYPE(self.ptr()) != Py_TYPE(other.ptr()) || !self.type().is(names::MVar()) ||
        !mlinexpr::keeps_compact(names::MLinExpr()))
        return nb::object();
    nb::object left = self.attr("_vararr"), right = other.attr("_vararr");
    nb::object shape = left.attr("shape");
    if (nb::len(shape) != 1 || !shape.equal(right.attr("shape")) || nb::len(left) == 0)
        return nb::object();
    nb::object np = import_numpy();
    nb::object x = new_mvar(np.attr("concatenate")(nb::make_tuple(left, right)));
    nb::list parts;
    parts.append(
        nb::make_tuple(sparse::twin_identity(nb::cast<Py_ssize_t>(nb::object(shape[0]))), x));
    return mlinexpr::new_compact(parts, np.attr("zeros")(shape));
}

nb::object add(nb::handle self, nb::handle other) {
    nb::object sum = vector_sum(self, other);
    if (sum.is_valid()) return sum;
    return mlinexpr::plus_fresh(toexpr(self), other);
}
nb::object radd(nb::handle self, nb::handle other) {
    return mlinexpr::rplus_fresh(other, toexpr(self));
}
nb::object sub(nb::handle self, nb::handle other) {
    return mlinexpr::minus_fresh(toexpr(self), other);
}
nb::object rsub(nb::handle self, nb::handle other) {
    return mlinexpr::rminus_fresh(other, toexpr(self));
}
nb::object neg(nb::handle self) { return self * nb::int_(-1); }
nb::object pos(nb::handle self) { return nb::borrow(self); }
nb::object truediv(nb::handle self, nb::handle other) { return toexpr(self) / other; }

nb::object rtruediv(nb::handle self, nb::handle other) {
    nb::object np = import_numpy();
    nb::object sp = import_sparse();
    if (is_scalar(other) || is_ndarray(np, other) || is_scalar_expression(other))
        return other / as_nonlinear(self);
    if (is_sparse(sp, other)) {
        nb::object denominator = as_nonlinear(self);
        return sparse::to_array(other) / denominator;
    }
    return not_implemented();
}

}  // namespace

void add_arithmetic_methods(ClassBody& body) {
    body.method<&mul>("__mul__(self, other)")
        .method<&rmul>("__rmul__(self, other)")
        .method<&pow>("__pow__(self, other)")
        .method<&rpow>("__rpow__(self, other)")
        .method<&add>("__add__(self, other)")
        .method<&radd>("__radd__(self, other)")
        .method<&sub>("__sub__(self, other)")
        .method<&rsub>("__rsub__(self, other)")
        .method<&neg>("__neg__(self)")
        .method<&pos>("__pos__(self)")
        .method<&truediv>("__truediv__(self, other)")
        .method<&rtruediv>("__rtruediv__(self, other)");
}

}  // namespace taviropy::mvar
