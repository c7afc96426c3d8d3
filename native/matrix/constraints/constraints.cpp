// MConstr, MQConstr and MGenConstr: handles on arrays of linear, quadratic and general constraints.
//
// They differ in what `HandleClass` says of each, and their texts in a few words.

#include <utility>

#include "support/classes.hpp"
#include "support/handles.hpp"
#include "units.hpp"

namespace taviropy {

namespace {

constexpr const char* kClassDoc = R"({title}, acting as an array of {element} objects.

Users get such objects from Model.addConstr() for array-shaped {kind}
constraints, or make them by {name}.fromlist(). They are indexed like a
numpy.ndarray. An attribute of the model is read and written for all
constraints at once, as an array of their shape: c.{read}, c.{write} = 1.0. On an
empty {name} every attribute name reads as an empty array.)";

constexpr const char* kItemDoc = R"(ROUTINE:
  item()

PURPOSE:
  Give the constraint of an {name} that has just one.

ARGUMENTS:
  None.

RETURN VALUE:
  A {element}. ValueError for any other size.

EXAMPLE:
  constr = c[0].item())";

constexpr const char* kTolistDoc = R"(ROUTINE:
  tolist()

PURPOSE:
  Give the constraints as a list.

ARGUMENTS:
  None.

RETURN VALUE:
  A list of {element} objects, nested as the shape says; for a 0-d {name}
  the {element}.

EXAMPLE:
  for constr in c.tolist():
      print(constr))";

constexpr const char* kFromlistDoc = R"(ROUTINE:
  fromlist({list})

PURPOSE:
  Make an {name} of existing {kind} constraints.

ARGUMENTS:
  {list}: a list of {element} objects, or nested lists of them.

RETURN VALUE:
  An {name}, 1-D for a plain list. ValueError {stranger} is no
  {element}.

EXAMPLE:
  c = {name}.fromlist([c0, c1, c2]))";

constexpr const char* kGetAttrDoc = R"(ROUTINE:
  getAttr(attrname)

PURPOSE:
  Read an attribute of all constraints.

ARGUMENTS:
  attrname: the name of a {kind} constraint attribute, such as "{write}".

RETURN VALUE:
  A new numpy.ndarray of the shape of the {name}: float64, int32,
  one-character strings or objects, as the attribute is. AttributeError where
  {kind} constraints have no such attribute, TaviroError where it has no
  value.

EXAMPLE:
  {values} = c.getAttr("{read}")
  {values} = c.{read}            # the same)";

constexpr const char* kSetAttrDoc = R"(ROUTINE:
  setAttr(attrname, value)

PURPOSE:
  Write an attribute of all constraints.

ARGUMENTS:
  attrname: the name of a {kind} constraint attribute, such as "{write}".
  value: a number or string for all; an array of the shape of the {name}, or
    of one element; for a 1-D {name} also a list of its length.

RETURN VALUE:
  None. AttributeError where {kind} constraints have no such attribute, where
  it can't be set, and for values of another shape or type; nothing is changed
  then.

EXAMPLE:
  c.setAttr("{write}", {three})
  c.{write} = {one:<18}# the same for one value)";

constexpr const char* kPrefetchAttrDoc = R"(ROUTINE:
  prefetchAttr(attrname)

PURPOSE:
  Announce that an attribute of the constraints is going to be read.

ARGUMENTS:
  attrname: the name of a {kind} constraint attribute.

RETURN VALUE:
  None. AttributeError for a name that no attribute has.

EXAMPLE:
  c.prefetchAttr("{read}"))";

/// What stands in the texts of a class for the names in braces.
struct Words {
    const char* title;                ///< what the class is; null where it has no docstring
    const char* element;              ///< the class of one constraint
    const char* kind;                 ///< of constraints
    const char *array, *list;         ///< parameters of the constructor and of `fromlist`
    const char* stranger;             ///< how `fromlist` goes on about a ValueError
    const char *read, *values;        ///< an attribute to read, a variable for its values
    const char *write, *three, *one;  ///< an attribute to write, literals for its values

