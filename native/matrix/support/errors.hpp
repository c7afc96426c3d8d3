// Exceptions: raising Python's from C++, and Python's assert.
#pragma once

#include <nanobind/nanobind.h>

#include <source_location>
#include <string>

namespace taviropy {

namespace nb = nanobind;

using Site = std::source_location;

/// Raises `type(message)`; the traceback entry of the function at hand shows the line of the call.
[[noreturn]] void raise(PyObject* type, const std::string& message, Site site = Site::current());
/// The same with a message that is a Python str.
[[noreturn]] void raise(PyObject* type, nb::object message, Site site = Site::current());

/// Raises `TaviroError(code, message)`.
[[noreturn]] void raise_taviro_error(nb::handle code, const std::string& message,
                                     Site site = Site::current());
[[noreturn]] void raise_taviro_error(int code, const std::string& message,
                                     Site site = Site::current());

/// Where `raise` and its kin raised this exception; line 0 where they didn't.
Site take_raise_site(PyObject* error);

/// False under `python -O`.
bool asserts_enabled();

[[noreturn]] void fail_assertion(Site site = Site::current());

/// Python's assert statement without a message: skipped, condition included, under `python -O`.
#define PY_ASSERT(condition)                                                             \
    do {                                                                                 \
        if (::taviropy::asserts_enabled() && !(condition)) ::taviropy::fail_assertion(); \
    } while (0)

/// str(object), as the texts of errors show values.
std::string text_of(nb::handle object);

/// format(object); of a NumPy number it shows more digits than str.
std::string format_of(nb::handle object);

/// Py_NotImplemented as a result.
inline nb::object not_implemented() { return nb::borrow(Py_NotImplemented); }

/// A C API result: steals it, or throws the exception that is set.
inline nb::object checked(PyObject* result) {
    if (!result) throw nb::python_error();
    return nb::steal(result);
}

/// A C API status: throws the exception that is set where it is negative.
inline void check(int status) {
    if (status < 0) throw nb::python_error();
}

}  // namespace taviropy
