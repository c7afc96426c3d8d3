// MQConstr: a handle on an array of quadratic constraints.

#include "support/classes.hpp"
#include "support/handles.hpp"
#include "units.hpp"

namespace taviropy {

namespace {

using Methods = ConstraintMethods<kMQConstr, names::MQConstr>;

constexpr const char* kClassDoc =
    R"(Matrix quadratic constraint handle, acting as an array of QConstr objects.

Users get such objects from Model.addConstr() for array-shaped quadratic
constraints, or make them by MQConstr.fromlist(). They are indexed like a
numpy.ndarray. An attribute of the model is read and written for all
constraints at once, as an array of their shape: c.QSlack, c.QRHS = 1.0. On an
empty MQConstr every attribute name reads as an empty array.)";

constexpr const char* kItemDoc = R"(ROUTINE:
  item()

PURPOSE:
  Give the constraint of an MQConstr that has just one.

ARGUMENTS:
  None.

RETURN VALUE:
  A QConstr. ValueError for any other size.

EXAMPLE:
  constr = c[0].item())";

constexpr const char* kTolistDoc = R"(ROUTINE:
  tolist()

PURPOSE:
  Give the constraints as a list.

ARGUMENTS:
  None.

RETURN VALUE:
  A list of QConstr objects, nested as the shape says; for a 0-d MQConstr the
  QConstr.

EXAMPLE:
  for constr in c.tolist():
      print(constr))";

constexpr const char* kFromlistDoc = R"(ROUTINE:
  fromlist(qconstrlist)

PURPOSE:
  Make an MQConstr of existing quadratic constraints.

ARGUMENTS:
  qconstrlist: a list of QConstr objects, or nested lists of them.

RETURN VALUE:
  An MQConstr, 1-D for a plain list. ValueError names an element that is no
  QConstr.

EXAMPLE:
  c = MQConstr.fromlist([c0, c1, c2]))";

constexpr const char* kGetAttrDoc = R"(ROUTINE:
  getAttr(attrname)

PURPOSE:
  Read an attribute of all constraints.

ARGUMENTS:
  attrname: the name of a quadratic constraint attribute, such as "QRHS".

RETURN VALUE:
  A new numpy.ndarray of the shape of the MQConstr: float64, int32,
  one-character strings or objects, as the attribute is. AttributeError where
  quadratic constraints have no such attribute, TaviroError where it has no
  value.

EXAMPLE:
  slacks = c.getAttr("QSlack")
  slacks = c.QSlack            # the same)";

constexpr const char* kSetAttrDoc = R"(ROUTINE:
  setAttr(attrname, value)

PURPOSE:
  Write an attribute of all constraints.

ARGUMENTS:
  attrname: the name of a quadratic constraint attribute, such as "QRHS".
  value: a number or string for all; an array of the shape of the MQConstr, or
    of one element; for a 1-D MQConstr also a list of its length.

RETURN VALUE:
  None. AttributeError where quadratic constraints have no such attribute, where
  it can't be set, and for values of another shape or type; nothing is changed
  then.

EXAMPLE:
  c.setAttr("QRHS", [1.0, 2.0, 3.0])
  c.QRHS = 5.0               # the same for one value)";

constexpr const char* kPrefetchAttrDoc = R"(ROUTINE:
  prefetchAttr(attrname)

PURPOSE:
  Announce that an attribute of the constraints is going to be read.

ARGUMENTS:
  attrname: the name of a quadratic constraint attribute.

RETURN VALUE:
  None. AttributeError for a name that no attribute has.

EXAMPLE:
  c.prefetchAttr("QSlack"))";

}  // namespace

void define_mqconstr(nb::module_ module) {
    ClassBody(module, "MQConstr", kClassDoc)
        .method<&Methods::init>("__init__(self, qconstrarr)")
        .method<&Methods::dir>("__dir__(self)")
        .method<&Methods::repr>("__repr__(self)")
        .method<&Methods::getitem>("__getitem__(self, obj)")
        .method<&Methods::getattr>("__getattr__(self, name)")
        .method<&Methods::setattr>("__setattr__(self, name, value)")
        .method<&Methods::item>("item(self)", kItemDoc)
        .method<&Methods::_idxarr>("_idxarr(self)")
        .method<&Methods::count>("_numqconstrs(self)")
        .method<&Methods::tolist>("tolist(self)", kTolistDoc)
        .class_method<&Methods::fromlist>("fromlist(cls, qconstrlist)", kFromlistDoc)
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
