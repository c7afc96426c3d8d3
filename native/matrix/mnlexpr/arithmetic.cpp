// MNLExpr: arithmetic. Each operator is a dispatcher and a node factory of `_ExprTree`.

#include "mnlexpr/mnlexpr.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"
#include "support/operators.hpp"
#include "support/sparse.hpp"

namespace taviropy::mnlexpr {

// ---- Dispatchers: `func` makes a node of one or two nodes ---------------------------------------

static nb::object _dispatch_unary_op(nb::handle self, nb::handle func) {
    nb::object np = import_numpy();
    nb::object nlexpr = names::NLExpr();
    auto grow = [&](nb::handle nle) { return call(nlexpr, call(func, get_root(nle))); };
    return make(vectorize(np, grow, nb::getattr(self, "_nlearr")));
}

static nb::object _idispatch_unary_op(nb::handle self, nb::handle func) {
    GcPause pause;
    nb::object nlearr = self.attr("_nlearr");
    walk<1>(kRewriteAlone, {nlearr}, [&](const auto& chunks, Py_ssize_t k) {
        nb::object nle = chunks[0].element(k);
        set_root(nle, call(func, get_root(nle)));
    });
    return nb::borrow(self);
}

/// NotImplemented, after which a sparse matrix tries its own operator, and walks itself.
static nb::object leave_to(nb::handle other) {
    sparse::check(other);
    return not_implemented();
}

static nb::object _dispatch_binary_op(nb::handle self, nb::handle other, nb::handle func) {
    nb::object np = import_numpy();
    Trees trees = take_trees(np, other);
    if (trees.unknown()) return leave_to(other);
    nb::object nlexpr = names::NLExpr();
    auto grow = [&](nb::handle left, nb::handle right) {
        return call(nlexpr, call(func, get_root(left), right));
    };
    if (trees.array.is_valid())
        return make(vectorize(np, grow, nb::getattr(self, "_nlearr"), trees.array));
    auto grow_alone = [&](nb::handle left) { return grow(left, trees.node); };
    return make(vectorize(np, grow_alone, nb::getattr(self, "_nlearr")));
}

static nb::object _rdispatch_binary_op(nb::handle self, nb::handle other, nb::handle func) {
    nb::object np = import_numpy();
    Trees trees = take_trees(np, other);
    if (trees.unknown()) return leave_to(other);
    nb::object nlexpr = names::NLExpr();
    auto grow = [&](nb::handle left, nb::handle right) {
        return call(nlexpr, call(func, left, get_root(right)));
    };
    if (trees.array.is_valid())
        return make(vectorize(np, grow, trees.array, nb::getattr(self, "_nlearr")));
    auto grow_alone = [&](nb::handle right) { return grow(trees.node, right); };
    return make(vectorize(np, grow_alone, nb::getattr(self, "_nlearr")));
}

static nb::object _idispatch_binary_op(nb::handle self, nb::handle other, nb::handle func) {
    nb::object np = import_numpy();
    Trees trees = take_trees(np, other);
    if (trees.unknown()) return leave_to(other);
    walk_with_trees(self.attr("_nlearr"), trees, [&](nb::handle nle, nb::handle tree) {
        set_root(nle, call(func, get_root(nle), tree));
    });
    return nb::borrow(self);
}

// ---- Operators ----------------------------------------------------------------------------------

static nb::object factory(const char* name) { return names::_ExprTree().attr(name); }

/// A binary operator: a dispatcher method of `self` with a node factory.
#define TAVIROPY_OPERATOR(function, dispatcher, node)               \
    static nb::object function(nb::handle self, nb::handle other) { \
        return self.attr(#dispatcher)(other, factory(#node));       \
    }

TAVIROPY_OPERATOR(add, _dispatch_binary_op, _from_plus)
TAVIROPY_OPERATOR(radd, _rdispatch_binary_op, _from_plus)
TAVIROPY_OPERATOR(iadd, _idispatch_binary_op, _from_plus)
TAVIROPY_OPERATOR(sub, _dispatch_binary_op, _from_minus)
TAVIROPY_OPERATOR(rsub, _rdispatch_binary_op, _from_minus)
TAVIROPY_OPERATOR(isub, _idispatch_binary_op, _from_minus)
TAVIROPY_OPERATOR(mul, _dispatch_binary_op, _from_multiply)
TAVIROPY_OPERATOR(rmul, _rdispatch_binary_op, _from_multiply)
TAVIROPY_OPERATOR(imul, _idispatch_binary_op, _from_multiply)
TAVIROPY_OPERATOR(truediv, _dispatch_binary_op, _from_divide)
TAVIROPY_OPERATOR(rtruediv, _rdispatch_binary_op, _from_divide)
TAVIROPY_OPERATOR(itruediv, _idispatch_binary_op, _from_divide)
TAVIROPY_OPERATOR(rpow, _rdispatch_binary_op, _from_pow)
#undef TAVIROPY_OPERATOR

static nb::object neg(nb::handle self) {
    return self.attr("_dispatch_unary_op")(factory("_from_uminus"));
}

static nb::object pow(nb::handle self, nb::handle other) {
    nb::object np = import_numpy();
    if (is_ndarray(np, other) && is_array_of_two(other)) {
        nb::object shape =
            names::_broadcast_shapes()(nb::getattr(self, "shape"), nb::getattr(other, "shape"));
        nb::object base = make(self.attr("_nlearr").attr("reshape")(shape));
        return base.attr("_dispatch_unary_op")(factory("_from_square"));
    }
    if (is_scalar(other) && is_two(other))
        return self.attr("_dispatch_unary_op")(factory("_from_square"));
    return self.attr("_dispatch_binary_op")(other, factory("_from_pow"));
}

static nb::object ipow(nb::handle self, nb::handle other) {
    if (is_scalar(other) && is_two(other))
        return self.attr("_idispatch_unary_op")(factory("_from_square"));
    return self.attr("_idispatch_binary_op")(other, factory("_from_pow"));
}

void add_arithmetic_methods(ClassBody& body) {
    body.method<&_dispatch_unary_op>("_dispatch_unary_op(self, func)",
                                     R"(New MNLExpr of func(node) for each element.)")
        .method<&_idispatch_unary_op>("_idispatch_unary_op(self, func)",
                                      R"(Puts func(node) into each element.)")
        .method<&_dispatch_binary_op>("_dispatch_binary_op(self, other, func)",
                                      R"(New MNLExpr of func(node, node of other), broadcast.)")
        .method<&_rdispatch_binary_op>("_rdispatch_binary_op(self, other, func)",
                                       R"(New MNLExpr of func(node of other, node), broadcast.)")
        .method<&_idispatch_binary_op>("_idispatch_binary_op(self, other, func)",
                                       R"(Puts func(node, node of other) into each element.)")
        .method<&neg>("__neg__(self)")
        .method<&add>("__add__(self, other)")
        .method<&radd>("__radd__(self, other)")
        .method<&iadd>("__iadd__(self, other)")
        .method<&sub>("__sub__(self, other)")
        .method<&rsub>("__rsub__(self, other)")
        .method<&isub>("__isub__(self, other)")
        .method<&mul>("__mul__(self, other)")
        .method<&rmul>("__rmul__(self, other)")
        .method<&imul>("__imul__(self, other)")
        .method<&truediv>("__truediv__(self, other)")
        .method<&rtruediv>("__rtruediv__(self, other)")
        .method<&itruediv>("__itruediv__(self, other)")
        .method<&pow>("__pow__(self, other)")
        .method<&rpow>("__rpow__(self, other)")
        .method<&ipow>("__ipow__(self, other)");
}

}  // namespace taviropy::mnlexpr
