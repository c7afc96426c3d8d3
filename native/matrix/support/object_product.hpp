// Matrix products of object arrays.
#pragma once

#include <nanobind/nanobind.h>

namespace taviropy {

namespace nb = nanobind;

/// `left @ right` for two arrays of which one at least holds modelling objects: the elements that
/// NumPy's product gives, term for term, and a bare object where that is 0-d. NumPy adds the
/// products by `+`, which copies the sum at each step; here the sums grow in place, so that the
/// cost is that of the terms.
nb::object object_product(nb::handle np, nb::handle left, nb::handle right);

}  // namespace taviropy
