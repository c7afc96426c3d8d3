// MNLExpr: text, shape, indexing and assignment.

#include "mnlexpr/methods.hpp"
#include "mnlexpr/trees.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"
#include "support/printing.hpp"

namespace taviropy::mnlexpr {

static nb::object repr(nb::handle self) {
    nb::object np = import_numpy();
    nb::object nlearr = self.attr("_nlearr");
    std::string text = "<MNLExpr " + text_of(nlearr.attr("shape")) + ">\n" + array_text(np, nlearr);
    return nb::str(text.c_str(), text.size());
}

static nb::object shape(nb::handle self) { return self.attr("_nlearr").attr("shape"); }

static nb::object size(nb::handle self) { return self.attr("_nlearr").attr("size"); }

static nb::object ndim(nb::handle self) { return self.attr("_nlearr").attr("ndim"); }

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
    Operand operand = take_operand(np, value);
    if (operand.unknown())
        raise(PyExc_ValueError, "Cannot assign " + format_of(value) + " to MNLExpr");
    walk_with_trees(sub, operand, [](nb::handle nle, nb::handle tree) { set_root(nle, tree); });
    return nb::none();
}

static nb::object item(nb::handle self) {
    return self.attr("_nlearr").attr("item")().attr("copy")();
}

static constexpr const char* kShapeDoc = R"(PROPERTY:
  shape

PURPOSE:
  The shape of this MNLExpr, a tuple of int.

RETURN VALUE:
  The lengths of the dimensions, () for a single expression without dimensions.

EXAMPLE:
  nl = x.nl
  print(nl.shape))";

static constexpr const char* kSizeDoc = R"(PROPERTY:
  size

PURPOSE:
  The number of expressions in this MNLExpr, an int.

RETURN VALUE:
  The product of the lengths of the dimensions.

EXAMPLE:
  nl = x.nl
  print(nl.size))";

static constexpr const char* kNdimDoc = R"(PROPERTY:
  ndim

PURPOSE:
  The number of dimensions of this MNLExpr, an int.

RETURN VALUE:
  The length of the shape.

EXAMPLE:
  nl = x.nl
  print(nl.ndim))";

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
    body.method<&repr>("__repr__(self)")
        .property<&shape>("shape", kShapeDoc)
        .property<&size>("size", kSizeDoc)
        .property<&ndim>("ndim", kNdimDoc)
        .method<&getitem>("__getitem__(self, obj)",
                          "The elements under a NumPy key, always an MNLExpr. A slice shares its "
                          "elements with this object; an index of integer or boolean arrays copies "
                          "them.")
        .method<&setitem>(
            "__setitem__(self, obj, value)",
            "Replaces the trees of the elements under a NumPy key. The elements stay the "
            "same objects, and the value must broadcast to their shape.")
        .method<&item>("item(self)", kItemDoc);
}

}  // namespace taviropy::mnlexpr
