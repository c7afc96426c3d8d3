// Values at the solution of many scalar expressions at once.
#pragma once

#include <nanobind/nanobind.h>

#include <unordered_map>
#include <vector>

#include "core_interface/scalars.hpp"

namespace taviropy {

/// The values at the solution of some expressions, whose variables are read in one go. All terms
/// are copied first, and no code of the user runs meanwhile: what it changes later on, while the
/// variables are read, changes no value here.
class SolutionValues {
  public:
    /// Copies the terms of a LinExpr or QuadExpr. False where it is of another class, has terms
    /// outstanding or unsound lists: then its own `getValue` has to be asked.
    bool note(PyObject* element);
    /// How many expressions were noted.
    std::size_t size() const { return expressions_.size(); }
    /// Reads the attribute X of all variables; throws what that raises. False where they aren't of
    /// one model.
    bool read();
    /// The value of an expression by its number: constant and linear terms, then quadratic terms,
    /// in stored order.
    double value(std::size_t number) const;

  private:
    using Place = std::size_t;
    struct Linear {
        double coeff;
        Place var;
    };
    struct Quadratic {
        double coeff;
        Place var1, var2;
    };
    /// Its terms end where those of the next expression begin.
    struct Expression {
        double constant;
        std::size_t linear_end, quadratic_end;
    };

    bool note_linear(PyObject* linear);
    bool note_quadratic(QuadExprObject* qe);
    Place place_of(PyObject* var);
    bool is_of_one_model() const;

    std::unordered_map<PyObject*, Place> places_;
    nb::list variables_;
    std::vector<Linear> linear_;
    std::vector<Quadratic> quadratic_;
    std::vector<Expression> expressions_;
    std::vector<double> values_;
};

/// A float64 array with the value at the solution of every element of an object array of LinExpr or
/// QuadExpr.
nb::object values_of_elements(nb::handle np, nb::handle elements);

}  // namespace taviropy
