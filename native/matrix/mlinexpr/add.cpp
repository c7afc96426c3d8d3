// MLinExpr: addition and subtraction.
//
// Sums stay compact where both operands are and the shape allows it: matrices side by side,
// variables behind one another. Terms of the same variable are not combined.

#include <vector>

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

nb::object broadcast_shape(nb::handle left, nb::handle right) {
    return names::_broadcast_shapes()(shape_of(left), shape_of(right));
}

/// self._const += other
void add_to_const(nb::handle self, nb::handle other) { self.attr("_const") += other; }

/// The same of a number of any kind; NumPy refuses a complex one.
void add_number_to_const(nb::handle self, nb::handle number) {
    add_to_const(self, is_complex(number) ? nb::borrow(number) : real_float(number));
}

nb::object sum_with_copy(nb::handle self, nb::handle other) {
    nb::object sum = copy_of(self);
    sum += other;
    return sum;
}

nb::object sum_as_quadratic(nb::handle self, nb::handle other) {
    nb::object sum = names::MQuadExpr().attr("_from_mlinexpr")(self);
    sum += other;
    return sum;
}

/// NumPy's sum of an object array and another array; a bare LinExpr is what it makes of 0-d arrays.
nb::object full_sum(nb::handle learr, nb::handle other) {
    nb::object result;
    {
        GcPause pause;
        result = learr + other;
    }
    if (is_linexpr(result)) result = array_of_one(import_numpy(), result);
    return new_full(result);
}

/// The full form of an operand of a full expression.
nb::object full_operand(nb::handle other) {
    return is_compact(other) ? _to_full(other) : nb::borrow(other);
}

nb::object concatenated(nb::handle np, nb::list arrays) {
    return mvar::new_mvar(np.attr("concatenate")(arrays));
}

}  // namespace

// ---- Sums --------------------------------------------------------------------------------------

static nb::object _add_compact_mlinexpr_compact(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    nb::object b = np.attr("asarray")(const_of(self) + const_of(other));
    const auto m = nb::cast<Py_ssize_t>(nb::object(b.attr("size")));
    PY_ASSERT(allows_compact(b.attr("shape")));
    std::vector<sparse::Beside> A_parts;
    nb::list x_parts, parts;
    for (nb::handle operand : {self, other}) {
        const Py_ssize_t rows = leading_adim(operand);
        PY_ASSERT(rows == 1 || rows == m);
        Part part = merged_part(operand);
        if (!part.A.is_valid()) continue;
        A_parts.push_back({part.A, rows != m});
        x_parts.append(nb::getattr(part.x, "_vararr"));
    }
    if (!A_parts.empty())
        parts.append(nb::make_tuple(sparse::hstack(A_parts, m), concatenated(np, x_parts)));
    return new_compact(parts, b);
}

nb::object _add_full_mlinexpr(nb::handle self, nb::handle other) {
    return full_sum(learr_of(self), learr_of(other));
}

static nb::object _add_full_ndarray(nb::handle self, nb::handle other) {
    return full_sum(learr_of(self), plain_array(import_numpy(), other));
}

/// Two compact operands leave the compact form only here, where their shapes broadcast to a matrix.
static nb::object _add_compact_mlinexpr(nb::handle self, nb::handle other) {
    nb::object result_shape = broadcast_shape(self, other);
    if (!is_compact(other)) {
        nb::object tmp = _to_full(self);
        if (result_shape.equal(shape_of(tmp))) return _iadd_full_mlinexpr(tmp, other);
        return _add_full_mlinexpr(tmp, other);
    }
    if (!allows_compact(result_shape)) return _add_full_mlinexpr(_to_full(self), _to_full(other));
    return _add_compact_mlinexpr_compact(self, other);
}

