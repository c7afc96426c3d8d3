// What an MVar comes to: sums along axes.

#include <utility>
#include <vector>

#include "core_interface/scalars.hpp"
#include "mvar/mvar.hpp"
#include "support/axes.hpp"
#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"
#include "support/object_arrays.hpp"

namespace taviropy::mvar {

namespace {

constexpr const char* kSumDoc = R"(ROUTINE:
  sum(axis=None)

PURPOSE:
  Sum the variables along an axis, or all of them.

ARGUMENTS:
  axis: the axis, or a tuple of axes, to sum away; None sums over all.

RETURN VALUE:
  An MLinExpr whose shape lacks the summed axes. TaviroError for an axis that
  the MVar doesn't have.

EXAMPLE:
  x = model.addMVar((2, 2))
  x.sum(axis=0)   # along the rows
  x.sum(axis=1)   # along the columns
  x.sum()         # all variables)";

/// The terms of one sum, in lists of their final length.
struct Terms {
    nb::object coeffs, vars;
    Py_ssize_t count = 0;
};

/// Where variables and fresh sums are laid out in C order, each sum gets its lists at once: a fifth
/// of the time that appending takes. False, with nothing done, where they aren't.
bool fill_sums(nb::handle vararr, nb::handle learr, nb::handle axes, nb::handle one) {
    detail::SumPlan plan;
    if (!detail::plan_sums(plan, vararr, learr, axes)) return false;
    const Py_ssize_t size = plan.in->len / plan.in->itemsize;
    const Py_ssize_t sums = plan.out->len / plan.out->itemsize;
    if (sums == 0 || size % sums != 0) return false;
    auto** exprs = static_cast<PyObject**>(plan.out->buf);
    for (Py_ssize_t k = 0; k < sums; ++k)
        if (PyList_GET_SIZE(as_linexpr(exprs[k])->vars) != 0) return false;
    std::vector<Terms> terms(sums);
    for (Terms& t : terms) {
        t.coeffs = checked(PyList_New(size / sums));
        t.vars = checked(PyList_New(size / sums));
    }
    detail::for_each_sum(plan, size, [&](PyObject* var, Py_ssize_t place) {
        Terms& t = terms[place];
        PyList_SET_ITEM(t.coeffs.ptr(), t.count, Py_NewRef(one.ptr()));
        PyList_SET_ITEM(t.vars.ptr(), t.count++, Py_NewRef(var ? var : Py_None));
    });
    for (Py_ssize_t k = 0; k < sums; ++k) {
        LinExprObject* expr = as_linexpr(exprs[k]);
        set_field(expr->coeffs, std::move(terms[k].coeffs));
        set_field(expr->vars, std::move(terms[k].vars));
    }
    return true;
}

nb::object sum(nb::handle self, nb::handle axis) {
    import_numpy();
    GcPause pause;
    nb::object vararr = self.attr("_vararr");
    nb::object axes = axes_list(axis, vararr.attr("ndim"));
    nb::object shape = reduced_shape(vararr.attr("shape"), axes);
    nb::object out = names::MLinExpr().attr("_zeros_full")(shape);
    nb::object learr = out.attr("_learr");
    nb::float_ one(1.0);
    if (!fill_sums(vararr, learr, axes, one))
        walk_sums(vararr, learr, axes, [&](PyObject* var, PyObject* sum) {
            LinExprObject* expr = as_linexpr(sum);
            append_to_list(expr->coeffs, one.ptr());
            append_to_list(expr->vars, var ? var : Py_None);
        });
    return out;
}

}  // namespace

void add_reduction_methods(ClassBody& body) { body.method<&sum>("sum(self, axis=None)", kSumDoc); }

}  // namespace taviropy::mvar
