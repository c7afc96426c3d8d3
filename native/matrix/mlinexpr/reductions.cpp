// What an MLinExpr comes to: sums along axes, its constants, its values at the solution.

#include "core_interface/scalars.hpp"
#include "mlinexpr/mlinexpr.hpp"
#include "support/axes.hpp"
#include "support/imports.hpp"
#include "support/object_arrays.hpp"
#include "support/operators.hpp"
#include "support/solution_values.hpp"
#include "support/vectorize.hpp"

namespace taviropy::mlinexpr {

// ---- Sums -----------------------------------------------------------------------------------

static constexpr const char* kSumDoc = R"(ROUTINE:
    sum(axis=None)

PURPOSE:
    Sum the elements of the expression along an axis, or all of them.

ARGUMENTS:
    axis (int, tuple of ints or None): The axis to sum along; None sums along
        all axes. The default is None.

RETURN VALUE:
    An MLinExpr without the axes that are summed along; that of sum() is 0-d.

EXAMPLE:
    total = expr.sum()
    column_sums = expr.sum(axis=0)  # along the rows

NOTES:
    Terms of one variable are kept side by side. An axis that doesn't exist
    raises a TaviroError.
)";

nb::object sum(nb::handle self, nb::handle axis) {
    GcPause pause;
    _convert_to_full(self);
    nb::object learr = learr_of(self);
    nb::object axes = axes_list(axis, learr.attr("ndim"));
    nb::object out = zeros_full(reduced_shape(learr.attr("shape"), axes));
    _flatten(self);
    walk_sums(learr, learr_of(out), axes, [](PyObject* summand, PyObject* sum) {
        extend_linexpr(as_linexpr(sum), as_linexpr(summand));
    });
    return out;
}

// ---- Constants and values -------------------------------------------------------------------

static constexpr const char* kGetConstantDoc = R"(ROUTINE:
    getConstant()

PURPOSE:
    Give the constant terms, the b of A @ x + b.

ARGUMENTS:
    None.

RETURN VALUE:
    A new float64 ndarray of the shape of the expression.

EXAMPLE:
    b = (A @ x + b).getConstant()
)";

static constexpr const char* kGetValueDoc = R"(ROUTINE:
    getValue()

PURPOSE:
    Evaluate the expression at the current solution.

ARGUMENTS:
    None.

RETURN VALUE:
    A new float64 ndarray of the shape of the expression.

EXAMPLE:
    model.optimize()
    values = (A @ x + b).getValue()

NOTES:
    Where variables of the expression have no value, the error is that of
    reading their attribute X: a TaviroError.
)";

nb::object getConstant(nb::handle self) {
    nb::object np = import_numpy();
    if (is_compact(self)) return const_of(self).attr("copy")();
    refuse_empty(learr_of(self));
    return doubles_of(np, learr_of(self), [](nb::object element) {
        if (is_plain_linexpr(element.ptr())) return as_linexpr(element.ptr())->constant;
        return as_double(element.attr("getConstant")());
    });
}

nb::object getValue(nb::handle self) {
    nb::object np = import_numpy();
    if (!is_compact(self)) return values_of_elements(np, learr_of(self));
    nb::object result = const_of(self).attr("copy")();
    Part part = merged_part(self);
    if (part.A.is_valid()) {
        nb::object products = matrix_product(part.A, nb::object(part.x.attr("X")));
        result += products.attr("reshape")(nb::getattr(result, "shape"));
    }
    return result;
}

// ---- The table ------------------------------------------------------------------------------

void add_reduction_methods(ClassBody& body) {
    body.method<&sum>("sum(self, axis=None)", kSumDoc)
        .method<&getConstant>("getConstant(self)", kGetConstantDoc)
        .method<&getValue>("getValue(self)", kGetValueDoc);
}

}  // namespace taviropy::mlinexpr
