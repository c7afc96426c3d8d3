// Attributes of the model, read and written for all variables of an MVar at once.

#include "mvar/mvar.hpp"
#include "support/handles.hpp"
#include "support/imports.hpp"

namespace taviropy::mvar {

using namespace nb::literals;

using Methods = HandleMethods<kMVar>;

namespace {

constexpr const char* kGetAttrDoc = R"(ROUTINE:
  getAttr(attrname)

PURPOSE:
  Read an attribute of all variables.

ARGUMENTS:
  attrname: the name of a variable attribute, such as "UB" or "X".

RETURN VALUE:
  A new numpy.ndarray of the shape of the MVar: float64, int32, one-character
  strings or objects, as the attribute is. An empty MVar gives an empty float
  array, whatever the name. AttributeError where variables have no such
  attribute, TaviroError where it has no value.

EXAMPLE:
  values = x.getAttr("X")
  values = x.X              # the same)";

constexpr const char* kSetAttrDoc = R"(ROUTINE:
  setAttr(attrname, value)

PURPOSE:
  Write an attribute of all variables.

ARGUMENTS:
  attrname: the name of a variable attribute, such as "UB".
  value: a number or string for all; an array of the shape of the MVar, or of
    one element; for a 1-D MVar also a list of its length.

RETURN VALUE:
  None. AttributeError where variables have no such attribute, where it can't
  be set, and for values of another shape or type; nothing is changed then.

EXAMPLE:
  x.setAttr("UB", [1.0, 2.0, 3.0])
  x.UB = 5.0                # the same for one value

NOTES:
  On an empty MVar this does nothing, whatever the name. A 0-d MVar takes a
  number or an array of one element; a list of one is a TypeError.)";

constexpr const char* kPrefetchAttrDoc = R"(ROUTINE:
  prefetchAttr(attrname)

PURPOSE:
  Announce that an attribute of the variables is going to be read.

ARGUMENTS:
  attrname: the name of a variable attribute.

RETURN VALUE:
  None. AttributeError for a name that no attribute has.

EXAMPLE:
  x.prefetchAttr("X")

NOTES:
  On an empty MVar this does nothing, whatever the name.)";

/// A data vector of the model's columns, as an array of the entries that belong to the variables.
nb::object _indexed_data(nb::handle self, nb::handle a, nb::handle dtype) {
    nb::object np = import_numpy();
    nb::object columns = np.attr("array")(a, "dtype"_a = dtype);
    nb::object result = np.attr("empty_like")(nb::getattr(self, "_vararr"), "dtype"_a = dtype);
    nb::object indices = self.attr("_idxarr")();
    nb::setattr(result, "flat", nb::object(columns[indices.attr("flat")]));
    return result;
}

}  // namespace

void add_attribute_methods(ClassBody& body) {
    body.method<&Methods::getattr>("__getattr__(self, name)")
        .method<&Methods::setattr>("__setattr__(self, name, value)")
        .method<&Methods::getAttr>("getAttr(self, attrname)", kGetAttrDoc)
        .method<&Methods::setAttr>("setAttr(self, attrname, value)", kSetAttrDoc)
        .method<&Methods::prefetchAttr>("prefetchAttr(self, attrname)", kPrefetchAttrDoc)
        .method<&Methods::dir>("__dir__(self)")
        .method<&Methods::_idxarr>("_idxarr(self)")
        .property<&Methods::_typename>("_typename")
        .property<&Methods::_typeenum>("_typeenum")
        .method<&_indexed_data>("_indexed_data(self, a, dtype)");
}

}  // namespace taviropy::mvar
