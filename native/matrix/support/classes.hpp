// Plain Python classes whose methods are C functions.
//
// A class is made by a call of `type` with base `object`, so metaclass, `__dict__` and subclassing
// are Python's own. Its methods are method descriptors with a text signature: as fast as a
// built-in's, and `help` and `inspect.signature` work.
#pragma once

#include <nanobind/nanobind.h>

#include "support/functions.hpp"

namespace taviropy {

class ClassBody {
  public:
    /// Creates the class in the module. `attributes` stand first in its body; a class that is going
    /// to define `__eq__` says so by `hashable = false`.
    ClassBody(nb::module_ module, const char* name, const char* doc, nb::dict attributes = {},
              bool hashable = true);

    template <auto Fn>
    ClassBody& method(const char* signature, const char* doc = nullptr,
                      Site site = Site::current()) {
        PyMethodDef* def = Function<Fn, Kind::Method>::define(name_, signature, doc, site);
        return set(def->ml_name, checked(PyDescr_NewMethod(type(), def)));
    }

    template <auto Fn>
    ClassBody& class_method(const char* signature, const char* doc = nullptr,
                            Site site = Site::current()) {
        PyMethodDef* def = Function<Fn, Kind::ClassMethod>::define(name_, signature, doc, site);
        return set(def->ml_name, checked(PyDescr_NewClassMethod(type(), def)));
    }

    template <auto Fn>
    ClassBody& static_method(const char* signature, const char* doc = nullptr,
                             Site site = Site::current()) {
        PyMethodDef* def = Function<Fn, Kind::StaticMethod>::define(name_, signature, doc, site);
        nb::object function = checked(PyCFunction_NewEx(def, nullptr, module_name_.ptr()));
        return set(def->ml_name, checked(PyStaticMethod_New(function.ptr())));
    }

    /// A read-only property; `Fn` takes self alone.
    template <auto Fn>
    ClassBody& property(const char* name, const char* doc = nullptr, Site site = Site::current()) {
        std::string signature = std::string(name) + "(self)";
        PyMethodDef* def = Function<Fn, Kind::Method>::define(name_, signature.c_str(), doc, site);
        return set_property(def->ml_name, checked(PyDescr_NewMethod(type(), def)), doc);
    }

  private:
    PyTypeObject* type() const { return reinterpret_cast<PyTypeObject*>(type_.ptr()); }
    ClassBody& set(const char* name, nb::object value);
    ClassBody& set_property(const char* name, nb::object getter, const char* doc);

    const char* name_;
    nb::object type_, module_name_;
};

/// A class that this module makes, kept as long as the module is: its instances are made without a
/// call of it.
class OwnClass {
  public:
    void operator=(nb::handle type) { type_ = reinterpret_cast<PyTypeObject*>(type.ptr()); }
    bool is(nb::handle type) const { return type.ptr() == reinterpret_cast<PyObject*>(type_); }
    /// An instance without fields.
    nb::object make() const;

  private:
    PyTypeObject* type_ = nullptr;
};

/// Adds a module-level function.
template <auto Fn>
void add_function(nb::module_ module, const char* signature, const char* doc = nullptr,
                  Site site = Site::current()) {
    PyMethodDef* def = Function<Fn, Kind::StaticMethod>::define("", signature, doc, site);
    nb::object name = module.attr("__name__");
    module.attr(def->ml_name) = checked(PyCFunction_NewEx(def, nullptr, name.ptr()));
}

}  // namespace taviropy
