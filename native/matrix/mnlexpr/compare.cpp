// MNLExpr: what makes constraints of it. It has no comparisons of its own: `y == expr` is one of y.

#include "mnlexpr/mnlexpr.hpp"

namespace taviropy::mnlexpr {

static nb::object _addAsConstr(nb::handle self, nb::handle model, nb::handle resvar,
                               nb::handle name) {
    return model.attr("addGenConstrNL")(resvar, self, name);
}

void add_comparison_methods(ClassBody& body) {
    body.method<&_addAsConstr>(
        "_addAsConstr(self, model, resvar, name)",
        R"(Adds `resvar == self` to a model; what `addGenConstrNL` returns.)");
}

}  // namespace taviropy::mnlexpr
