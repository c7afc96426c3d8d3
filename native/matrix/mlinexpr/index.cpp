// Reading and assigning elements of an MLinExpr.
//
// Assignment never replaces an object of the array: it changes the selected LinExpr objects in
// place. So what a NumPy index gives serves as the target, be it a view or a copy of the
// references.

#include "core_interface/scalars.hpp"
#include "mlinexpr/mlinexpr.hpp"
#include "support/imports.hpp"
#include "support/object_arrays.hpp"

namespace taviropy::mlinexpr {

using namespace nb::literals;

static constexpr const char* kItemDoc = R"(ROUTINE:
    item()

PURPOSE:
    Give the sole element of an expression of size 1.

ARGUMENTS:
    None.

RETURN VALUE:
    A LinExpr, a copy: changing it leaves this expression as it is.

EXAMPLE:
    le = (2 * x + 1).sum().item()

NOTES:
    An expression of any other size raises a ValueError.
)";

nb::object item(nb::handle self) {
    if (is_compact(self)) return item(_to_full(self));
    nb::object element = learr_of(self).attr("item")();
    return element.attr("copy")();
}

static constexpr const char* kGetitemDoc = R"(ROUTINE:
    __getitem__(obj)

PURPOSE:
    Select elements, with any index that NumPy knows.

ARGUMENTS:
    obj (int, slice, Ellipsis, None, array of int or bool, or a tuple of these):
        The index.

RETURN VALUE:
    An MLinExpr of the shape that NumPy gives to the selection, also for a
    single element. Integers and slices give a view: changing it in place
    changes this expression. Arrays of indices or booleans give a copy.

EXAMPLE:
    first = mle[0]
    tail = mle[1:]

NOTES:
    An index out of range raises NumPy's IndexError.
)";

static nb::object getitem(nb::handle self, nb::handle key) {
    nb::object np = import_numpy();
    _convert_to_full(self);
    nb::object sub = learr_of(self)[key];
    if (is_linexpr(sub)) return new_full(array_of_one(np, sub));
    nb::object result = new_full(sub);
    // An array of its own means that NumPy has gathered the references, so the elements follow.
    if (sub.attr("base").is_none()) return copy_of(result);
    return result;
}

// ---- Assignment -----------------------------------------------------------------------------

static constexpr const char* kSetitemDoc = R"(ROUTINE:
    __setitem__(obj, value)

PURPOSE:
    Assign to the elements that an index selects.

ARGUMENTS:
    obj (int, slice, Ellipsis, None, array of int or bool, or a tuple of these):
        The index.
    value (number, Var, LinExpr, ndarray, list of numbers, MVar or MLinExpr):
        What they are to be; arrays broadcast to the shape of the selection.

EXAMPLE:
    mle[0] = 2 * x[0] + 1
    mle[1:] = 0.0

NOTES:
    The values are copied. Values that don't broadcast, and a selection without
    elements, raise NumPy's ValueError; so does a value of another type.
)";

/// np.asarray(selected), where a single element gives a 0-d array around it.
static nb::object selected_array(nb::handle np, nb::handle self, nb::handle key) {
    nb::object selected = learr_of(self)[key];
    return is_linexpr(selected) ? array_of_one(np, selected) : selected;
}

constexpr WalkFlags kSetLinexprFlags = {flag::buffered, {flag::readwrite}};

static nb::object _setitem_linexpr(nb::handle self, nb::handle key, nb::handle value) {
    nb::object np = import_numpy();
    LinExprObject* source = as_linexpr(value.ptr());
    const double constant = source->constant;
    nb::object coeffs = nb::borrow(source->coeffs), vars = nb::borrow(source->vars);
    nb::object cont_ref = nb::borrow(source->cont_ref);
    nb::object selected = np.attr("asarray")(selected_array(np, self, key));
    walk<1>(kSetLinexprFlags, {selected}, [&](const auto& chunks, Py_ssize_t k) {
        nb::object element = chunks[0].element(k);
        LinExprObject* le = as_linexpr(element.ptr());
        if (le == source) return;
        le->constant = constant;
        set_field(le->vars, copy_list(vars.ptr()));
        set_field(le->coeffs, copy_list(coeffs.ptr()));
        set_field(le->cont_ref, cont_ref);
    });
    return nb::none();
}

