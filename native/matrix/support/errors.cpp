#include "support/errors.hpp"

#include "support/names.hpp"

namespace taviropy {

// The last exception raised here; only compared, never followed. The interpreter's lock is held
// wherever the two are read or written.
static PyObject* raised_error = nullptr;
static Site raise_site = Site();

Site take_raise_site(PyObject* error) {
    if (!error || error != raised_error) return Site();
    raised_error = nullptr;  // another exception may come to have its address
    return raise_site;
}

/// Throws the exception that is set, and remembers where it was raised.
[[noreturn]] static void throw_raised(Site site) {
    raised_error = PyErr_GetRaisedException();
    raise_site = site;
    PyErr_SetRaisedException(raised_error);
    throw nb::python_error();
}

void raise(PyObject* type, const std::string& message, Site site) {
    raise(type, nb::object(nb::str(message.c_str(), message.size())), site);
}

void raise(PyObject* type, nb::object message, Site site) {
    PyErr_SetObject(type, message.ptr());
    throw_raised(site);
}

void raise_taviro_error(nb::handle code, const std::string& message, Site site) {
    nb::object type = names::TaviroError();
    nb::object error = type(code, nb::str(message.c_str(), message.size()));
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
    throw_raised(site);
}

void raise_taviro_error(int code, const std::string& message, Site site) {
    raise_taviro_error(nb::int_(code), message, site);
}

bool asserts_enabled() {
    static const bool enabled = [] {
        PyObject* flags = PySys_GetObject("flags");
        return !flags || nb::cast<int>(nb::handle(flags).attr("optimize")) == 0;
    }();
    return enabled;
}

void fail_assertion(Site site) {
    PyErr_SetNone(PyExc_AssertionError);
    throw_raised(site);
}

static std::string utf8(nb::object text) {
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(text.ptr(), &size);
    if (!data) throw nb::python_error();
    return std::string(data, static_cast<std::size_t>(size));
}

std::string text_of(nb::handle object) { return utf8(checked(PyObject_Str(object.ptr()))); }

std::string format_of(nb::handle object) {
    return utf8(checked(PyObject_Format(object.ptr(), nullptr)));
}

}  // namespace taviropy
