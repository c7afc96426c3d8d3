// Reading and assigning elements of an MNLExpr.

#include "mnlexpr/mnlexpr.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"

namespace taviropy::mnlexpr {

static nb::object getitem(nb::handle self, nb::handle obj) {
    nb::object np = import_numpy();
    nb::object sub = checked(PyObject_GetItem(self.attr("_nlearr").ptr(), obj.ptr()));
    nb::object nlexpr = names::NLExpr();
    if (is_instance(sub, nlexpr)) return make(array_of_one(np, sub));
    // A new array holds the elements of the old one: they are copied, so that in-place changes of
    // the result don't reach `self`. A view shares them.
    if (nb::hasattr(sub, "base") && sub.attr("base").is_none()) {
        nb::object copy = nlexpr.attr("copy");
        sub = vectorize(np, [&](nb::handle nle) { return call(copy, nle); }, sub);
    }
    return make(sub);
}

static nb::object setitem(nb::handle self, nb::handle obj, nb::handle value) {
    nb::object np = import_numpy();
    nb::object sub = checked(PyObject_GetItem(self.attr("_nlearr").ptr(), obj.ptr()));
    Trees trees = take_trees(np, value);
    if (trees.unknown())
        raise(PyExc_ValueError, "Cannot assign " + format_of(value) + " to MNLExpr");
    walk_with_trees(sub, trees, [](nb::handle nle, nb::handle tree) { set_root(nle, tree); });
    return nb::none();
}

static nb::object item(nb::handle self) {
    return self.attr("_nlearr").attr("item")().attr("copy")();
}

static constexpr const char* kItemDoc = R"(ROUTINE:
  item()

PURPOSE:
  Retrieve the single expression of an MNLExpr.

ARGUMENTS:
  None.

RETURN VALUE:
  NLExpr: a private copy of the sole element, so changing it in place leaves this MNLExpr alone.

EXAMPLE:
  nl = x ** 3
  nle = nl[0].item()

NOTES:
  Raises ValueError if this MNLExpr holds none or more than one expression.)";

void add_index_methods(ClassBody& body) {
    body.method<&getitem>(
            "__getitem__(self, obj)",
            R"(The elements under a NumPy key, always an MNLExpr. A slice shares its elements with
this object; an index of integer or boolean arrays copies them.)")
        .method<&setitem>(
            "__setitem__(self, obj, value)",
            R"(Replaces the trees of the elements under a NumPy key. The elements stay the same
objects, and the value must broadcast to their shape.)")
        .method<&item>("item(self)", kItemDoc);
}

}  // namespace taviropy::mnlexpr