constexpr WalkFlags kSetMlinexprFlags = {
    flag::buffered, {flag::readwrite, flag::readonly | flag::copy}, "OO"};

/// Element by element what a full expression holds, which shares nothing with the target.
static void assign_elements(nb::handle selected, nb::handle value) {
    walk<2>(kSetMlinexprFlags, {selected, learr_of(value)}, [](const auto& chunks, Py_ssize_t k) {
        nb::object left = chunks[0].element(k), right = chunks[1].element(k);
        LinExprObject* lhs = as_linexpr(left.ptr());
        LinExprObject* rhs = as_linexpr(right.ptr());
        if (!is_plain_linexpr(right.ptr())) right.attr("_flatten")();
        set_field(lhs->coeffs, copy_list(rhs->coeffs));
        set_field(lhs->vars, copy_list(rhs->vars));
        lhs->constant = rhs->constant;
    });
}

static nb::object _setitem_mlinexpr(nb::handle self, nb::handle key, nb::handle value) {
    nb::object np = import_numpy();
    nb::object selected = selected_array(np, self, key);
    // `mle[i] += y` assigns what it has changed in place back to where it came from.
    if (truth(names::_all_refs_match()(np.attr("asarray")(selected), learr_of(value))))
        return nb::none();
    assign_elements(selected, copy_of(value));  // the two sides may overlap
    return nb::none();
}

static nb::object _setitem_iaddable(nb::handle self, nb::handle key, nb::handle value) {
    nb::object ellipsis = nb::borrow(Py_Ellipsis);
    nb::object array_key = PyTuple_CheckExact(key.ptr()) ? key + nb::make_tuple(ellipsis)
                                                         : nb::make_tuple(key, ellipsis);
    nb::object selected = new_full(learr_of(self)[array_key]);
    clear(selected);
    selected += value;
    return nb::none();
}

/// An array of numbers from anything that NumPy can make one of.
static nb::object numbers_from(nb::handle np, nb::handle value) {
    try {
        return np.attr("asarray")(value, "dtype"_a = nb::getattr(np, "float64"));
    } catch (const nb::python_error&) {
    }
    raise(PyExc_ValueError, "Cannot assign " + text_of(value.type()) + " to MLinExpr");
}

static nb::object setitem(nb::handle self, nb::handle key, nb::handle value) {
    nb::object np = import_numpy();
    GcPause pause;
    _convert_to_full(self);
    if (is_linexpr(value)) return _setitem_linexpr(self, key, value);
    if (is_a(value, names::Var)) return _setitem_linexpr(self, key, new_linexpr(value));
    if (is_a(value, names::MVar) || is_ndarray(np, value))
        return _setitem_iaddable(self, key, value);
    if (is_a(value, names::MLinExpr)) {
        if (!is_compact(value)) return _setitem_mlinexpr(self, key, value);
        nb::object full = copy_of(value);
        _convert_to_full(full);
        assign_elements(selected_array(np, self, key), full);
        return nb::none();
    }
    if (is_scalar(value)) return _setitem_iaddable(self, key, value);
    return _setitem_iaddable(self, key, numbers_from(np, value));
}

void add_index_methods(ClassBody& body) {
    body.method<&item>("item(self)", kItemDoc)
        .method<&getitem>("__getitem__(self, obj)", kGetitemDoc)
        .method<&setitem>("__setitem__(self, obj, value)", kSetitemDoc)
        .method<&_setitem_linexpr>("_setitem_linexpr(self, obj, value)",
                                   R"(Assigns copies of one LinExpr to all selected elements.)")
        .method<&_setitem_mlinexpr>("_setitem_mlinexpr(self, obj, value)",
                                    R"(Assigns copies of the elements of a full MLinExpr.)")
        .method<&_setitem_iaddable>("_setitem_iaddable(self, obj, value)",
                                    R"(Clears the selected elements and adds the value to them.)");
}

}  // namespace taviropy::mlinexpr
