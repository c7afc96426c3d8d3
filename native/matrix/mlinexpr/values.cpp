// Printing, resetting, copying, summing and evaluating an MLinExpr, and what makes constraints of
// it.

#include "core_interface/scalars.hpp"
#include "mlinexpr/mlinexpr.hpp"
#include "support/axes.hpp"
#include "support/imports.hpp"
#include "support/object_arrays.hpp"
#include "support/solution_values.hpp"
#include "support/sparse.hpp"
#include "support/vectorize.hpp"

namespace taviropy::mlinexpr {

using namespace nb::literals;

// ---- Printing -------------------------------------------------------------------------------

/// repr(learr) with a blank before the text of each element, less its `dtype=object`.
static nb::object elements_text(nb::handle learr) {
    nb::object np = import_numpy();
    nb::dict formatter;
    formatter["object"] = nb::getattr(nb::str(" {!s}"), "format");
    nb::object options = np.attr("printoptions")("formatter"_a = formatter);
    options.attr("__enter__")();
    nb::object text = nb::steal(PyObject_Repr(learr.ptr()));
    {
        nb::error_scope keep;  // leaving must not see, nor lose, an exception of repr
        options.attr("__exit__")(nb::none(), nb::none(), nb::none());
    }
    if (!text.is_valid()) throw nb::python_error();
    nb::object last = text.attr("rfind")(",");
    nb::object kept = text[nb::slice(nb::none(), last, nb::none())];
    return kept + nb::str(")");
}

static nb::object repr(nb::handle self) {
    nb::object target = nb::borrow(self);
    std::string auxinfo;
    if (is_compact(self)) {
        std::size_t parts = nb::len(parts_of(self));
        auxinfo.assign(1 + (parts < 2 ? parts : 2), ' ');
        target = _to_full(self);
    }
    nb::object elements = elements_text(learr_of(target));
    return nb::str(("<MLinExpr " + text_of(shape_of(self)) + auxinfo + ">\n").c_str()) + elements;
}

// ---- Resetting ------------------------------------------------------------------------------

static constexpr const char* kClearDoc = R"(ROUTINE:
    clear()

PURPOSE:
    Reset this expression to all zero, in place. Its shape stays.

ARGUMENTS:
    None.

RETURN VALUE:
    None.

EXAMPLE:
    mle.clear()

NOTES:
    Views of this expression are reset with it. An expression without elements,
    such as one of shape (0, 3, 4), may raise NumPy's ValueError.
)";

static nb::object _clear_compact(nb::handle self) {
    nb::setattr(self, "_matmulparts", nb::list());
    const_of(self).attr("fill")(0.0);
    return nb::none();
}

static const WalkFlags kClearFlags = {"refs_ok external_loop", {"readwrite"}, nullptr};

static nb::object _clear_full(nb::handle self) {
    walk<1>(kClearFlags, {learr_of(self)}, [](const auto& chunks, Py_ssize_t size) {
        for (Py_ssize_t k = 0; k < size; ++k) {
            nb::object le = chunks[0].element(k);
            as_linexpr(le.ptr());
            le.attr("clear")();
        }
    });
    return nb::none();
}

nb::object clear(nb::handle self) {
    return is_compact(self) ? _clear_compact(self) : _clear_full(self);
}

// ---- Copying --------------------------------------------------------------------------------

static constexpr const char* kCopyDoc = R"(ROUTINE:
    copy()

PURPOSE:
    Copy an expression.

ARGUMENTS:
    None.

RETURN VALUE:
    A new MLinExpr of the same shape; changing it leaves this expression as it is.

EXAMPLE:
    other = mle.copy()
    other += 1
)";

static nb::object _copy_compact(nb::handle self) {
    nb::list parts;
    Part part = merged_part(self);
    if (part.A.is_valid())
        parts.append(nb::make_tuple(sparse::copy(part.A), part.x.attr("copy")()));
    return new_compact(parts, const_of(self).attr("copy")());
}

static const WalkFlags kCopyFlags = {"refs_ok external_loop buffered zerosize_ok",
                                     {"readwrite no_broadcast", "writeonly no_broadcast"},
                                     nullptr};

static nb::object copy_element(nb::handle element) {
    LinExprObject* le = as_linexpr(element.ptr());
    if (!is_plain_linexpr(element.ptr())) return element.attr("copy")();
    return make_linexpr(le->constant, copy_list(le->coeffs), copy_list(le->vars));
}

static nb::object _copy_full(nb::handle self) {
    nb::object np = import_numpy();
    _convert_to_full(self);
    nb::object learr = learr_of(self);
    nb::object copied = empty_object_array(np, learr.attr("shape"));
    GcPause pause;
    walk<2>(kCopyFlags, {learr, copied}, [](const auto& chunks, Py_ssize_t size) {
        for (Py_ssize_t k = 0; k < size; ++k)
            chunks[1].store(k, copy_element(chunks[0].element(k)));
    });
    return new_full(copied);
}

