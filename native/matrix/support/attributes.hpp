// Attributes of a model in bulk: one call reads or writes an attribute of all elements of a handle.
//
// The same protocol serves the four handle classes; what they differ in stands in `HandleClass`
// (support/handles.hpp). The work on the model itself is done by `taviropy._attrutil`, and all
// refusals come before anything is written.
#pragma once

#include <nanobind/nanobind.h>

namespace taviropy {

namespace nb = nanobind;

struct HandleClass;

namespace attributes {

/// `__getattr__`, for names that normal look-up has not found: `self.getAttr(name)`. On an object
/// that has no fields yet (`copy` and `pickle` make such objects) a private name is an
/// AttributeError.
nb::object getattr(const HandleClass& type, nb::handle self, nb::handle name);

/// `__setattr__`: names with a leading underscore go to the instance's dictionary, all others to
/// `self.setAttr`.
nb::object setattr(nb::handle self, nb::handle name, nb::handle value);

/// `self.__dict__[name] = value`
void store(nb::handle self, nb::handle name, nb::handle value);

nb::object getAttr(const HandleClass& type, nb::handle self, nb::handle attrname);
nb::object setAttr(const HandleClass& type, nb::handle self, nb::handle attrname, nb::handle value);
nb::object prefetchAttr(nb::handle self, nb::handle attrname);

}  // namespace attributes
}  // namespace taviropy
