#include "support/comparisons.hpp"

#include "support/errors.hpp"

namespace taviropy::comparisons {

nb::object make(nb::handle self, const char* sense, nb::handle rhs) {
    nb::object TempConstr = names::TempConstr();
    return TempConstr(self, nb::getattr(names::TVO(), sense), rhs);
}

void refuse_not_equal(int code) {
    raise_taviro_error(code, "Inequality constraints not supported");
}

}  // namespace taviropy::comparisons