nb::object copy(nb::handle self) {
    return is_compact(self) && keeps_compact(self) ? _copy_compact(self) : _copy_full(self);
}

nb::object copy_of(nb::handle self) {
    return self.type().is(names::MLinExpr()) ? copy(self) : nb::object(self.attr("copy")());
}

// ---- Passes over the elements ---------------------------------------------------------------

static const WalkFlags kFlattenFlags = {
    "refs_ok external_loop zerosize_ok", {"readwrite"}, nullptr};

nb::object _flatten(nb::handle self) {
    if (is_compact(self)) return nb::none();
    walk<1>(kFlattenFlags, {learr_of(self)}, [](const auto& chunks, Py_ssize_t size) {
        for (Py_ssize_t k = 0; k < size; ++k) {
            if (is_plain_linexpr(chunks[0][k])) continue;
            nb::object le = chunks[0].element(k);
            as_linexpr(le.ptr());
            le.attr("_flatten")();
        }
    });
    return nb::none();
}

static const WalkFlags kNormalizeFlags = {"buffered refs_ok external_loop", {"readwrite"}, nullptr};

nb::object _normalize(nb::handle self) {
    if (is_compact(self)) return nb::none();
    walk<1>(kNormalizeFlags, {learr_of(self)}, [](const auto& chunks, Py_ssize_t size) {
        for (Py_ssize_t k = 0; k < size; ++k) {
            nb::object le = chunks[0].element(k);
            as_linexpr(le.ptr());
            le.attr("_normalize")();
        }
    });
    return nb::none();
}

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

static const WalkFlags kReadElements = {
    "refs_ok external_loop buffered zerosize_ok", {"readonly", "writeonly"}, "Od"};

/// An array of a double for each element of an object array: `body(element)`.
template <class Body>
static nb::object map_to_doubles(nb::handle np, nb::handle learr, Body&& body) {
    nb::object result = np.attr("empty")(nb::getattr(learr, "shape"));
    walk<2>(kReadElements, {learr, result}, [&](const auto& chunks, Py_ssize_t size) {
        for (Py_ssize_t k = 0; k < size; ++k) chunks[1].number(k) = body(chunks[0].element(k));
    });
    return result;
}

nb::object getConstant(nb::handle self) {
    nb::object np = import_numpy();
    if (is_compact(self)) return const_of(self).attr("copy")();
    refuse_empty(learr_of(self));
    return map_to_doubles(np, learr_of(self), [](nb::object element) {
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
        nb::object products =
            checked(PyNumber_MatrixMultiply(part.A.ptr(), nb::object(part.x.attr("X")).ptr()));
        result += products.attr("reshape")(nb::getattr(result, "shape"));
    }
    return result;
}

// ---- Signs and comparisons ------------------------------------------------------------------

static nb::object pos(nb::handle self) { return copy_of(self); }

static nb::object neg(nb::handle self) { return self * nb::float_(-1.0); }

static nb::object le(nb::handle self, nb::handle rhs) {
    return names::TempConstr()(self, nb::getattr(names::TVO(), "LESS_EQUAL"), rhs);
}

static nb::object ge(nb::handle self, nb::handle rhs) {
    return names::TempConstr()(self, nb::getattr(names::TVO(), "GREATER_EQUAL"), rhs);
}

static nb::object eq(nb::handle self, nb::handle rhs) {
    return names::TempConstr()(self, nb::getattr(names::TVO(), "EQUAL"), rhs);
}

static nb::object ne(nb::handle, nb::handle) {
    raise_taviro_error(0, "Inequality constraints not supported");
}

void add_value_methods(ClassBody& body) {
    body.method<&repr>("__repr__(self)")
        .method<&clear>("clear(self)", kClearDoc)
        .method<&_clear_compact>("_clear_compact(self)")
        .method<&_clear_full>("_clear_full(self)")
        .method<&getConstant>("getConstant(self)", kGetConstantDoc)
        .method<&copy>("copy(self)", kCopyDoc)
        .method<&_copy_compact>("_copy_compact(self)")
        .method<&_copy_full>(
            "_copy_full(self)",
            "Copies element by element; converts this expression to the full form.")
        .method<&_flatten>("_flatten(self)", "Flattens each element of a full expression.")
        .method<&_normalize>(
            "_normalize(self)",
            "Merges the terms of one variable in each element of a full expression.")
        .method<&sum>("sum(self, axis=None)", kSumDoc)
        .method<&getValue>("getValue(self)", kGetValueDoc)
        .method<&pos>("__pos__(self)")
        .method<&neg>("__neg__(self)")
        .method<&le>("__le__(self, rhs)")
        .method<&ge>("__ge__(self, rhs)")
        .method<&eq>("__eq__(self, rhs)")
        .method<&ne>("__ne__(self, rhs)");
}

}  // namespace taviropy::mlinexpr