static nb::object add_compact(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    if (is_a(other, names::MLinExpr)) return _add_compact_mlinexpr(self, other);
    if (is_a(other, names::MVar)) return _add_compact_mlinexpr(self, from_mvar(other));
    if (is_ndarray(np, other)) return _add_compact_mlinexpr(self, from_constant(other));
    if (is_sparse(sp, other))
        return _add_compact_mlinexpr(self, from_constant(sparse::to_array(other)));
    if (is_a(other, names::Var) || is_linexpr(other)) return sum_with_copy(self, other);
    if (is_quadexpr(other)) return sum_as_quadratic(self, other);
    if (is_scalar(other)) {
        nb::object sum = copy_of(self);  // first, so that it merges the parts of self in any case
        sum += real_float(other);
        return sum;
    }
    return not_implemented();
}

static nb::object add_full(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    if (is_a(other, names::MLinExpr)) return _add_full_mlinexpr(self, full_operand(other));
    if (is_a(other, names::MVar)) return _add_full_mlinexpr(self, from_mvar(other, true));
    if (is_ndarray(np, other)) return _add_full_ndarray(self, other);
    if (is_sparse(sp, other)) return _add_full_ndarray(self, sparse::to_array(other));
    if (is_quadexpr(other)) return sum_as_quadratic(self, other);
    if (is_scalar(other) || is_a(other, names::Var) || is_linexpr(other))
        return sum_with_copy(self, other);
    return not_implemented();
}

nb::object add(nb::handle self, nb::handle other) {
    if (is_a(other, names::NLExpr)) return as_nonlinear(self) + other;
    return take_compact_lane(self) ? add_compact(self, other) : add_full(self, other);
}

static nb::object radd(nb::handle self, nb::handle other) {
    if (is_a(other, names::NLExpr)) return other + as_nonlinear(self);
    return self + other;
}

// ---- In place, compact -------------------------------------------------------------------------

static nb::object _iadd_compact_var(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    nb::list variables;
    variables.append(other);
    nb::object x = mvar::new_mvar(np.attr("array")(variables, "dtype"_a = "O"));
    double one = 1.0;
    add_own_part(self, sparse::repeated_row(&one, 1, leading_adim(self)), x);
    return nb::none();
}

static nb::object _iadd_compact_linexpr(nb::handle self, nb::handle other) {
    if (!is_plain_linexpr(other.ptr())) other.attr("_flatten")();
    LinExprObject* le = with_matching_lists(as_linexpr(other.ptr()));
    std::vector<double> coeffs;
    for (Py_ssize_t k = 0; k < PyList_GET_SIZE(le->coeffs); ++k)
        coeffs.push_back(coefficient(PyList_GET_ITEM(le->coeffs, k)));
    const double constant = le->constant;
    nb::object x = names::MVar().attr("fromlist")(copy_list(le->vars));
    const Py_ssize_t rows = leading_adim(self), columns = static_cast<Py_ssize_t>(coeffs.size());
    nb::object A;
    if (rows > 0 && columns > 0) A = sparse::repeated_row(coeffs.data(), columns, rows);
    add_to_const(self, nb::float_(constant));
    if (A.is_valid()) add_own_part(self, A, x);
    return nb::none();
}

static nb::object _iadd_compact_mlinexpr_compact(nb::handle self, nb::handle other) {
    PY_ASSERT(is_compact(self) && is_compact(other));
    broadcast_shape(self, other);
    // NumPy refuses here what would enlarge self, before anything has changed.
    add_to_const(self, const_of(other));
    Part part = merged_part(other);
    if (!part.A.is_valid()) return nb::none();
    const Py_ssize_t m = leading_adim(self);
    const auto rows = nb::cast<Py_ssize_t>(nb::object(nb::object(part.A.attr("shape"))[0]));
    nb::object A;
    if (rows == m)
        A = sparse::copy(part.A);
    else if (rows == 1)
        A = sparse::repeat_row(part.A, m);
    else
        PY_ASSERT(false);
    if (A.is_valid()) add_own_part(self, A, part.x.attr("copy")());
    return nb::none();
}

static nb::object _iadd_compact_mlinexpr(nb::handle self, nb::handle other) {
    if (is_compact(other)) {
        _iadd_compact_mlinexpr_compact(self, other);
        return nb::borrow(self);
    }
    nb::object tmp = _to_full(self);
    _iadd_full_mlinexpr(tmp, other);
    nb::setattr(self, "_learr", learr_of(tmp));
    nb::setattr(self, "_matmulparts", nb::none());
    nb::setattr(self, "_const", nb::none());
    return nb::borrow(self);
}

