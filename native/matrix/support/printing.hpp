// The text of an array of modelling objects.
#pragma once

#include <nanobind/nanobind.h>

#include <string>

namespace taviropy {

namespace nb = nanobind;

/// repr(array) of an object array without the note of the dtype: whatever stands behind the last
/// comma is cut, or the last character where there is none.
nb::object array_text(nb::handle array);

/// The same, each element shown as `lead` and its str.
nb::object array_text(nb::handle np, nb::handle array, const char* lead);

/// The text of a matrix object: "<", its class, its shape and marks, ">", and its elements below.
nb::object block_text(const char* name, nb::handle shape, const std::string& marks,
                      nb::handle elements);

}  // namespace taviropy
