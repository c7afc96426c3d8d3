// What an MQuadExpr comes to: sums along axes, its constants, its values at the solution.

#include "core_interface/scalars.hpp"
#include "mquadexpr/mquadexpr.hpp"
#include "support/axes.hpp"
#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/object_arrays.hpp"
#include "support/operators.hpp"
#include "support/solution_values.hpp"

namespace taviropy::mquadexpr {

using namespace nb::literals;

static constexpr const char* kSumDoc = R"(
ROUTINE:
  sum(axis=None)

PURPOSE:
  Sum the elements of this matrix quadratic expression.

ARGUMENTS:
  axis (int, tuple of ints or None): The axis to sum over; counted from the last one where negative.
    None sums over all axes, which makes the result 0-d.

RETURN VALUE:
  A new MQuadExpr object, of this expression's shape without the axis. Terms are not merged.

EXAMPLE:
  total = (x * x).sum()
  model.addConstr((x * x).sum(axis=0) <= 1)

NOTES:
  An axis that this expression doesn't have is a TaviroError.
)";

static nb::object sum(nb::handle self, nb::handle axis) {
    GcPause pause;
    _convert_to_full(self);
    nb::object qearr = self.attr("_qearr");
    nb::object axes = axes_list(axis, qearr.attr("ndim"));
    nb::object ndle = self.attr("_ndle").attr("sum")(axis);
    PY_ASSERT(ndle.attr("shape").equal(reduced_shape(qearr.attr("shape"), axes)));
    nb::object result = names::MQuadExpr().attr("_from_mlinexpr")(ndle, "force_full"_a = true);
    _flatten(self);
    nb::object sums = result.attr("_qearr");
    // Lists are extended, so the cost is that of the terms.
    walk_sums(qearr, sums, axes, [](PyObject* element, PyObject* total) {
        QuadExprObject *summand = as_quadexpr(element), *sum = as_quadexpr(total);
        extend_list(sum->coeffs, summand->coeffs);
        extend_list(sum->vars1, summand->vars1);
        extend_list(sum->vars2, summand->vars2);
    });
    return result;
}

static constexpr const char* kGetValueDoc = R"(
ROUTINE:
  getValue()

PURPOSE:
  Compute the value of this expression, using the current solution.

ARGUMENTS:
  None

RETURN VALUE:
  The computed matrix expression value, as a NumPy ndarray of float64 and of this expression's shape.

EXAMPLE:
  model.optimize()
  value = (x @ Q @ x).getValue()

NOTES:
  Without a solution, the error of reading the attribute X of the variables is raised: a TaviroError.
)";

static nb::object getValue(nb::handle self) {
    auto np = import_numpy();
    nb::object result = self.attr("_ndle").attr("getValue")();
    if (!is_compact(self)) {
        result += values_of_elements(np, self.attr("_qearr"));
        return result;
    }
    QuadPart part(_extract_xQy(self));
    if (!part.Q.is_none()) {
        nb::object left = part.x.attr("X");
        nb::object row = matrix_product(left, part.Q);
        nb::object right = part.y.attr("X");
        result += matrix_product(row, right);
    }
    return result;
}

static nb::object _getConstant(nb::handle self) { return self.attr("_ndle").attr("getConstant")(); }

void add_reduction_methods(ClassBody& body) {
    body.method<&sum>("sum(self, axis=None)", kSumDoc)
        .method<&_getConstant>("_getConstant(self)")
        .method<&getValue>("getValue(self)", kGetValueDoc);
}

}  // namespace taviropy::mquadexpr