    std::string in(const HandleClass& type, const char* text) const {
        const std::pair<const char*, const char*> pairs[] = {
            {"name", type.name}, {"title", title}, {"element", element},   {"kind", kind},
            {"array", array},    {"list", list},   {"stranger", stranger}, {"read", read},
            {"values", values},  {"write", write}, {"three", three},       {"one", one},
        };
        nb::dict words;
        for (auto [word, meaning] : pairs) words[word] = meaning;
        return text_of(nb::str(text).attr("format")(**words));
    }
};

constexpr Words kLinear = {
    .title = "Matrix constraint handle",
    .element = "Constr",
    .kind = "linear",
    .array = "constrarr",
    .list = "constrlist",
    .stranger = "names an element that",
    .read = "Dual",
    .values = "duals",
    .write = "RHS",
    .three = "[1.0, 2.0, 3.0]",
    .one = "5.0",
};

constexpr Words kQuadratic = {
    .title = "Matrix quadratic constraint handle",
    .element = "QConstr",
    .kind = "quadratic",
    .array = "qconstrarr",
    .list = "qconstrlist",
    .stranger = "names an element that",
    .read = "QSlack",
    .values = "slacks",
    .write = "QRHS",
    .three = "[1.0, 2.0, 3.0]",
    .one = "5.0",
};

constexpr Words kGeneral = {
    .title = nullptr,
    .element = "GenConstr",
    .kind = "general",
    .array = "constrarr",
    .list = "genconstrlist",
    .stranger = "where an element",
    .read = "GenKind",
    .values = "kinds",
    .write = "GenName",
    .three = R"(["a", "b", "c"])",
    .one = R"("switch")",
};

/// A class with the methods that all three have.
template <const HandleClass& H, const Name& Class>
ClassBody define(nb::module_ module, const Words& words) {
    using Methods = ConstraintMethods<H, Class>;
    auto text = [&](const char* doc) { return words.in(H, doc); };
    ClassBody body(module, H.name, words.title ? text(kClassDoc).c_str() : nullptr);
    body.template method<&Methods::init>(text("__init__(self, {array})").c_str())
        .template method<&Methods::dir>("__dir__(self)")
        .template method<&Methods::repr>("__repr__(self)")
        .template method<&Methods::getitem>("__getitem__(self, obj)")
        .template method<&Methods::getattr>("__getattr__(self, name)")
        .template method<&Methods::setattr>("__setattr__(self, name, value)")
        .template method<&Methods::item>("item(self)", text(kItemDoc).c_str())
        .template method<&Methods::_idxarr>("_idxarr(self)")
        .template method<&Methods::tolist>("tolist(self)", text(kTolistDoc).c_str())
        .template class_method<&Methods::fromlist>(text("fromlist(cls, {list})").c_str(),
                                                   text(kFromlistDoc).c_str())
        .template method<&Methods::getAttr>("getAttr(self, attrname)", text(kGetAttrDoc).c_str())
        .template method<&Methods::setAttr>("setAttr(self, attrname, value)",
                                            text(kSetAttrDoc).c_str())
        .template property<&Methods::shape>("shape", kShapeDoc)
        .template property<&Methods::size>("size", kSizeDoc)
        .template property<&Methods::ndim>("ndim", kNdimDoc)
        .template property<&Methods::_typename>("_typename")
        .template property<&Methods::_typeenum>("_typeenum");
    return body;
}

/// What linear and quadratic constraints have besides: their number, and values to prefetch.
template <const HandleClass& H, const Name& Class>
void add_counted(ClassBody body, const Words& words) {
    using Methods = ConstraintMethods<H, Class>;
    body.template method<&Methods::count>((std::string(H.count_method) + "(self)").c_str())
        .template method<&Methods::prefetchAttr>("prefetchAttr(self, attrname)",
                                                 words.in(H, kPrefetchAttrDoc).c_str());
}

}  // namespace

void define_constraints(nb::module_ module) {
    add_counted<kMConstr, names::MConstr>(define<kMConstr, names::MConstr>(module, kLinear),
                                          kLinear);
    add_counted<kMQConstr, names::MQConstr>(define<kMQConstr, names::MQConstr>(module, kQuadratic),
                                            kQuadratic);
    define<kMGenConstr, names::MGenConstr>(module, kGeneral);
}

}  // namespace taviropy
