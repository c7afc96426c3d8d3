// MVar: what its files, and the classes above it, call of each other in C++.
#pragma once

#include "support/classes.hpp"
#include "support/names.hpp"

namespace taviropy::mvar {

/// A new handle on the array, of the class that the name `MVar` stands for.
nb::object new_mvar(nb::handle array);

/// The variables in C order, along one axis.
nb::object flat(nb::handle x);

/// The variables as a fresh linear expression, `self._toexpr()`.
inline nb::object toexpr(nb::handle self) { return self.attr("_toexpr")(); }

/// `MNLExpr._from_mvar(self)`
inline nb::object as_nonlinear(nb::handle self) {
    return names::MNLExpr().attr("_from_mvar")(self);
}

// ---- The families' methods, added to the class by define_mvar -----------------------------------

void add_form_methods(ClassBody& body);
void add_build_methods(ClassBody& body);
void add_index_methods(ClassBody& body);
void add_text_methods(ClassBody& body);
void add_attribute_methods(ClassBody& body);
void add_arithmetic_methods(ClassBody& body);
void add_matmul_methods(ClassBody& body);
void add_reduction_methods(ClassBody& body);
void add_comparison_methods(ClassBody& body);

}  // namespace taviropy::mvar
