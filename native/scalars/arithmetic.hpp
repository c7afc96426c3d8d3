// The operators that Var, LinExpr, QuadExpr and NLExpr share. Each looks at both operands,
// whichever of them CPython calls it for, and gives NotImplemented where it does not know one of
// them.
#pragma once

#include <vector>

#include "operands.hpp"

namespace taviropy {

Ref add(PyObject* left, PyObject* right);
Ref subtract(PyObject* left, PyObject* right);
Ref multiply(PyObject* left, PyObject* right);
Ref divide(PyObject* left, PyObject* right);
Ref power(PyObject* left, PyObject* right, PyObject* modulus);

/// 1.0 / number, by which a division scales; ZeroDivisionError for 0.0.
double reciprocal(double number);

/// The node of a number, Var, LinExpr, QuadExpr or NLExpr.
Ref tree_of(const Operand& operand);

/// A type's own slots, then those of the shared operators, then the end mark.
std::vector<PyType_Slot> with_operators(std::vector<PyType_Slot> own);
/// Makes arrays on the left of an operator leave it to the type.
void add_array_priority(PyTypeObject* type);

/// Adds exp, log, sqrt, sin, cos and tan, the methods that NumPy's functions of these names call.
void add_function_methods(PyTypeObject* type);

// array_operators.cpp: the operators where the other side is a NumPy array or a SciPy matrix
enum class Operator { add, subtract, multiply, divide, power };
Ref operate_with_array(Operator op, PyObject* left, PyObject* right);
/// A comparison that is no constraint: with the item of an array without dimensions, or NumPy's own
/// search for a variable in an array of objects. Else empty.
Ref compare_with_array(PyObject* self, PyObject* array, int operation);
bool is_array_operand(PyObject* object);
/// The items of what a user gave as a list. Sparse arrays are refused: SciPy's iteration trusts what
/// they hold.
Ref tuple_of(PyObject* iterable);
/// Whether an object is an MNLExpr, which has no comparisons of its own and leaves them to these.
bool is_mnlexpr(PyObject* object);

}  // namespace taviropy
