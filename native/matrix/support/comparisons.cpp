#include "support/comparisons.hpp"

#include "support/errors.hpp"

namespace taviropy::comparisons {

nb::object make(nb::handle self, Sense sense, nb::handle rhs) {
    static PyObject* const senses[] = {PyUnicode_InternFromString("LESS_EQUAL"),
                                       PyUnicode_InternFromString("GREATER_EQUAL"),
                                       PyUnicode_InternFromString("EQUAL")};
    nb::object TempConstr = names::TempConstr();
    nb::handle name = senses[static_cast<int>(sense)];
    return TempConstr(self, nb::getattr(names::TVO(), name), rhs);
}

void refuse_not_equal(int code) {
    raise_taviro_error(code, "Inequality constraints not supported");
}

}  // namespace taviropy::comparisons
