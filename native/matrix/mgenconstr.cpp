// MGenConstr: a handle on an array of general constraints.

#include "support/classes.hpp"
#include "support/handles.hpp"
#include "units.hpp"

namespace taviropy {

namespace {

using Methods = ConstraintMethods<kMGenConstr, names::MGenConstr>;

constexpr const char* kItemDoc = R"(ROUTINE:
  item()

PURPOSE:
  Give the constraint of an MGenConstr that has just one.

ARGUMENTS:
  None.

RETURN VALUE:
  A GenConstr. ValueError for any other size.

EXAMPLE:
  constr = c[0].item())";

constexpr const char* kTolistDoc = R"(ROUTINE:
  tolist()

PURPOSE:
  Give the constraints as a list.

ARGUMENTS:
  None.

RETURN VALUE:
  A list of GenConstr objects, nested as the shape says; for a 0-d MGenConstr
  the GenConstr.

EXAMPLE:
  for constr in c.tolist():
      print(constr))";

constexpr const char* kFromlistDoc = R"(ROUTINE:
  fromlist(genconstrlist)

PURPOSE:
  Make an MGenConstr of existing general constraints.

ARGUMENTS:
  genconstrlist: a list of GenConstr objects, or nested lists of them.

RETURN VALUE:
  An MGenConstr, 1-D for a plain list. ValueError where an element is no
  GenConstr.

EXAMPLE:
  c = MGenConstr.fromlist([c0, c1, c2]))";

constexpr const char* kGetAttrDoc = R"(ROUTINE:
  getAttr(attrname)

PURPOSE:
  Read an attribute of all constraints.

ARGUMENTS:
  attrname: the name of a general constraint attribute, such as "GenName".

RETURN VALUE:
  A new numpy.ndarray of the shape of the MGenConstr: float64, int32,
  one-character strings or objects, as the attribute is. AttributeError where
  general constraints have no such attribute, TaviroError where it has no value.

EXAMPLE:
  kinds = c.getAttr("GenKind")
  kinds = c.GenKind            # the same)";

constexpr const char* kSetAttrDoc = R"(ROUTINE:
  setAttr(attrname, value)

PURPOSE:
  Write an attribute of all constraints.

ARGUMENTS:
  attrname: the name of a general constraint attribute, such as "GenName".
  value: a number or string for all; an array of the shape of the MGenConstr, or
    of one element; for a 1-D MGenConstr also a list of its length.

RETURN VALUE:
  None. AttributeError where general constraints have no such attribute, where
  it can't be set, and for values of another shape or type; nothing is changed
  then.

EXAMPLE:
  c.setAttr("GenName", ["a", "b", "c"])
  c.GenName = "switch"      # the same for one value)";

}  // namespace

void define_mgenconstr(nb::module_ module) {
    ClassBody(module, "MGenConstr", nullptr)
        .method<&Methods::init>("__init__(self, constrarr)")
        .method<&Methods::dir>("__dir__(self)")
        .method<&Methods::repr>("__repr__(self)")
        .method<&Methods::getitem>("__getitem__(self, obj)")
        .method<&Methods::getattr>("__getattr__(self, name)")
        .method<&Methods::setattr>("__setattr__(self, name, value)")
        .method<&Methods::item>("item(self)", kItemDoc)
        .method<&Methods::_idxarr>("_idxarr(self)")
        .method<&Methods::tolist>("tolist(self)", kTolistDoc)
        .class_method<&Methods::fromlist>("fromlist(cls, genconstrlist)", kFromlistDoc)
        .method<&Methods::getAttr>("getAttr(self, attrname)", kGetAttrDoc)
        .method<&Methods::setAttr>("setAttr(self, attrname, value)", kSetAttrDoc)
        .property<&Methods::shape>("shape", kShapeDoc)
        .property<&Methods::size>("size", kSizeDoc)
        .property<&Methods::ndim>("ndim", kNdimDoc)
        .property<&Methods::_typename>("_typename")
        .property<&Methods::_typeenum>("_typeenum");
}

}  // namespace taviropy
