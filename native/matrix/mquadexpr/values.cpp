// MQuadExpr: printing, copies, sums, values, and the comparisons that make constraints.

#include <algorithm>

#include "core_interface/scalars.hpp"
#include "mquadexpr/mquadexpr.hpp"
#include "support/axes.hpp"
#include "support/errors.hpp"
#include "support/imports.hpp"
#include "support/object_arrays.hpp"
#include "support/printing.hpp"
#include "support/solution_values.hpp"

namespace taviropy::mquadexpr {

using namespace nb::literals;

namespace {

/// Calls a method without arguments on every element.
void for_each(const WalkFlags& flags, nb::handle qearr, const char* method) {
    nb::object name = checked(PyUnicode_InternFromString(method));
    walk<1>(flags, {qearr}, [&](const auto& chunks, Py_ssize_t size) {
        for (Py_ssize_t k = 0; k < size; ++k) {
            nb::object element = chunks[0].element(k);
            checked(PyObject_CallMethodNoArgs(element.ptr(), name.ptr()));
        }
    });
}

nb::object comparison(nb::handle self, const char* sense, nb::handle rhs) {
    return names::TempConstr()(self, nb::getattr(names::TVO(), sense), rhs);
}

}  // namespace

static nb::object repr(nb::handle self) {
    auto np = import_numpy();
    nb::object target = nb::borrow(self);
    std::string form;  // told by blanks: none for full, then one, two and three
    if (is_compact(self)) {
        form.assign(1 + std::min<std::size_t>(nb::len(parts_of(self)), 2), ' ');
        target = _to_full(self);
    }
    nb::object ndle = target.attr("_ndle");
    if (truth(ndle.attr("_is_compact"))) ndle = ndle.attr("_to_full")();
    nb::object elements = np.attr("asarray")(target.attr("_qearr") + ndle.attr("_learr"));
    std::string text = "<MQuadExpr " + text_of(target.attr("shape")) + form + ">\n" +
                       array_text(np, elements, /*lead=*/" ");
    return nb::str(text.c_str(), text.size());
}

static nb::object _copy_compact(nb::handle self) {
    nb::object quadparts = _copy_quadparts(self);
    return new_compact(quadparts, self.attr("_ndle").attr("copy")());
}

/// The merged part with arrays of its own, in a new list; empty without parts.
nb::object _copy_quadparts(nb::handle self) {
    nb::list copies;
    if (nb::len(parts_of(self)) == 0) return copies;
    _concat_quadparts(self);
    copies.append(QuadPart(nb::object(parts_of(self)[0])).copied());
    return copies;
}

static nb::object _copy_full(nb::handle self) {
    static const WalkFlags flags = {"refs_ok external_loop buffered zerosize_ok",
                                    {"readwrite no_broadcast", "writeonly no_broadcast"},
                                    nullptr};
    auto np = import_numpy();
    nb::object ndle = self.attr("_ndle").attr("copy")();
    nb::object qearr = self.attr("_qearr"), copies = empty_object_array(np, self.attr("shape"));
    GcPause pause;
    walk<2>(flags, {qearr, copies}, [](const auto& chunks, Py_ssize_t size) {
        for (Py_ssize_t k = 0; k < size; ++k)
            chunks[1].store(k, chunks[0].element(k).attr("copy")());
    });
    return new_full(copies, ndle);
}

static nb::object copy(nb::handle self) {
    return is_compact(self) ? _copy_compact(self) : _copy_full(self);
}

/// Merges equal terms, in place.
nb::object _normalize(nb::handle self) {
    static const WalkFlags flags = {"buffered refs_ok external_loop", {"readwrite"}, nullptr};
    self.attr("_ndle").attr("_normalize")();
    if (!is_compact(self)) for_each(flags, self.attr("_qearr"), "_normalize");
    return nb::none();
}

/// Afterwards the term lists of each element of a full expression hold all its terms.
static nb::object _flatten(nb::handle self) {
    static const WalkFlags flags = {"refs_ok external_loop zerosize_ok", {"readwrite"}, nullptr};
    if (!is_compact(self)) for_each(flags, self.attr("_qearr"), "_flatten");
    return nb::none();
}

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
        nb::object row = checked(PyNumber_MatrixMultiply(left.ptr(), part.Q.ptr()));
        nb::object right = part.y.attr("X");
        result += checked(PyNumber_MatrixMultiply(row.ptr(), right.ptr()));
    }
    return result;
}

static nb::object _getConstant(nb::handle self) { return self.attr("_ndle").attr("getConstant")(); }

static nb::object clear(nb::handle self) {
    self.attr("_ndle").attr("clear")();
    if (is_compact(self))
        self.attr("_quadparts") = nb::list();
    else
        _clear_quad_array(self.attr("_qearr"));
    return nb::none();
}

nb::object _clear_quad_array(nb::handle qearr) {
    static const WalkFlags flags = {"refs_ok external_loop", {"readwrite"}, nullptr};
    for_each(flags, qearr, "clear");
    return nb::none();
}

static nb::object le(nb::handle self, nb::handle rhs) {
    return comparison(self, "LESS_EQUAL", rhs);
}

static nb::object ge(nb::handle self, nb::handle rhs) {
    return comparison(self, "GREATER_EQUAL", rhs);
}

static nb::object eq(nb::handle self, nb::handle rhs) { return comparison(self, "EQUAL", rhs); }

static nb::object ne(nb::handle, nb::handle) {
    raise_taviro_error(0, "Inequality constraints not supported");
}

static constexpr const char* kCopyDoc = R"(
ROUTINE:
  copy()

PURPOSE:
  Create a copy of this expression.

ARGUMENTS:
  None

RETURN VALUE:
  A new MQuadExpr object of the same shape. Changing it leaves this expression as it is.

EXAMPLE:
  orig = x @ Q @ x
  copy = orig.copy()
  copy += 2.0

NOTES:
  None
)";

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

static constexpr const char* kClearDoc = R"(
ROUTINE:
  clear()

PURPOSE:
  Reset this expression to all-zero. The shape stays.

ARGUMENTS:
  None

RETURN VALUE:
  None

EXAMPLE:
  expr.clear()

NOTES:
  Afterwards all entries are constant 0.0. An expression without elements, such as one of shape
  (0, 3, 4), may raise NumPy's ValueError.
)";

void add_value_methods(ClassBody& body) {
    body.method<&repr>("__repr__(self)")
        .method<&copy>("copy(self)", kCopyDoc)
        .method<&_copy_compact>("_copy_compact(self)")
        .method<&_copy_full>("_copy_full(self)")
        .method<&_copy_quadparts>("_copy_quadparts(self)")
        .method<&_normalize>("_normalize(self)")
        .method<&_flatten>("_flatten(self)")
        .method<&sum>("sum(self, axis=None)", kSumDoc)
        .method<&getValue>("getValue(self)", kGetValueDoc)
        .method<&_getConstant>("_getConstant(self)")
        .method<&clear>("clear(self)", kClearDoc)
        .static_method<&_clear_quad_array>("_clear_quad_array(qearr)")
        .method<&le>("__le__(self, rhs)")
        .method<&ge>("__ge__(self, rhs)")
        .method<&eq>("__eq__(self, rhs)")
        .method<&ne>("__ne__(self, rhs)");
}

}  // namespace taviropy::mquadexpr
