// vstack, hstack, concatenate: NumPy's routines over the matrix classes.
//
// The result is of the narrowest class that can hold all operands. Expressions are copied before
// they are stacked, since NumPy keeps references and an expression owns its elements.

#include "mvar/mvar.hpp"
#include "support/classes.hpp"
#include "support/errors.hpp"
#include "support/functions.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"
#include "support/vectorize.hpp"
#include "units.hpp"

namespace taviropy {

namespace {

bool is_compact(nb::handle expr) { return truth(expr.attr("_is_compact")); }

nb::object _copy_learr(nb::handle obj) {
    nb::object np = import_numpy();
    nb::object copy;
    if (is_ndarray(np, obj)) {
        copy = names::MLinExpr().attr("_zeros_full")(nb::getattr(obj, "shape"));
        copy += obj;
    } else if (is_a(obj, names::MVar)) {
        copy = names::MLinExpr().attr("_from_mvar")(obj, nb::arg("force_full") = true);
    } else {
        const char* copier = is_compact(obj) ? "_to_full" : "_copy_full";
        PY_ASSERT(is_a(obj, names::MLinExpr));
        copy = obj.attr(copier)();
    }
    return copy.attr("_learr");
}

nb::object _copy_learr_qearr(nb::handle obj) {
    nb::object np = import_numpy();
    nb::object copy;
    if (is_ndarray(np, obj) || is_a(obj, names::MVar, names::MLinExpr)) {
        copy = names::MQuadExpr().attr("_zeros_full")(nb::getattr(obj, "shape"));
        copy += obj;
    } else {
        const char* copier = is_compact(obj) ? "_to_full" : "_copy_full";
        PY_ASSERT(is_a(obj, names::MQuadExpr));
        copy = obj.attr(copier)();
    }
    nb::object linear = copy.attr("_ndle");
    if (is_compact(linear)) linear = linear.attr("_to_full")();
    nb::object qearr = copy.attr("_qearr"), learr = linear.attr("_learr");
    PY_ASSERT(qearr.attr("shape").equal(learr.attr("shape")));
    return nb::make_tuple(qearr, learr);
}

/// A list of what `get` gives for each operand.
template <class Get>
nb::list each(nb::handle tup, Get&& get) {
    nb::list list;
    for (nb::handle obj : nb::borrow<nb::object>(tup)) list.append(get(obj));
    return list;
}

nb::list each_field(nb::handle tup, const char* field) {
    return each(tup, [&](nb::handle obj) { return nb::object(obj.attr(field)); });
}

/// True where every operand is of one of the classes, or an array where `arrays` is valid.
template <class... Names>
bool all_are(nb::handle tup, nb::handle ndarray, const Names&... types) {
    for (nb::handle obj : nb::borrow<nb::object>(tup)) {
        if (ndarray.is_valid() && is_instance(obj, ndarray)) continue;
        if (!is_a(obj, types...)) return false;
    }
    return true;
}

nb::object stack_linear(nb::handle numpyfunc, nb::handle tup) {
    nb::list learrs = each(tup, [](nb::handle obj) { return names::_copy_learr()(obj); });
    return names::MLinExpr()(numpyfunc(learrs));
}

nb::object stack_quadratic(nb::handle numpyfunc, nb::handle tup) {
    nb::list qearrs, learrs;
    for (nb::handle obj : nb::borrow<nb::object>(tup)) {
        nb::object pair = names::_copy_learr_qearr()(obj);
        qearrs.append(nb::object(pair[0]));
        learrs.append(nb::object(pair[1]));
    }
    nb::object qearr = numpyfunc(nb::tuple(qearrs));
    nb::object learr = numpyfunc(nb::tuple(learrs));
    return names::MQuadExpr()(nb::arg("qearr") = qearr, nb::arg("ndle") = names::MLinExpr()(learr));
}

nb::object stack_nonlinear(nb::handle np, nb::handle numpyfunc, nb::handle tup) {
    nb::list trees = each(tup, [](nb::handle obj) {
        return names::MNLExpr().attr("_coerce_to_exprtree_array")(obj);
    });
    nb::object tree_arr = numpyfunc(trees);
    nb::object NLExpr = names::NLExpr();
    return names::MNLExpr()(
        vectorize(np, [&](nb::handle tree) -> nb::object { return NLExpr(tree); }, tree_arr));
}

nb::object _apply_array_manipulation_routine(nb::handle numpyfunc, nb::handle tup) {
    nb::object np = import_numpy();
    nb::object ndarray = np.attr("ndarray");
    const nb::handle no_arrays;
    if (all_are(tup, no_arrays, names::MVar))
        return mvar::new_mvar(numpyfunc(each_field(tup, "_vararr")));
    if (all_are(tup, no_arrays, names::MConstr))
        return names::MConstr()(numpyfunc(each_field(tup, "_constrarr")));
    if (all_are(tup, no_arrays, names::MQConstr))
        return names::MQConstr()(numpyfunc(each_field(tup, "_qconstrarr")));
    if (all_are(tup, no_arrays, names::MGenConstr))
        return names::MGenConstr()(numpyfunc(each_field(tup, "_constrarr")));
    if (all_are(tup, ndarray, names::MVar, names::MLinExpr)) return stack_linear(numpyfunc, tup);
    if (all_are(tup, ndarray, names::MVar, names::MLinExpr, names::MQuadExpr))
        return stack_quadratic(numpyfunc, tup);
    if (all_are(tup, ndarray, names::MVar, names::MLinExpr, names::MQuadExpr, names::MNLExpr))
        return stack_nonlinear(np, numpyfunc, tup);
    raise(PyExc_ValueError, "Invalid types for array manipulation routine");
}

constexpr const char* kVstackDoc = R"(ROUTINE:
  vstack(tup)

PURPOSE:
  Stack matrix objects on top of each other, as numpy.vstack does.

ARGUMENTS:
  tup: a sequence of matrix-friendly objects: MVar, MLinExpr, MQuadExpr, MNLExpr
    and numpy.ndarray in any mixture, or constraint handles of one class.

RETURN VALUE:
  An object of the narrowest class that can hold all of them; arrays alone give
  an MLinExpr. ValueError for other operands and for shapes that don't fit.

EXAMPLE:
  X = model.addMVar((n, k))
  Y = model.addMVar((m, k))
  tv.vstack((X, Y))   # MVar of shape (n+m, k)

NOTES:
  The operands are left as they are; the result shares variables and
  constraints with them, but no expression.)";

nb::object vstack(nb::handle tup) {
    nb::object np = import_numpy();
    return names::_apply_array_manipulation_routine()(nb::getattr(np, "vstack"), tup);
}

constexpr const char* kHstackDoc = R"(ROUTINE:
  hstack(tup)

PURPOSE:
  Stack matrix objects side by side, as numpy.hstack does.

ARGUMENTS:
  tup: a sequence of matrix-friendly objects: MVar, MLinExpr, MQuadExpr, MNLExpr
    and numpy.ndarray in any mixture, or constraint handles of one class.

RETURN VALUE:
  An object of the narrowest class that can hold all of them; arrays alone give
  an MLinExpr. ValueError for other operands and for shapes that don't fit.

EXAMPLE:
  X = model.addMVar((k, n))
  Y = model.addMVar((k, m))
  tv.hstack((X, Y))   # MVar of shape (k, n+m)

NOTES:
  The operands are left as they are; the result shares variables and
  constraints with them, but no expression.)";

