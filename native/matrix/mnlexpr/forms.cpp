// The one form of an MNLExpr, its shape, and what its files do with elements and operands.

#include "mnlexpr/mnlexpr.hpp"
#include "support/imports.hpp"
#include "support/names.hpp"
#include "support/operators.hpp"

namespace taviropy::mnlexpr {

PyObject* root_name() {
    static PyObject* name = PyUnicode_InternFromString("_root");
    return name;
}

nb::object make(nb::handle nlearr) { return names::MNLExpr()(nlearr); }

nb::object trees_of(nb::handle value) {
    return names::MNLExpr().attr("_coerce_to_exprtree_array")(value);
}

bool is_array_operand(nb::handle np, nb::handle value) {
    return is_ndarray(np, value) ||
           is_a(value, names::MVar, names::MLinExpr, names::MQuadExpr, names::MNLExpr);
}

Trees take_trees(nb::handle np, nb::handle value) {
    Trees trees;
    if (is_array_operand(np, value))
        trees.array = trees_of(value);
    else if (is_scalar_expression(value) || is_scalar(value))
        trees.node = names::NLExpr().attr("_coerce_to_exprtree")(value);
    return trees;
}

static nb::object init(nb::handle self, nb::handle nlearr) {
    nb::setattr(self, "_nlearr", nlearr);
    return nb::none();
}

static nb::object shape(nb::handle self) { return self.attr("_nlearr").attr("shape"); }

static nb::object size(nb::handle self) { return self.attr("_nlearr").attr("size"); }

static nb::object ndim(nb::handle self) { return self.attr("_nlearr").attr("ndim"); }

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

void add_form_methods(ClassBody& body) {
    body.method<&init>("__init__(self, nlearr)")
        .property<&shape>("shape", kShapeDoc)
        .property<&size>("size", kSizeDoc)
        .property<&ndim>("ndim", kNdimDoc);
}

}  // namespace taviropy::mnlexpr
