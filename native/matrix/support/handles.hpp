// What the four handle classes share: MVar, MConstr, MQConstr and MGenConstr.
//
// A handle keeps an object array of scalar elements in one private field, and the model of its
// first element in `_cmodel`. Each method stands in the table of its class, at the end of that
// class's file; where it is the same for several classes, its code is here, and `HandleClass` says
// what differs.
#pragma once

#include <nanobind/nanobind.h>

#include "support/attributes.hpp"
#include "support/names.hpp"
#include "support/object_arrays.hpp"

namespace taviropy {

/// What the handle classes differ in.
struct HandleClass {
    const char* name;          ///< of the class, `_typename`
    long kind;                 ///< numeric object kind, `_typeenum`
    const char* array;         ///< the field that holds the elements
    const char* index;         ///< the field of an element that `_idxarr` reads
    const char* refused_get;   ///< how `getAttr` begins its refusal of another kind's attribute
    const char* refused_set;   ///< the same for `setAttr`
    bool repeats_by_shape;     ///< values are repeated by np.prod(self.shape), not by self.size
    bool checks_indices;       ///< elements that aren't in the model are refused before any call
    const Name* element;       ///< the class of the elements
    const char* count_method;  ///< gives how many there are in the model; null where there is none
    const char* count;         ///< the library's name of that number
    const char* fromlist_error;  ///< what `fromlist` says of a wrong element, in front of it
};

inline constexpr HandleClass kMVar = {
    .name = "MVar",
    .kind = 1,
    .array = "_vararr",
    .index = "_colno",
    .refused_get = "'taviropy.Var' object has no attribute '",
    .refused_set = "'taviropy.Var' object has no attribute '",
    .repeats_by_shape = true,
    .checks_indices = false,
    .element = &names::Var,
    .count_method = nullptr,
    .count = nullptr,
    .fromlist_error = "MVar.fromlist expects a list of Vars, '",
};

inline constexpr HandleClass kMConstr = {
    .name = "MConstr",
    .kind = 2,
    .array = "_constrarr",
    .index = "_rowno",
    .refused_get = "'taviropy.Constr' object has no attribute '",
    .refused_set = "'taviropy.Constr' object has no attribute '",
    .repeats_by_shape = false,
    .checks_indices = false,
    .element = &names::Constr,
    .count_method = "_numrows",
    .count = "NumConstrs",
    .fromlist_error = "MConstr.fromlist expects a list of Constrs, '",
};

inline constexpr HandleClass kMQConstr = {
    .name = "MQConstr",
    .kind = 4,
    .array = "_qconstrarr",
    .index = "_qconstrno",
    .refused_get = "'taviropy.MQConstr' object has no attribute '",
    .refused_set = "'taviropy.MQConstr' object has no attribute '",
    .repeats_by_shape = false,
    .checks_indices = false,
    .element = &names::QConstr,
    .count_method = "_numqconstrs",
    .count = "NumQConstrs",
    .fromlist_error = "MQConstr.fromlist expects a list of QConstrs, '",
};

inline constexpr HandleClass kMGenConstr = {
    .name = "MGenConstr",
    .kind = 5,
    .array = "_constrarr",
    .index = "_genconstrno",
    .refused_get = "'taviropy.GenConstr' object has no attribute '",
    .refused_set = "'taviropy.MGenConstr' object has no attribute '",
    .repeats_by_shape = false,
    .checks_indices = true,
    .element = &names::GenConstr,
    .count_method = nullptr,
    .count = nullptr,
    .fromlist_error = nullptr,  // a fixed text, which doesn't show the element
};

namespace handles {

/// The model of the first element of an array; None where the array is empty.
nb::object model_of(nb::handle array);
nb::object model_of(const ArrayBuffer& elements);

/// Keeps the two fields of a new handle, in this order, by way of its class's `__setattr__`.
void store_fields(nb::handle self, const char* first, nb::handle first_value, const char* second,
                  nb::handle second_value);

/// np.array(element) for an element that indexing gave; anything else as it is.
nb::object subarray(const HandleClass& type, nb::handle self, nb::handle key);

/// The first element of an array that isn't of the right class, in C order; invalid where all are.
nb::object find_stranger(const HandleClass& type, nb::handle array);
/// Refuses it as `fromlist` does.
[[noreturn]] void refuse_stranger(const HandleClass& type, nb::handle element);

nb::object index_array(const HandleClass& type, nb::handle self);
nb::object directory(nb::handle self);

nb::object init_constraints(const HandleClass& type, nb::handle self, nb::handle array);
nb::object constraints_repr(const HandleClass& type, nb::handle self);
nb::object constraints_from_list(const HandleClass& type, nb::handle cls, nb::handle list);
nb::object count_in_model(const HandleClass& type, nb::handle self);

/// What `_idxarr` tells of the elements.
struct Places {
    bool waiting = false;  ///< some aren't in the model yet
    bool removed = false;  ///< some aren't any more
    bool beyond = false;   ///< some have an index above `count`
};
Places look_at_places(nb::handle indices, long count = 0x7fffffff);

}  // namespace handles

/// Documentation of the properties that all have.
inline constexpr const char* kShapeDoc = R"(PROPERTY:
  shape

PURPOSE:
  Give the length of each axis.

RETURN VALUE:
  A tuple of ints; () for a 0-d object.)";

