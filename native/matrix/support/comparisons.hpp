// The comparisons that make constraints, the same in every class that has them.
#pragma once

#include <nanobind/nanobind.h>

#include "support/classes.hpp"
#include "support/errors.hpp"
#include "support/names.hpp"

namespace taviropy {

namespace detail {

inline nb::object compare(nb::handle self, const char* sense, nb::handle rhs) {
    return names::TempConstr()(self, nb::getattr(names::TVO(), sense), rhs);
}

inline nb::object less_equal(nb::handle self, nb::handle rhs) {
    return compare(self, "LESS_EQUAL", rhs);
}
inline nb::object greater_equal(nb::handle self, nb::handle rhs) {
    return compare(self, "GREATER_EQUAL", rhs);
}
inline nb::object equal(nb::handle self, nb::handle rhs) { return compare(self, "EQUAL", rhs); }

template <int code>
nb::object not_equal(nb::handle, nb::handle) {
    raise_taviro_error(code, "Inequality constraints not supported");
}

}  // namespace detail

/// Adds `<=`, `>=` and `==`, which give a TempConstr, and `!=`, a TaviroError of this code.
template <int refusal_code>
void add_comparisons(ClassBody& body) {
    body.method<&detail::less_equal>("__le__(self, rhs)")
        .method<&detail::greater_equal>("__ge__(self, rhs)")
        .method<&detail::equal>("__eq__(self, rhs)")
        .method<&detail::not_equal<refusal_code>>("__ne__(self, rhs)");
}

}  // namespace taviropy
