// What the files of MVar share.
#pragma once

#include "support/classes.hpp"
#include "support/names.hpp"

namespace taviropy::mvar {

/// A new handle on the array, of the class that the name `MVar` stands for.
nb::object new_mvar(nb::handle array);

/// Adds the operators and comparisons (mvar_operators.cpp).
void add_operators(ClassBody& body);
/// Adds sum and diagonal (mvar_reductions.cpp).
void add_reductions(ClassBody& body);

}  // namespace taviropy::mvar
