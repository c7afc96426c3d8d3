// What each unit of the module adds to its namespace.
#pragma once

#include <nanobind/nanobind.h>

namespace taviropy {

namespace nb = nanobind;

void define_mvar(nb::module_ module);
void define_mlinexpr(nb::module_ module);
void define_mquadexpr(nb::module_ module);
void define_constraints(nb::module_ module);
void define_mfunctions(nb::module_ module);
void define_mnlexpr(nb::module_ module);

}  // namespace taviropy
