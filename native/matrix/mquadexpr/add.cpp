// MQuadExpr: addition and subtraction. What is linear goes to the linear part and never touches the
// quadratic one; what is nonlinear turns the whole into an MNLExpr.

#include "core_interface/scalars.hpp"
#include "mquadexpr/mquadexpr.hpp"
#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/numbers.hpp"
#include "support/object_arrays.hpp"
#include "support/operators.hpp"
#include "support/sparse.hpp"

namespace taviropy::mquadexpr {

static nb::object _iadd_compact_mquadexpr(nb::handle self, nb::handle other) {
    self.attr("_ndle") += other.attr("_ndle");
    if (is_compact(other)) {
        _concat_quadparts(other);
        // The list may be that of `self`, and grows meanwhile.
        nb::list parts(parts_of(other));
        for (nb::handle entry : parts) {
            QuadPart part(entry);
            _add_quadpart(self, part.x.attr("copy")(), sparse::copy(part.Q), part.y.attr("copy")());
        }
    } else {
        _convert_to_full(self);
        nb::object element = self.attr("_qearr").attr("item")();
        element.attr("add")(other.attr("_qearr").attr("item")());
    }
    return nb::none();
}

/// `other` may broadcast to the shape of `self`, not the other way round.
static nb::object _iadd_full_mquadexpr(nb::handle self, nb::handle other) {
    constexpr WalkFlags flags = {
        flag::buffered | flag::reduce_ok | flag::zerosize_ok,
        {flag::readwrite | flag::no_broadcast, flag::readwrite | flag::updateifcopy},
        "OO"};
    self.attr("_ndle") += other.attr("_ndle");
    nb::object summands = is_compact(other) ? _to_full(other) : nb::borrow(other);
    nb::object qearr = self.attr("_qearr"), qearr_other = summands.attr("_qearr");
    walk<2>(flags, {qearr, qearr_other}, [](const auto& chunks, Py_ssize_t k) {
        chunks[0].element(k).attr("add")(chunks[1].element(k));
    });
    return nb::none();
}

static nb::object iadd(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    bool compact = take_compact_lane(self);
    // An MVar isn't among these: `mqe += x` makes a new expression, through `__add__`.
    if (is_a(other, names::Var) || is_linexpr(other) || is_a(other, names::MLinExpr) ||
        is_ndarray(np, other) || is_sparse(sp, other)) {
        self.attr("_ndle") += other;
        return nb::borrow(self);
    }
    if (is_quadexpr(other)) {
        nb::object result = nb::borrow(self);
        result += names::MQuadExpr().attr("_from_quad_expr")(other);
        return result;
    }
    if (is_a(other, names::MQuadExpr)) {
        compact ? _iadd_compact_mquadexpr(self, other) : _iadd_full_mquadexpr(self, other);
        return nb::borrow(self);
    }
    if (is_scalar(other)) {
        self.attr("_ndle") += other;
        return nb::borrow(self);
    }
    return not_implemented();
}

/// The result stops being compact where `other` broadcasts it; each element is then a copy of its
/// own.
static nb::object _add_compact_mlinexpr(nb::handle self, nb::handle other) {
    constexpr WalkFlags flags = {flag::none, {flag::writeonly}};
    auto np = import_numpy();
    nb::object ndle = self.attr("_ndle") + other;
    nb::object shape = ndle.attr("shape");
    if (allows_compact(shape)) return new_compact(_copy_quadparts(self), ndle);
    nb::object common = _extract_quadexpr(self);
    nb::object qearr = empty_object_array(np, shape);
    {
        GcPause pause;
        walk<1>(flags, {qearr}, [&](const auto& chunks, Py_ssize_t k) {
            chunks[0].store(k, new_quadexpr(common));
        });
    }
    return new_full(qearr, ndle);
}

static nb::object _add_full_mlinexpr(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    nb::object ndle = self.attr("_ndle") + other;
    GcPause pause;
    // Adding zeros broadcasts, and makes a new object of every element.
    nb::object qearr = self.attr("_qearr") + np.attr("zeros")(nb::getattr(ndle, "shape"));
    return new_full(qearr, ndle);
}

static nb::object _add_full_mquadexpr(nb::handle self, nb::handle other) {
    nb::object summand = is_compact(other) ? _to_full(other) : nb::borrow(other);
    nb::object ndle = self.attr("_ndle") + summand.attr("_ndle");
    GcPause pause;
    nb::object qearr = self.attr("_qearr") + summand.attr("_qearr");
    return new_full(qearr, ndle);
}

static nb::object _add_compact_mquadexpr(nb::handle self, nb::handle other) {
    if (!is_compact(other)) return _add_full_mquadexpr(_to_full(self), other);
    nb::object ndle = self.attr("_ndle") + other.attr("_ndle");
    nb::object parts = nb::list(parts_of(self)) + nb::list(parts_of(other));
    if (nb::len(parts) == 1) {
        nb::list copied;
        copied.append(QuadPart(nb::object(parts[0])).copied());
        return new_compact(copied, ndle);
    }
    nb::object result = new_compact(parts, ndle);
    _concat_quadparts(result);  // makes new arrays, so nothing is shared with the operands
    return result;
}

static nb::object add(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    if (is_a(other, names::NLExpr)) return as_nonlinear(self) + other;
    bool compact = take_compact_lane(self);
    if (is_a(other, names::MLinExpr, names::MVar) || is_ndarray(np, other) || is_sparse(sp, other))
        return compact ? _add_compact_mlinexpr(self, other) : _add_full_mlinexpr(self, other);
    if (is_scalar(other) || is_a(other, names::Var) || is_linexpr(other) || is_quadexpr(other)) {
        nb::object result = self.attr("copy")();
        result += other;
        return result;
    }
    if (is_a(other, names::MQuadExpr))
        return compact ? _add_compact_mquadexpr(self, other) : _add_full_mquadexpr(self, other);
    return not_implemented();
}

static nb::object radd(nb::handle self, nb::handle other) {
    if (is_a(other, names::NLExpr)) return other + as_nonlinear(self);
    return self + other;
}

/// A sparse matrix is left to its own reflected method, though `__add__` takes it.
static nb::object sub(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    if (is_a(other, names::NLExpr)) return as_nonlinear(self) - other;
    bool fits = is_a(other, names::Var) || is_linexpr(other) || is_quadexpr(other) ||
                is_ndarray(np, other) ||
                is_a(other, names::MVar, names::MLinExpr, names::MQuadExpr) || is_scalar(other);
    if (!fits) return not_implemented();
    return self + negated(other);
}

static nb::object rsub(nb::handle self, nb::handle other) {
    if (is_a(other, names::NLExpr)) return other - as_nonlinear(self);
    return negated(self) + other;
}

static nb::object isub(nb::handle self, nb::handle other) { return subtract_in_place(self, other); }

void add_addition_methods(ClassBody& body) {
    body.method<&iadd>("__iadd__(self, other)")
        .method<&_iadd_compact_mquadexpr>("_iadd_compact_mquadexpr(self, other)")
        .method<&_iadd_full_mquadexpr>("_iadd_full_mquadexpr(self, other)")
        .method<&add>("__add__(self, other)")
        .method<&_add_full_mlinexpr>("_add_full_mlinexpr(self, other)")
        .method<&_add_compact_mquadexpr>("_add_compact_mquadexpr(self, other)")
        .method<&_add_full_mquadexpr>("_add_full_mquadexpr(self, other)")
        .method<&_add_compact_mlinexpr>("_add_compact_mlinexpr(self, other)")
        .method<&radd>("__radd__(self, other)")
        .method<&sub>("__sub__(self, other)")
        .method<&rsub>("__rsub__(self, other)")
        .method<&isub>("__isub__(self, other)");
}

}  // namespace taviropy::mquadexpr
