// What the files of MVar share.
#pragma once

#include "support/classes.hpp"
#include "support/names.hpp"

namespace taviropy::mvar {

/// A new handle on the array, of the class that the name `MVar` stands for.
nb::object new_mvar(nb::handle array);

/// The variables as a one-dimensional MVar, in C order.
inline nb::object flat_mvar(nb::handle x) {
    return new_mvar(x.attr("_vararr").attr("reshape")(-1));
}

/// Adds the operators and comparisons (mvar_operators.cpp).
void add_operators(ClassBody& body);
/// Adds sum and diagonal (mvar_reductions.cpp).
void add_reductions(ClassBody& body);

}  // namespace taviropy::mvar
