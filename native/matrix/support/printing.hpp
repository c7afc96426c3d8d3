// The text of an array of modelling objects.
#pragma once

#include <nanobind/nanobind.h>

#include <string>

namespace taviropy {

namespace nb = nanobind;

/// repr(array) of an object array, each element shown as `lead` and its str, without the note of
/// the dtype: whatever stands behind the last comma is cut, or the last character where there is
/// none.
std::string array_text(nb::handle np, nb::handle array, const char* lead = "");

}  // namespace taviropy