inline constexpr const char* kNdimDoc = R"(PROPERTY:
  ndim

PURPOSE:
  Give the number of axes.

RETURN VALUE:
  An int.)";

inline constexpr const char* kSizeDoc = R"(PROPERTY:
  size

PURPOSE:
  Give the number of elements.

RETURN VALUE:
  An int; 1 for a 0-d object.)";

/// The methods of a handle class, by their Python names.
template <const HandleClass& H>
struct HandleMethods {
    static nb::object getattr(nb::handle self, nb::handle name) {
        return attributes::getattr(H, self, name);
    }
    static nb::object setattr(nb::handle self, nb::handle name, nb::handle value) {
        return attributes::setattr(self, name, value);
    }
    static nb::object getAttr(nb::handle self, nb::handle attrname) {
        return attributes::getAttr(H, self, attrname);
    }
    static nb::object setAttr(nb::handle self, nb::handle attrname, nb::handle value) {
        return attributes::setAttr(H, self, attrname, value);
    }
    static nb::object prefetchAttr(nb::handle self, nb::handle attrname) {
        return attributes::prefetchAttr(self, attrname);
    }
    static nb::object dir(nb::handle self) { return handles::directory(self); }
    static nb::object item(nb::handle self) { return self.attr(H.array).attr("item")(); }
    static nb::object tolist(nb::handle self) { return self.attr(H.array).attr("tolist")(); }
    static nb::object _idxarr(nb::handle self) { return handles::index_array(H, self); }
    static nb::object shape(nb::handle self) { return self.attr(H.array).attr("shape"); }
    static nb::object size(nb::handle self) { return self.attr(H.array).attr("size"); }
    static nb::object ndim(nb::handle self) { return self.attr(H.array).attr("ndim"); }
    static nb::object _typename(nb::handle) { return nb::str(H.name); }
    static nb::object _typeenum(nb::handle) { return nb::int_(H.kind); }
};

/// The further methods of a constraint class.
template <const HandleClass& H, const Name& Class>
struct ConstraintMethods : HandleMethods<H> {
    static nb::object init(nb::handle self, nb::handle array) {
        return handles::init_constraints(H, self, array);
    }
    static nb::object repr(nb::handle self) { return handles::constraints_repr(H, self); }
    static nb::object getitem(nb::handle self, nb::handle key) {
        nb::object array = handles::subarray(H, self, key);
        return Class()(array);
    }
    static nb::object fromlist(nb::handle cls, nb::handle list) {
        return handles::constraints_from_list(H, cls, list);
    }
    /// `_numrows`, `_numqconstrs`
    static nb::object count(nb::handle self) { return handles::count_in_model(H, self); }
};

}  // namespace taviropy
