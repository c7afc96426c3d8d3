// MConstr: a handle on an array of linear constraints.

#include "support/classes.hpp"
#include "support/handles.hpp"
#include "units.hpp"

namespace taviropy {

namespace {

using Methods = ConstraintMethods<kMConstr, names::MConstr>;

constexpr const char* kClassDoc = R"(Matrix constraint handle, acting as an array of Constr objects.

Users get such objects from Model.addConstr() for array-shaped linear
constraints, or make them by MConstr.fromlist(). They are indexed like a
numpy.ndarray. An attribute of the model is read and written for all
constraints at once, as an array of their shape: c.Dual, c.RHS = 1.0. On an
empty MConstr every attribute name reads as an empty array.)";

constexpr const char* kItemDoc = R"(ROUTINE:
  item()

PURPOSE:
  Give the constraint of an MConstr that has just one.

ARGUMENTS:
  None.

RETURN VALUE:
  A Constr. ValueError for any other size.

EXAMPLE:
  constr = c[0].item())";

constexpr const char* kTolistDoc = R"(ROUTINE:
  tolist()

PURPOSE:
  Give the constraints as a list.

ARGUMENTS:
  None.

RETURN VALUE:
  A list of Constr objects, nested as the shape says; for a 0-d MConstr the
  Constr.

EXAMPLE:
  for constr in c.tolist():
      print(constr))";

constexpr const char* kFromlistDoc = R"(ROUTINE:
  fromlist(constrlist)

PURPOSE:
  Make an MConstr of existing linear constraints.

ARGUMENTS:
  constrlist: a list of Constr objects, or nested lists of them.

RETURN VALUE:
  An MConstr, 1-D for a plain list. ValueError names an element that is no
  Constr.

EXAMPLE:
  c = MConstr.fromlist([c0, c1, c2]))";

constexpr const char* kGetAttrDoc = R"(ROUTINE:
  getAttr(attrname)

PURPOSE:
  Read an attribute of all constraints.

ARGUMENTS:
  attrname: the name of a linear constraint attribute, such as "RHS".

RETURN VALUE:
  A new numpy.ndarray of the shape of the MConstr: float64, int32,
  one-character strings or objects, as the attribute is. AttributeError where
  linear constraints have no such attribute, TaviroError where it has no value.

EXAMPLE:
  duals = c.getAttr("Dual")
  duals = c.Dual            # the same)";

constexpr const char* kSetAttrDoc = R"(ROUTINE:
  setAttr(attrname, value)

PURPOSE:
  Write an attribute of all constraints.

ARGUMENTS:
  attrname: the name of a linear constraint attribute, such as "RHS".
  value: a number or string for all; an array of the shape of the MConstr, or
    of one element; for a 1-D MConstr also a list of its length.

RETURN VALUE:
  None. AttributeError where linear constraints have no such attribute, where
  it can't be set, and for values of another shape or type; nothing is changed
  then.

EXAMPLE:
  c.setAttr("RHS", [1.0, 2.0, 3.0])
  c.RHS = 5.0               # the same for one value)";

constexpr const char* kPrefetchAttrDoc = R"(ROUTINE:
  prefetchAttr(attrname)

PURPOSE:
  Announce that an attribute of the constraints is going to be read.

ARGUMENTS:
  attrname: the name of a linear constraint attribute.

RETURN VALUE:
  None. AttributeError for a name that no attribute has.

EXAMPLE:
  c.prefetchAttr("Dual"))";

}  // namespace

void define_mconstr(nb::module_ module) {
    ClassBody(module, "MConstr", kClassDoc)
        .method<&Methods::init>("__init__(self, constrarr)")
        .method<&Methods::dir>("__dir__(self)")
        .method<&Methods::repr>("__repr__(self)")
        .method<&Methods::getitem>("__getitem__(self, obj)")
        .method<&Methods::getattr>("__getattr__(self, name)")
        .method<&Methods::setattr>("__setattr__(self, name, value)")
        .method<&Methods::item>("item(self)", kItemDoc)
        .method<&Methods::_idxarr>("_idxarr(self)")
        .method<&Methods::count>("_numrows(self)")
        .method<&Methods::tolist>("tolist(self)", kTolistDoc)
        .class_method<&Methods::fromlist>("fromlist(cls, constrlist)", kFromlistDoc)
        .method<&Methods::getAttr>("getAttr(self, attrname)", kGetAttrDoc)
        .method<&Methods::setAttr>("setAttr(self, attrname, value)", kSetAttrDoc)
        .method<&Methods::prefetchAttr>("prefetchAttr(self, attrname)", kPrefetchAttrDoc)
        .property<&Methods::shape>("shape", kShapeDoc)
        .property<&Methods::size>("size", kSizeDoc)
        .property<&Methods::ndim>("ndim", kNdimDoc)
        .property<&Methods::_typename>("_typename")
        .property<&Methods::_typeenum>("_typeenum");
}

}  // namespace taviropy
