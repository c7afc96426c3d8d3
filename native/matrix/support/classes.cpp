#include "support/classes.hpp"

#include "support/names.hpp"

namespace taviropy {

ClassBody::ClassBody(nb::module_ module, const char* name, const char* doc, nb::dict attributes,
                     bool hashable)
    : name_(name), module_name_(module.attr("__name__")) {
    nb::dict body;
    body["__module__"] = module_name_;
    if (doc) body["__doc__"] = doc;
    body.update(attributes);
    // `__eq__` comes after the class is made, so the type can't see by itself that it is
    // unhashable.
    if (!hashable) body["__hash__"] = nb::none();
    nb::handle object_type(reinterpret_cast<PyObject*>(&PyBaseObject_Type));
    nb::handle type_type(reinterpret_cast<PyObject*>(&PyType_Type));
    type_ = type_type(name, nb::make_tuple(object_type), body);
    module.attr(name) = type_;
    note_plain_class(type_);
}

ClassBody& ClassBody::set(const char* name, nb::object value) {
    nb::setattr(type_, name, value);
    return *this;
}

ClassBody& ClassBody::set_property(const char* name, nb::object getter, const char* doc) {
    nb::handle property_type(reinterpret_cast<PyObject*>(&PyProperty_Type));
    nb::object text = doc ? nb::object(nb::str(doc)) : nb::none();
    return set(name, property_type(getter, nb::none(), nb::none(), text));
}

nb::object OwnClass::make() const {
    static PyObject* no_arguments = PyTuple_New(0);
    return checked(PyBaseObject_Type.tp_new(type_, no_arguments, nullptr));
}

}  // namespace taviropy
