// Reading and assigning elements of an MQuadExpr, which works on the full form.

#include "core_interface/scalars.hpp"
#include "mquadexpr/mquadexpr.hpp"
#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/object_arrays.hpp"

namespace taviropy::mquadexpr {

using namespace nb::literals;

static constexpr const char* kItemDoc = R"(
ROUTINE:
  item()

PURPOSE:
  Get a copy of the sole element of this expression.

ARGUMENTS:
  None

RETURN VALUE:
  A QuadExpr with the quadratic terms, the linear terms and the constant of the element. Changing it
  leaves this expression as it is.

EXAMPLE:
  qe = (x @ Q @ x + c @ x).item()

NOTES:
  An expression of any size but 1 is a ValueError.
)";

static nb::object item(nb::handle self) {
    if (is_compact(self)) return _to_full(self).attr("item")();
    nb::object quadratic = self.attr("_qearr").attr("item")();
    return quadratic + self.attr("_ndle").attr("item")();
}

static nb::object getitem(nb::handle self, nb::handle obj) {
    _convert_to_full(self);
    nb::object ndle = self.attr("_ndle")[obj];
    nb::object sub = self.attr("_qearr")[obj];
    if (is_quadexpr(sub)) return new_full(sub, ndle);
    nb::object result = new_full(sub, ndle);
    // An array that owns its memory came from advanced indexing: its slots refer to elements of
    // `self`, which the result must not change.
    nb::object base = nb::getattr(sub, "base", self);
    return base.is_none() ? result.attr("copy")() : result;
}

/// What is assigned has no quadratic terms, so the old ones go.
static nb::object _setitem_linear(nb::handle self, nb::handle obj, nb::handle value) {
    nb::object sub = self.attr("_qearr")[obj];
    if (is_quadexpr(sub))
        sub.attr("clear")();
    else
        _clear_quad_array(sub);
    self.attr("_ndle")[obj] = value;
    return nb::none();
}

/// The elements stay the same objects, so that views of `self` see the new terms.
static nb::object _setitem_mquadexpr(nb::handle self, nb::handle obj, nb::handle value) {
    constexpr WalkFlags flags = {
        flag::buffered, {flag::readwrite, flag::readonly | flag::copy}, "OO"};
    auto np = import_numpy();
    self.attr("_ndle")[obj] = nb::getattr(value, "_ndle");  // checks the shape as well
    nb::object old = np.attr("asarray")(nb::object(self.attr("_qearr")[obj]));
    if (truth(names::_all_refs_match()(old, nb::getattr(value, "_qearr")))) return nb::none();
    nb::object source = value.attr("copy")();  // the operands may overlap in part
    nb::object sub = self.attr("_qearr")[obj];
    if (is_quadexpr(sub)) sub = array_of_one(np, sub);
    walk<2>(flags, {sub, source.attr("_qearr")}, [](const auto& chunks, Py_ssize_t k) {
        nb::object from = chunks[1].element(k), to = chunks[0].element(k);
        from.attr("_flatten")();
        QuadExprObject *right = as_quadexpr(from.ptr()), *left = as_quadexpr(to.ptr());
        set_field(left->coeffs, copy_list(right->coeffs));
        set_field(left->vars1, copy_list(right->vars1));
        set_field(left->vars2, copy_list(right->vars2));
    });
    return nb::none();
}

/// The value as a float64 array.
static nb::object as_constant(nb::handle np, nb::handle value) {
    try {
        return np.attr("asarray")(value, "dtype"_a = nb::getattr(np, "float64"));
    } catch (nb::python_error& error) {
        if (!error.matches(PyExc_Exception)) throw;
    }
    raise(PyExc_ValueError, "Cannot assign " + format_of(value) + " to MQuadExpr");
}

static nb::object setitem(nb::handle self, nb::handle obj, nb::handle value) {
    auto np = import_numpy();
    _convert_to_full(self);
    if (is_a(value, names::Var) || is_linexpr(value) || is_a(value, names::MVar, names::MLinExpr) ||
        is_ndarray(np, value))
        return _setitem_linear(self, obj, value);
    if (is_quadexpr(value))
        return _setitem_mquadexpr(self, obj, names::MQuadExpr().attr("_from_quad_expr")(value));
    if (is_a(value, names::MQuadExpr)) return _setitem_mquadexpr(self, obj, value);
    if (is_scalar(value)) return _setitem_linear(self, obj, value);
    return _setitem_linear(self, obj, as_constant(np, value));
}

static constexpr const char* kGetitemDoc = R"(
ROUTINE:
  expr[key]

PURPOSE:
  Get elements of this expression.

ARGUMENTS:
  key: Any key that a NumPy array takes.

RETURN VALUE:
  An MQuadExpr object; 0-d where all axes are indexed. With integers and slices it is a view: changes
  of its elements show in this expression. With index arrays it is a copy.

EXAMPLE:
  first = expr[0]
  model.addConstr(expr[1:] <= 1)

NOTES:
  Bad keys raise the errors of NumPy's arrays.
)";

static constexpr const char* kSetitemDoc = R"(
ROUTINE:
  expr[key] = value

PURPOSE:
  Replace elements of this expression.

ARGUMENTS:
  key: Any key that a NumPy array takes.
  value: Number, array of numbers, Var, LinExpr, QuadExpr, MVar, MLinExpr or MQuadExpr, of a shape that
    broadcasts to that of expr[key].

RETURN VALUE:
  None

EXAMPLE:
  expr[0] = 1.0
  expr[1:] = x * x

NOTES:
  Anything else, sparse matrices included, is a ValueError.
)";

void add_index_methods(ClassBody& body) {
    body.method<&item>("item(self)", kItemDoc)
        .method<&getitem>("__getitem__(self, obj)", kGetitemDoc)
        .method<&setitem>("__setitem__(self, obj, value)", kSetitemDoc)
        .method<&_setitem_linear>("_setitem_linear(self, obj, value)")
        .method<&_setitem_mquadexpr>("_setitem_mquadexpr(self, obj, value)");
}

}  // namespace taviropy::mquadexpr