static nb::object iadd_compact(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    if (is_a(other, names::Var))
        _iadd_compact_var(self, other);
    else if (is_linexpr(other))
        _iadd_compact_linexpr(self, other);
    else if (is_a(other, names::MVar))
        _iadd_compact_mlinexpr(self, from_mvar(other));
    else if (is_a(other, names::MLinExpr))
        _iadd_compact_mlinexpr(self, other);
    else if (is_ndarray(np, other))
        add_to_const(self, plain_array(np, other));
    else if (is_sparse(sp, other))
        add_to_const(self, sparse::to_array(other));
    else if (is_scalar(other))
        add_number_to_const(self, other);
    else
        return not_implemented();
    return nb::borrow(self);
}

// ---- In place, full ----------------------------------------------------------------------------

static nb::object _iadd_full_scalar(nb::handle self, nb::handle other) {
    constexpr WalkFlags flags = {flag::zerosize_ok, {flag::readwrite}};
    const double value = as_double(real_float(other));
    if (value == 0.0) return nb::borrow(self);
    nb::object learr = learr_of(self);
    walk<1>(flags, {learr},
            [&](const auto& chunks, Py_ssize_t k) { as_linexpr(chunks[0][k])->constant += value; });
    return nb::borrow(self);
}

nb::object _iadd_full_ndarray(nb::handle self, nb::handle other) {
    constexpr WalkFlags flags = {
        flag::buffered | flag::zerosize_ok,
        {flag::readwrite | flag::no_broadcast, flag::readonly | flag::copy},
        "Od"};
    nb::object learr = learr_of(self), numbers = number_array(import_numpy(), other);
    walk<2>(flags, {learr, numbers}, [&](const auto& chunks, Py_ssize_t k) {
        as_linexpr(chunks[0][k])->constant += chunks[1].number(k);
    });
    return nb::borrow(self);
}

nb::object _iadd_full_mlinexpr(nb::handle self, nb::handle other) {
    constexpr WalkFlags flags = {
        flag::buffered | flag::reduce_ok | flag::zerosize_ok,
        {flag::readwrite | flag::no_broadcast, flag::readwrite | flag::updateifcopy},
        "OO"};
    nb::object learr = learr_of(self), other_learr = learr_of(other);
    walk<2>(flags, {learr, other_learr}, [&](const auto& chunks, Py_ssize_t k) {
        LinExprObject* lhs = as_linexpr(chunks[0][k]);
        LinExprObject* rhs = as_linexpr(chunks[1][k]);
        if (rhs->cont_ref == Py_None)
            extend_linexpr(lhs, rhs);
        else
            chunks[0].element(k).attr("add")(chunks[1].element(k));
    });
    return nb::borrow(self);
}

static nb::object iadd_full(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    auto sp = import_sparse();
    if (is_a(other, names::MLinExpr)) return _iadd_full_mlinexpr(self, full_operand(other));
    if (is_a(other, names::MVar)) return _iadd_full_mlinexpr(self, from_mvar(other, true));
    if (is_linexpr(other)) return _iadd_full_mlinexpr(self, from_linexpr(other));
    if (is_a(other, names::Var)) return _iadd_full_mlinexpr(self, from_var(other));
    if (is_ndarray(np, other)) return _iadd_full_ndarray(self, other);
    if (is_sparse(sp, other)) return _iadd_full_ndarray(self, sparse::to_array(other));
    if (is_scalar(other)) return _iadd_full_scalar(self, other);
    return not_implemented();
}

nb::object iadd(nb::handle self, nb::handle other) {
    return take_compact_lane(self) ? iadd_compact(self, other) : iadd_full(self, other);
}

// ---- Expressions that nobody else holds --------------------------------------------------------

