// Axes of a reduction.
#pragma once

#include <nanobind/nanobind.h>

namespace taviropy {

namespace nb = nanobind;

/// `_axis_to_axeslist(axis, ndim)`: a list with an entry for each axis, -1 where it is reduced,
/// else its place in the result. An invalid axis is TaviroError(-1, "Invalid axis specifications:
/// <axis>").
nb::object axes_list(nb::handle axis, nb::handle ndim);

/// The shape that a reduction leaves, as a tuple.
nb::object reduced_shape(nb::handle shape, nb::handle axeslist);

}  // namespace taviropy
