// MQuadExpr: what its files call of each other in C++.
//
// A function here that carries the name of a method is that method: the class's table binds the
// very same function, so its contract is its docstring's or stands at its definition.
#pragma once

#include <nanobind/nanobind.h>

#include "support/classes.hpp"
#include "support/names.hpp"

namespace taviropy::mquadexpr {

namespace nb = nanobind;

// ---- Form ---------------------------------------------------------------------------------------

inline nb::object parts_of(nb::handle self) { return self.attr("_quadparts"); }

/// `self._is_compact`, with its assertions.
bool is_compact(nb::handle self);

/// `cls._keep_compact == 1`
bool keeps_compact(nb::handle cls);

/// Opens every operator with two lanes: true where it takes the compact one, which needs a compact
/// `self` and the class's switch. Otherwise `self` is full from here on.
bool take_compact_lane(nb::handle self);

/// At most two dimensions, none above 1.
bool allows_compact(nb::handle shape);

/// `cls(quadparts=quadparts, ndle=ndle)` and `cls(qearr=qearr, ndle=ndle)`, with the constructor's
/// assertions; nothing is copied.
nb::object new_compact(nb::handle cls, nb::handle quadparts, nb::handle ndle);
nb::object new_full(nb::handle cls, nb::handle qearr, nb::handle ndle);

/// The same for the class MQuadExpr. A bare `QuadExpr` in the place of an array, which is what
/// NumPy makes of 0-d results, becomes a 0-d array.
inline nb::object new_compact(nb::handle quadparts, nb::handle ndle) {
    return new_compact(names::MQuadExpr(), quadparts, ndle);
}
nb::object new_full(nb::handle qearr, nb::handle ndle);

/// `MNLExpr._from_mquadexpr(self)`, for what leaves the quadratic world.
inline nb::object as_nonlinear(nb::handle self) {
    return names::MNLExpr().attr("_from_mquadexpr")(self);
}

/// One product `x @ Q @ y` of a compact expression.
struct QuadPart {
    nb::object x, Q, y;
    explicit QuadPart(nb::handle part);
    /// The part with copies of all three.
    nb::object copied() const;
};

// ---- forms.cpp ----------------------------------------------------------------------------------

nb::object _concat_quadparts(nb::handle self);
nb::object _add_quadpart(nb::handle self, nb::handle x, nb::handle Q, nb::handle y);
nb::object _extract_quadexpr(nb::handle self);
nb::object _extract_xQy(nb::handle self);
nb::object _to_full(nb::handle self);
nb::object _convert_to_full(nb::handle self);
nb::object _flatten(nb::handle self);
nb::object _normalize(nb::handle self);
nb::object _clear_quad_array(nb::handle qearr);

// ---- build.cpp ----------------------------------------------------------------------------------

nb::object zeros(nb::handle cls, nb::handle shape);
nb::object _from_quad_expr(nb::handle cls, nb::handle qe);
nb::object _from_mlinexpr(nb::handle cls, nb::handle ndle, nb::handle force_full);
nb::object _copy_quadparts(nb::handle self);

// ---- The families' methods, added to the class by define_mquadexpr ------------------------------

void add_form_methods(ClassBody& body);
void add_build_methods(ClassBody& body);
void add_index_methods(ClassBody& body);
void add_text_methods(ClassBody& body);
void add_addition_methods(ClassBody& body);
void add_scaling_methods(ClassBody& body);
void add_matmul_methods(ClassBody& body);
void add_reduction_methods(ClassBody& body);
void add_comparison_methods(ClassBody& body);

}  // namespace taviropy::mquadexpr
