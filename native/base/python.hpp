// Owned references, errors, and the way from C++ functions to CPython's tables. The matrix module
// has nanobind's objects in place of the references; what an exception becomes is decided here.
#pragma once

#include <Python.h>

#include <concepts>
#include <cstdarg>
#include <exception>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace taviropy::base {

/// Thrown where Python's error indicator is already set.
struct PythonError {};

/// An owned reference, released when it goes out of scope.
class Ref {
  public:
    Ref() = default;
    explicit Ref(PyObject* owned) : object_(owned) {}
    Ref(Ref&& other) noexcept : object_(other.release()) {}
    Ref& operator=(Ref&& other) noexcept {
        PyObject* old = std::exchange(object_, other.release());
        Py_XDECREF(old);
        return *this;
    }
    ~Ref() { Py_XDECREF(object_); }

    PyObject* get() const { return object_; }
    PyObject* release() { return std::exchange(object_, nullptr); }
    explicit operator bool() const { return object_ != nullptr; }

  private:
    PyObject* object_ = nullptr;
};

inline Ref borrow(PyObject* object) { return Ref(Py_NewRef(object)); }

template <class T>
PyObject* as_object(T* instance) {
    return reinterpret_cast<PyObject*>(instance);
}

/// Takes the new reference that a CPython call gave, or throws what the call raised.
inline Ref checked(PyObject* result) {
    if (!result) throw PythonError();
    return Ref(result);
}

/// Takes the number that a CPython call gave, of which -1 may stand for an error.
template <std::signed_integral Number>
Number checked(Number result) {
    if (result == -1 && PyErr_Occurred()) throw PythonError();
    return result;
}

/// Throws where a CPython call tells an error by its status.
inline void check(int status) {
    if (status < 0) throw PythonError();
}

[[noreturn]] inline void raise(PyObject* type, const char* format, ...) {
    va_list values;
    va_start(values, format);
    PyErr_FormatV(type, format, values);
    va_end(values);
    throw PythonError();
}

/// object.name
inline Ref field(PyObject* object, const char* name) {
    return checked(PyObject_GetAttrString(object, name));
}

inline Ref not_implemented() { return borrow(Py_NotImplemented); }
inline Ref none() { return borrow(Py_None); }

/// A name of a module, imported at need.
inline Ref import_name(const char* module, const char* name) {
    Ref found = checked(PyImport_ImportModule(module));
    return checked(PyObject_GetAttrString(found.get(), name));
}

/// A module that is imported at its first use, for names on hot paths: they are looked up at each
/// use, the module is not.
class LazyModule {
  public:
    explicit LazyModule(const char* name) : name_(name) {}

    Ref get(const char* attribute) {
        if (!module_) module_ = checked(PyImport_ImportModule(name_)).release();
        return checked(PyObject_GetAttrString(module_, attribute));
    }

  private:
    const char* name_;
    PyObject* module_ = nullptr;  // kept for good
};

/// Sets Python's error for the C++ exception being handled.
inline void translate_exception() noexcept {
    try {
        throw;
    } catch (const PythonError&) {
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::length_error&) {
        PyErr_NoMemory();
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
    }
}

/// The function as CPython calls it: a `Ref` becomes a new reference or NULL, `void` becomes 0 or
/// -1, any other result is -1 on failure.
template <auto function>
struct Guarded;

template <class Given, class... Args, Given (*function)(Args...)>
struct Guarded<function> {
    static constexpr bool gives_object = std::is_same_v<Given, Ref>;
    static constexpr bool gives_status = std::is_void_v<Given>;
    using Number = std::conditional_t<gives_status || gives_object, int, Given>;
    using Result = std::conditional_t<gives_object, PyObject*, Number>;

    static Result call(Args... args) noexcept {
        try {
            if constexpr (gives_object) {
                return function(args...).release();
            } else if constexpr (gives_status) {
                function(args...);
                return 0;
            } else {
                return function(args...);
            }
        } catch (...) {
            translate_exception();
        }
        if constexpr (gives_object)
            return nullptr;
        else
            return static_cast<Result>(-1);
    }
};

/// For method tables.
template <auto function>
PyCFunction method() {
    return reinterpret_cast<PyCFunction>(&Guarded<function>::call);
}

/// For slot tables.
template <auto function>
void* slot() {
    return reinterpret_cast<void*>(&Guarded<function>::call);
}

/// Checks the number of positional arguments of a vectorcall function.
inline void check_count(const char* name, Py_ssize_t given, Py_ssize_t least, Py_ssize_t most) {
    if (given >= least && given <= most) return;
    if (least == most)
        raise(PyExc_TypeError, "%s() takes exactly %zd argument%s (%zd given)", name, least,
              least == 1 ? "" : "s", given);
    raise(PyExc_TypeError, "%s() takes %zd to %zd arguments (%zd given)", name, least, most, given);
}

}  // namespace taviropy::base
