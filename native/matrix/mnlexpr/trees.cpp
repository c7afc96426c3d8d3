#include "mnlexpr/trees.hpp"

#include "core_interface/scalars.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"

namespace taviropy::mnlexpr {

const WalkFlags kRewriteAlone = {"refs_ok external_loop buffered", {"readonly no_broadcast"}, "O"};
const WalkFlags kRewriteWithTrees = {
    "refs_ok external_loop buffered", {"readonly no_broadcast", "readonly copy"}, "OO"};

PyObject* root_name() {
    static PyObject* name = PyUnicode_InternFromString("_root");
    return name;
}

nb::object make(nb::handle nlearr) { return names::MNLExpr()(nlearr); }

nb::object trees_of(nb::handle value) {
    return names::MNLExpr().attr("_coerce_to_exprtree_array")(value);
}

bool is_array_operand(nb::handle np, nb::handle value) {
    return is_ndarray(np, value) ||
           is_a(value, names::MVar, names::MLinExpr, names::MQuadExpr, names::MNLExpr);
}

Operand take_operand(nb::handle np, nb::handle value) {
    Operand operand;
    if (is_array_operand(np, value))
        operand.trees = trees_of(value);
    else if (is_a(value, names::Var) || is_linexpr(value) || is_quadexpr(value) ||
             is_a(value, names::NLExpr) || is_scalar(value))
        operand.tree = names::NLExpr().attr("_coerce_to_exprtree")(value);
    return operand;
}

}  // namespace taviropy::mnlexpr
