// How an MNLExpr comes into being: the trees of everything that can be an operand.

#include "mlinexpr/mlinexpr.hpp"
#include "mnlexpr/mnlexpr.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"

namespace taviropy::mnlexpr {

/// One node an element, made by a factory of `_ExprTree`.
static nb::object make_nodes(nb::handle np, const char* factory, nb::handle elements) {
    nb::object make_node = names::_ExprTree().attr(factory);
    return vectorize(np, [&](nb::handle element) { return call(make_node, element); }, elements);
}

/// The elements of a linear expression, whatever its form.
static nb::object full_learr(nb::handle mle) {
    if (truth(mle.attr("_is_compact"))) return mle.attr("_to_full")().attr("_learr");
    return mle.attr("_learr");
}

/// The trees of the elements of a linear expression. Those of a compact one are made one at a time.
static nb::object linear_trees(nb::handle np, nb::handle mle) {
    if (!mle.type().is(names::MLinExpr()) || !truth(mle.attr("_is_compact")))
        return make_nodes(np, "_from_linexpr", full_learr(mle));
    nb::object from_linexpr = names::_ExprTree().attr("_from_linexpr");
    return mlinexpr::converted_elements(mle, [&](nb::object le) { return call(from_linexpr, le); });
}

/// The quadratic elements of a quadratic expression, whatever its form.
static nb::object full_qearr(nb::handle np, nb::handle mqe) {
    if (!truth(mqe.attr("_is_compact"))) return mqe.attr("_qearr");
    nb::object qearr = empty_object_array(np, mqe.attr("shape"));
    qearr[nb::ellipsis()] = mqe.attr("_extract_quadexpr")();
    return qearr;
}

static void extend(nb::list& list, nb::handle iterable) {
    for (nb::handle item : nb::iter(iterable)) list.append(item);
}

/// Trees of elements whose quadratic and linear parts are stored apart; quadratic terms come first.
static nb::object quadratic_trees(nb::handle np, nb::handle mqe) {
    nb::object qearr = full_qearr(np, mqe), learr = full_learr(mqe.attr("_ndle"));
    PY_ASSERT(qearr.attr("shape").equal(learr.attr("shape")));
    nb::object factory = names::_ExprTree();
    nb::object quadexpr_terms = factory.attr("_quadexpr_terms");
    nb::object linexpr_terms = factory.attr("_linexpr_terms");
    nb::object from_plus = factory.attr("_from_plus");
    auto tree = [&](nb::handle qe, nb::handle le) -> nb::object {
        nb::list children;
        extend(children, call(quadexpr_terms, qe));
        extend(children, call(linexpr_terms, le));
        if (children.size() == 1) return children[0];
        return from_plus(*children);
    };
    return vectorize(np, tree, qearr, learr);
}

static nb::object _coerce_to_exprtree_array(nb::handle value) {
    nb::object np = import_numpy();
    if (is_a(value, names::MNLExpr))
        return vectorize(
            np, [](nb::handle nle) { return get_root(nle); }, nb::getattr(value, "_nlearr"));
    if (is_a(value, names::MVar)) return make_nodes(np, "_from_var", value.attr("_vararr"));
    if (is_a(value, names::MLinExpr)) return linear_trees(np, value);
    if (is_a(value, names::MQuadExpr)) return quadratic_trees(np, value);
    if (is_ndarray(np, value)) return make_nodes(np, "_from_constant", value);
    raise(PyExc_TypeError, "Unsupported operand '" + format_of(value) + "'");
}

/// cls(elements), each element made by a class-level operation of `NLExpr`.
static nb::object from_elements(nb::handle cls, const char* factory, nb::handle sources) {
    nb::object np = import_numpy();
    nb::object make_element = names::NLExpr().attr(factory);
    return cls(
        vectorize(np, [&](nb::handle source) { return call(make_element, source); }, sources));
}

static nb::object _from_ndarray(nb::handle cls, nb::handle fromobj) {
    return from_elements(cls, "_from_constant", fromobj);
}

static nb::object _from_mvar(nb::handle cls, nb::handle fromobj) {
    return from_elements(cls, "_from_var", fromobj.attr("_vararr"));
}

/// cls(elements), each element wrapping the tree of an element of `fromobj`.
static nb::object from_trees(nb::handle cls, nb::handle fromobj) {
    nb::object np = import_numpy();
    nb::object trees = cls.attr("_coerce_to_exprtree_array")(fromobj);
    nb::object nlexpr = names::NLExpr();
    return cls(vectorize(np, [&](nb::handle tree) { return call(nlexpr, tree); }, trees));
}

static nb::object _from_mlinexpr(nb::handle cls, nb::handle fromobj) {
    return from_trees(cls, fromobj);
}

static nb::object _from_mquadexpr(nb::handle cls, nb::handle fromobj) {
    return from_trees(cls, fromobj);
}

void add_build_methods(ClassBody& body) {
    body.static_method<&_coerce_to_exprtree_array>(
            "_coerce_to_exprtree_array(value)",
            R"(Object array of the trees of an MNLExpr, MVar, MLinExpr, MQuadExpr or ndarray;
anything else is a TypeError.)")
        .class_method<&_from_ndarray>("_from_ndarray(cls, fromobj)",
                                      R"(Constants: one element for each number of an array.)")
        .class_method<&_from_mvar>("_from_mvar(cls, fromobj)",
                                   R"(Variables: one element for each Var of an MVar.)")
        .class_method<&_from_mlinexpr>("_from_mlinexpr(cls, fromobj)",
                                       R"(One element for each LinExpr of an MLinExpr.)")
        .class_method<&_from_mquadexpr>("_from_mquadexpr(cls, fromobj)",
                                        R"(One element for each QuadExpr of an MQuadExpr.)");
}

}  // namespace taviropy::mnlexpr
