// C++ functions as Python functions: binding of arguments, and the one place where exceptions
// cross.
//
// A function takes its Python parameters as `nb::handle`, `self` or `cls` first where it has one,
// and gives an `nb::object`; a parameter `*rest` arrives as a tuple. Its Python signature is a
// text,
// `"sum(self, axis=None)"`, from which names, defaults and `inspect.signature` are taken.
//
// Errors are C++ exceptions. Where one is a matter of course, as when an attribute is looked for, a
// function may set Python's error and give an invalid object instead, which saves the throw.
#pragma once

#include <nanobind/nanobind.h>

#include <array>
#include <string>
#include <utility>
#include <vector>

#include "support/errors.hpp"

namespace taviropy {

/// What is known of a function beside its code.
struct FunctionInfo {
    std::string name;                   ///< as Python calls it
    std::string qualified;              ///< "taviropy._matrixapi.MVar.sum", for tracebacks
    std::string doc;                    ///< text signature and docstring
    Site site;                          ///< where the function is listed
    std::vector<PyObject*> parameters;  ///< interned names, without self or cls
    std::vector<PyObject*> defaults;    ///< null where a parameter has none
    int positional = 0;                 ///< how many may be given by position
    int rest = -1;                      ///< place of the parameter that takes `*rest`
    mutable std::vector<std::pair<unsigned, PyObject*>> code;  ///< per line, for tracebacks

    FunctionInfo() = default;
    /// Reads a signature text; `first` is what stands for self: "$self", "$type" or "".
    FunctionInfo(const char* owner, const char* signature, const char* first, const char* text,
                 Site where);
    /// Takes what was read where nothing is known yet. SystemError where another function is: one
    /// C++ function is bound once, since its entry points find no more than one table. Bound to the
    /// same again, as by a second import of the module, it stays as it is.
    void take(FunctionInfo read);
};

/// Matches the arguments of a vectorcall with the parameters: fills `out`, and gives the tuple of
/// `*rest` where there is one. TypeError where they don't fit.
nb::object bind_arguments(const FunctionInfo& info, PyObject* const* args, Py_ssize_t count,
                          PyObject* keywords, PyObject** out);

/// Adds an entry for the function to the traceback of the exception that is set.
void add_traceback(const FunctionInfo& info) noexcept;

/// Turns the C++ exception being handled into Python's.
void translate_exception() noexcept;

/// Raises TypeError where an operator declines a pandas object: pandas declines too, and Python's
/// own error would not say what to do.
void refuse_pandas(nb::handle self, nb::handle other);

enum class Kind { Method, ClassMethod, StaticMethod };

/// The C entry points of `Fn`, a function of so many handles. What several classes share is
/// therefore a template with the class as its parameter: a function for each.
template <auto Fn, Kind kind, class = decltype(Fn)>
struct Function;

template <auto Fn, Kind kind, class... Handles>
struct Function<Fn, kind, nb::object (*)(Handles...)> {
    static constexpr bool bound = kind != Kind::StaticMethod;
    static constexpr std::size_t arity = sizeof...(Handles) - (bound ? 1 : 0);
    static inline FunctionInfo info;
    static inline PyMethodDef def;

    template <std::size_t... I>
    static PyObject* apply(PyObject* self, PyObject* const* args, std::index_sequence<I...>) {
        PyObject* result = nullptr;
        try {
            if constexpr (bound) {
                nb::object given = Fn(nb::handle(self), nb::handle(args[I])...);
                if constexpr (arity == 1)
                    if (given.ptr() == Py_NotImplemented) refuse_pandas(self, args[0]);
                result = given.release().ptr();
            } else
                result = Fn(nb::handle(args[I])...).release().ptr();
        } catch (...) {
            translate_exception();
        }
        if (!result) add_traceback(info);
        return result;
    }

    static PyObject* call_none(PyObject* self, PyObject*) {
        return apply(self, nullptr, std::index_sequence<>());
    }

    static PyObject* call_any(PyObject* self, PyObject* const* args, Py_ssize_t count,
                              PyObject* keywords) {
        constexpr auto all = std::make_index_sequence<arity>();
        if (!keywords && count == static_cast<Py_ssize_t>(arity) && info.rest < 0 &&
            info.positional == static_cast<int>(arity))
            return apply(self, args, all);
        try {
            std::array<PyObject*, arity + 1> bound_args{};
            nb::object rest = bind_arguments(info, args, count, keywords, bound_args.data());
            return apply(self, bound_args.data(), all);
        } catch (...) {
            translate_exception();  // of the call, so that the function has no part in it
            return nullptr;
        }
    }

    /// Fills in and returns the method definition.
    static PyMethodDef* define(const char* owner, const char* signature, const char* doc,
                               Site site) {
        const char* first = kind == Kind::Method        ? "$self"
                            : kind == Kind::ClassMethod ? "$type"
                                                        : "";
        info.take(FunctionInfo(owner, signature, first, doc, site));
        def.ml_name = info.name.c_str();
        def.ml_doc = info.doc.c_str();
        if constexpr (arity == 0) {
            def.ml_meth = call_none;
            def.ml_flags = METH_NOARGS;
        } else {
            def.ml_meth = reinterpret_cast<PyCFunction>(reinterpret_cast<void*>(call_any));
            def.ml_flags = METH_FASTCALL | METH_KEYWORDS;
        }
        return &def;
    }
};

}  // namespace taviropy