/// A Python number beside an expression that only the caller refers to, so that a copy which takes
/// the sum is of no use to anybody.
static bool takes_number(const nb::object& expr, nb::handle other) {
    return (PyFloat_CheckExact(other.ptr()) || PyLong_CheckExact(other.ptr())) &&
           Py_REFCNT(expr.ptr()) == 1 && expr.type().is(names::MLinExpr()) && is_scalar(other);
}

nb::object plus_fresh(nb::object expr, nb::handle other) {
    if (!takes_number(expr, other)) return expr + other;
    return take_compact_lane(expr) ? iadd_compact(expr, as_float(other)) : iadd_full(expr, other);
}

nb::object rplus_fresh(nb::handle other, nb::object expr) {
    return takes_number(expr, other) ? plus_fresh(std::move(expr), other) : other + expr;
}

nb::object minus_fresh(nb::object expr, nb::handle other) {
    if (!takes_number(expr, other)) return expr - other;
    return plus_fresh(std::move(expr), negated(other));
}

nb::object rminus_fresh(nb::handle other, nb::object expr) {
    if (!takes_number(expr, other)) return other - expr;
    nb::object opposite = imul(expr, nb::float_(-1.0));
    expr.reset();
    return plus_fresh(std::move(opposite), other);
}

// ---- Differences -------------------------------------------------------------------------------

static nb::object sub(nb::handle self, nb::handle other) {
    auto np = import_numpy();
    if (is_a(other, names::NLExpr)) return as_nonlinear(self) - other;
    if (is_a(other, names::Var) || is_linexpr(other) || is_quadexpr(other) ||
        is_ndarray(np, other) || is_a(other, names::MVar, names::MLinExpr) || is_scalar(other))
        return self + negated(other);
    return not_implemented();
}

static nb::object rsub(nb::handle self, nb::handle other) {
    if (is_a(other, names::NLExpr)) return other - as_nonlinear(self);
    return negated(self) + other;
}

static nb::object isub(nb::handle self, nb::handle other) { return subtract_in_place(self, other); }

// ---- The table ---------------------------------------------------------------------------------

void add_addition_methods(ClassBody& body) {
    body.method<&add>("__add__(self, other)")
        .method<&radd>("__radd__(self, other)")
        .method<&iadd>("__iadd__(self, other)")
        .method<&sub>("__sub__(self, other)")
        .method<&rsub>("__rsub__(self, other)")
        .method<&isub>("__isub__(self, other)")
        .method<&_add_compact_mlinexpr>(
            "_add_compact_mlinexpr(self, other)",
            R"(The sum of this compact expression and another of either form; compact where that is
possible.)")
        .method<&_add_compact_mlinexpr_compact>(
            "_add_compact_mlinexpr_compact(self, other)",
            R"(The compact sum of two compact expressions, in one part; merges the parts of both.)")
        .method<&_add_full_mlinexpr>("_add_full_mlinexpr(self, other)",
                                     R"(The full sum of two full expressions.)")
        .method<&_add_full_ndarray>("_add_full_ndarray(self, other)",
                                    R"(The full sum of a full expression and an array of numbers.)")
        .method<&_iadd_compact_mlinexpr>(
            "_iadd_compact_mlinexpr(self, other)",
            R"(Adds an expression in place; a full one makes this one full.)")
        .method<&_iadd_compact_mlinexpr_compact>("_iadd_compact_mlinexpr_compact(self, other)",
                                                 R"(Appends a copy of another compact expression.)")
        .method<&_iadd_compact_var>("_iadd_compact_var(self, other)",
                                    R"(Adds a variable to every element.)")
        .method<&_iadd_compact_linexpr>("_iadd_compact_linexpr(self, other)",
                                        R"(Adds a scalar expression to every element.)")
        .method<&_iadd_full_scalar>("_iadd_full_scalar(self, other)",
                                    R"(Adds a number to the constant of every element.)")
        .method<&_iadd_full_ndarray>("_iadd_full_ndarray(self, other)",
                                     R"(Adds numbers to the constants, element by element.)")
        .method<&_iadd_full_mlinexpr>(
            "_iadd_full_mlinexpr(self, other)",
            R"(Appends the terms of a full expression, element by element.)");
}

}  // namespace taviropy::mlinexpr
