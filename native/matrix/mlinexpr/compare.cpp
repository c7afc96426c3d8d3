// MLinExpr: the comparisons, which make constraints.

#include "mlinexpr/mlinexpr.hpp"

namespace taviropy::mlinexpr {

static nb::object le(nb::handle self, nb::handle rhs) {
    return names::TempConstr()(self, nb::getattr(names::TVO(), "LESS_EQUAL"), rhs);
}

static nb::object ge(nb::handle self, nb::handle rhs) {
    return names::TempConstr()(self, nb::getattr(names::TVO(), "GREATER_EQUAL"), rhs);
}

static nb::object eq(nb::handle self, nb::handle rhs) {
    return names::TempConstr()(self, nb::getattr(names::TVO(), "EQUAL"), rhs);
}

static nb::object ne(nb::handle, nb::handle) {
    raise_taviro_error(0, "Inequality constraints not supported");
}

void add_comparison_methods(ClassBody& body) {
    body.method<&le>("__le__(self, rhs)")
        .method<&ge>("__ge__(self, rhs)")
        .method<&eq>("__eq__(self, rhs)")
        .method<&ne>("__ne__(self, rhs)");
}

}  // namespace taviropy::mlinexpr
