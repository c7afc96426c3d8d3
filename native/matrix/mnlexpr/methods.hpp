// The families of methods of `MNLExpr`, in the order of the class.
#pragma once

#include "support/classes.hpp"

namespace taviropy::mnlexpr {

void add_build_methods(ClassBody& body);
void add_index_methods(ClassBody& body);
void add_operator_methods(ClassBody& body);
void add_reduction_methods(ClassBody& body);

}  // namespace taviropy::mnlexpr
