// Values at the solution of many scalar expressions at once.
#pragma once

#include <nanobind/nanobind.h>

#include <unordered_map>
#include <vector>

#include "core_interface/scalars.hpp"

namespace taviropy {

/// The values at the solution of the variables of some expressions, read in one go: first all
/// expressions are noted, then the values are read, then the expressions are evaluated.
class SolutionValues {
  public:
    /// Takes note of the variables of a LinExpr or QuadExpr. False where it is of another class or
    /// has terms outstanding, or where the variables aren't of one model: then its own `getValue`
    /// has to be asked.
    bool note(PyObject* element);
    /// Reads the attribute X of all variables; throws what that raises.
    void read();
    /// The value of an element that was noted: constant and linear terms, then quadratic terms, in
    /// stored order.
    double evaluate(PyObject* element) const;

  private:
    bool note_linear(PyObject* linear);
    bool note_variables(PyObject* vars, PyObject* coeffs);
    double evaluate_linear(LinExprObject* le) const;
    double value_of(PyObject* vars, Py_ssize_t k) const;

    std::unordered_map<PyObject*, std::size_t> places_;
    nb::list variables_;
    nb::object model_;
    std::vector<double> values_;
};

/// A float64 array with the value at the solution of every element of an object array of LinExpr or
/// QuadExpr.
nb::object values_of_elements(nb::handle np, nb::handle elements);

}  // namespace taviropy
