// Selecting the variables of an MVar, and laying them out in another shape.

#include "mvar/mvar.hpp"
#include "support/handles.hpp"

namespace taviropy::mvar {

using namespace nb::literals;

using Methods = HandleMethods<kMVar>;

namespace {

constexpr const char* kItemDoc = R"(ROUTINE:
  item()

PURPOSE:
  Give the variable of an MVar that has just one.

ARGUMENTS:
  None.

RETURN VALUE:
  A Var.

EXAMPLE:
  var = x[0, 1].item()

NOTES:
  An MVar of any other size raises a ValueError.)";

constexpr const char* kTolistDoc = R"(ROUTINE:
  tolist()

PURPOSE:
  Give the variables as a list.

ARGUMENTS:
  None.

RETURN VALUE:
  A list of Var objects, nested as the shape says; for a 0-d MVar the Var.

EXAMPLE:
  for var in x.tolist():
      print(var))";

nb::object getitem(nb::handle self, nb::handle obj) {
    return new_mvar(handles::subarray(kMVar, self, obj));
}

constexpr const char* kDiagonalDoc = R"(ROUTINE:
  diagonal(offset=0, axis1=0, axis2=1)

PURPOSE:
  Give the variables on a diagonal.

ARGUMENTS:
  offset: 0 for the main diagonal, above 0 for one above it, below 0 for one
    below it.
  axis1, axis2: the axes of the matrices, for more than two dimensions.

RETURN VALUE:
  An MVar with the diagonal as its last axis in place of the two. ValueError
  where there are fewer than two axes, or no such ones.

EXAMPLE:
  x.diagonal()
  x.diagonal(1)           # next above the main diagonal
  x[:, ::-1].diagonal()   # the anti-diagonal)";

nb::object diagonal(nb::handle self, nb::handle offset, nb::handle axis1, nb::handle axis2) {
    return new_mvar(self.attr("_vararr").attr("diagonal")(offset, axis1, axis2));
}

constexpr const char* kTransposeDoc = R"(ROUTINE:
  transpose()

PURPOSE:
  Reverse the order of the axes.

ARGUMENTS:
  None.

RETURN VALUE:
  An MVar of the reversed shape, on the same variables.

EXAMPLE:
  y = x.transpose()

NOTES:
  A 1-D MVar has one axis only, so this simply yields a copy.)";

nb::object transpose(nb::handle self) { return new_mvar(self.attr("_vararr").attr("transpose")()); }

constexpr const char* kTDoc = R"(PROPERTY:
  T

PURPOSE:
  Reverse the order of the axes; the same as transpose().

RETURN VALUE:
  An MVar of the reversed shape, on the same variables.

EXAMPLE:
  y = x.T)";

nb::object T(nb::handle self) { return self.attr("transpose")(); }

constexpr const char* kReshapeDoc = R"(ROUTINE:
  reshape(*shape, order='C')

PURPOSE:
  Arrange the variables in another shape.

ARGUMENTS:
  shape: the new shape, as integers or as one tuple. One entry may be -1, which
    stands for what is left.
  order: 'C' reads and places the variables with the last axis moving fastest,
    'F' with the first.

RETURN VALUE:
  An MVar of that shape. ValueError where the sizes differ.

EXAMPLE:
  y = x.reshape(2, 3)
  z = x.reshape(-1, order='F'))";

nb::object reshape(nb::handle self, nb::handle shape, nb::handle order) {
    nb::object function = self.attr("_vararr").attr("reshape");
    return new_mvar(function(*nb::borrow<nb::args>(shape), "order"_a = order));
}

nb::object _squeeze(nb::handle self, nb::handle axis) {
    return new_mvar(self.attr("_vararr").attr("squeeze")("axis"_a = axis));
}

}  // namespace

void add_index_methods(ClassBody& body) {
    body.method<&Methods::item>("item(self)", kItemDoc)
        .method<&Methods::tolist>("tolist(self)", kTolistDoc)
        .method<&getitem>("__getitem__(self, obj)")
        .method<&diagonal>("diagonal(self, offset=0, axis1=0, axis2=1)", kDiagonalDoc)
        .method<&transpose>("transpose(self)", kTransposeDoc)
        .property<&T>("T", kTDoc)
        .method<&reshape>("reshape(self, *shape, order='C')", kReshapeDoc)
        .method<&_squeeze>("_squeeze(self, axis=None)");
}

}  // namespace taviropy::mvar
