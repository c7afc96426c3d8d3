// Numbers and arrays of numbers as operands.
#pragma once

#include <nanobind/nanobind.h>

namespace taviropy {

namespace nb = nanobind;

/// Whether a number has an imaginary part, be it 0.
bool is_complex(nb::handle number);

/// float(object), texts of numbers included.
nb::object as_float(nb::handle object);

/// The same of a number. A complex one is a TypeError, also where it is NumPy's, of
/// which float() would drop the imaginary part.
nb::object real_float(nb::handle number);

/// -1.0 * operand. A number that no float can multiply, such as a Decimal, is taken as one.
nb::object negated(nb::handle operand);

/// Whether an array is of NumPy's own class, and not of one derived from it.
bool is_exact(nb::handle np, nb::handle array);

/// An array as one of NumPy's own class: the very array, or its elements where the class is derived
/// and may have rules of its own, as numpy.matrix for `*`.
nb::object plain_array(nb::handle np, nb::handle array);

/// The same of an array of numbers to compute with; floats longer than doubles become doubles,
/// which a pass over doubles would refuse.
nb::object number_array(nb::handle np, nb::handle array);

/// Refuses an array or a sparse matrix of complex numbers, of which a conversion to float64 would
/// drop the imaginary part.
void refuse_complex(nb::handle array);

/// Refuses an array of which every entry is masked, since it holds nothing to multiply by.
void refuse_masked(nb::handle np, nb::handle array);

/// Refuses numbers to multiply by that aren't finite, and entries that are masked all; NumPy's
/// TypeError where it can't tell.
void refuse_infinite(nb::handle np, nb::handle array);

}  // namespace taviropy
