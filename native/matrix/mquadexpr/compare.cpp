// MQuadExpr: the comparisons, which make constraints.

#include "mquadexpr/mquadexpr.hpp"
#include "support/errors.hpp"

namespace taviropy::mquadexpr {

static nb::object comparison(nb::handle self, const char* sense, nb::handle rhs) {
    return names::TempConstr()(self, nb::getattr(names::TVO(), sense), rhs);
}

static nb::object le(nb::handle self, nb::handle rhs) {
    return comparison(self, "LESS_EQUAL", rhs);
}

static nb::object ge(nb::handle self, nb::handle rhs) {
    return comparison(self, "GREATER_EQUAL", rhs);
}

static nb::object eq(nb::handle self, nb::handle rhs) { return comparison(self, "EQUAL", rhs); }

static nb::object ne(nb::handle, nb::handle) {
    raise_taviro_error(0, "Inequality constraints not supported");
}

void add_comparison_methods(ClassBody& body) {
    body.method<&le>("__le__(self, rhs)")
        .method<&ge>("__ge__(self, rhs)")
        .method<&eq>("__eq__(self, rhs)")
        .method<&ne>("__ne__(self, rhs)");
}

}  // namespace taviropy::mquadexpr
