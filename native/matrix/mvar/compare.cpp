// MVar: the comparisons, which make constraints.

#include "mvar/mvar.hpp"
#include "support/errors.hpp"

namespace taviropy::mvar {

namespace {

nb::object compare(nb::handle self, const char* sense, nb::handle rhs) {
    nb::object TempConstr = names::TempConstr();
    return TempConstr(self, nb::getattr(names::TVO(), sense), rhs);
}

nb::object le(nb::handle self, nb::handle rhs) { return compare(self, "LESS_EQUAL", rhs); }
nb::object ge(nb::handle self, nb::handle rhs) { return compare(self, "GREATER_EQUAL", rhs); }
nb::object eq(nb::handle self, nb::handle rhs) { return compare(self, "EQUAL", rhs); }

nb::object ne(nb::handle, nb::handle) {
    raise_taviro_error(-1, "Inequality constraints not supported");
}

}  // namespace

void add_comparison_methods(ClassBody& body) {
    body.method<&le>("__le__(self, rhs)")
        .method<&ge>("__ge__(self, rhs)")
        .method<&eq>("__eq__(self, rhs)")
        .method<&ne>("__ne__(self, rhs)");
}

}  // namespace taviropy::mvar