nb::object hstack(nb::handle tup) {
    nb::object np = import_numpy();
    return names::_apply_array_manipulation_routine()(nb::getattr(np, "hstack"), tup);
}

constexpr const char* kConcatenateDoc = R"(ROUTINE:
  concatenate(tup, axis=0)

PURPOSE:
  Join matrix objects along an axis that they have, as numpy.concatenate does.

ARGUMENTS:
  tup: a sequence of matrix-friendly objects: MVar, MLinExpr, MQuadExpr, MNLExpr
    and numpy.ndarray in any mixture, or constraint handles of one class.
  axis: the axis; None joins the elements of all, in C order.

RETURN VALUE:
  An object of the narrowest class that can hold all of them; arrays alone give
  an MLinExpr. ValueError for other operands and for shapes that don't fit.

EXAMPLE:
  X = model.addMVar((k, n))
  Y = model.addMVar((k, m))
  tv.concatenate((X, Y), axis=1)   # MVar of shape (k, n+m)

NOTES:
  The operands are left as they are; the result shares variables and
  constraints with them, but no expression.)";

nb::object concatenate(nb::handle tup, nb::handle axis) {
    nb::object functools = nb::module_::import_("functools");
    nb::object np = import_numpy();
    nb::object numpyfunc =
        functools.attr("partial")(nb::getattr(np, "concatenate"), nb::arg("axis") = axis);
    return names::_apply_array_manipulation_routine()(numpyfunc, tup);
}

}  // namespace

void define_mfunctions(nb::module_ module) {
    add_function<&_copy_learr>(module, "_copy_learr(obj)");
    add_function<&_copy_learr_qearr>(module, "_copy_learr_qearr(obj)");
    add_function<&_apply_array_manipulation_routine>(
        module, "_apply_array_manipulation_routine(numpyfunc, tup)");
    add_function<&vstack>(module, "vstack(tup)", kVstackDoc);
    add_function<&hstack>(module, "hstack(tup)", kHstackDoc);
    add_function<&concatenate>(module, "concatenate(tup, axis=0)", kConcatenateDoc);
}

}  // namespace taviropy
