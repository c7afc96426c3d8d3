#include "support/functions.hpp"

#include <algorithm>
#include <string_view>

#include "base/python.hpp"
#include "support/names.hpp"

namespace taviropy {

namespace {

std::string_view trim(std::string_view text) {
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    return text;
}

/// A default value from its literal.
PyObject* evaluate(std::string_view literal) {
    nb::dict globals;
    return checked(PyRun_String(std::string(literal).c_str(), Py_eval_input, globals.ptr(),
                                globals.ptr()))
        .release()
        .ptr();
}

/// One empty code object a function and line, which is all that a traceback entry needs.
PyObject* code_for(const FunctionInfo& info, const char* file, unsigned line) {
    for (auto& [known, code] : info.code)
        if (known == line) return code;
    auto* code = reinterpret_cast<PyObject*>(
        PyCode_NewEmpty(file, info.qualified.c_str(), static_cast<int>(line)));
    if (code) info.code.emplace_back(line, code);
    return code;
}

/// A TypeError of `before` and the name of a parameter, whatever characters it has.
[[noreturn]] void refuse(const FunctionInfo& info, const char* before, PyObject* parameter) {
    PyErr_Format(PyExc_TypeError, "%s() %s '%U'", info.name.c_str(), before, parameter);
    throw nb::python_error();
}

int place_of(const FunctionInfo& info, PyObject* keyword) {
    for (std::size_t k = 0; k < info.parameters.size(); ++k) {
        if (static_cast<int>(k) == info.rest) continue;
        if (info.parameters[k] == keyword || PyUnicode_Compare(info.parameters[k], keyword) == 0)
            return static_cast<int>(k);
    }
    return -1;
}

}  // namespace

void add_traceback(const FunctionInfo& info) noexcept {
    PyObject* error = PyErr_GetRaisedException();
    Site raised = take_raise_site(error);
    bool own = raised.line() != 0;
    PyObject* code = code_for(info, own ? raised.file_name() : info.site.file_name(),
                              own ? raised.line() : info.site.line());
    PyFrameObject* frame =
        code ? PyFrame_New(PyThreadState_Get(), reinterpret_cast<PyCodeObject*>(code),
                           namespace_dict().ptr(), nullptr)
             : nullptr;
    PyErr_SetRaisedException(error);
    if (frame) PyTraceBack_Here(frame);
    Py_XDECREF(frame);
}

void refuse_pandas(nb::handle self, nb::handle other) {
    nb::handle type = other.type();
    if (!nb::hasattr(type, "__pandas_priority__") || !nb::hasattr(type, "to_numpy")) return;
    PyErr_Format(
        PyExc_TypeError,
        "an %.100s takes no %.100s for an operand: give its numbers in order, by .to_numpy()",
        Py_TYPE(self.ptr())->tp_name, Py_TYPE(other.ptr())->tp_name);
    throw nb::python_error();
}

FunctionInfo::FunctionInfo(const char* owner, const char* signature, const char* first,
                           const char* text, Site where)
    : site(where) {
    std::string_view whole(signature);
    auto open = whole.find('(');
    name = whole.substr(0, open);
    qualified = std::string("taviropy._matrixapi.") + owner + (*owner ? "." : "") + name;
    std::string_view list = whole.substr(open + 1, whole.rfind(')') - open - 1);
    bool skip_self = *first != '\0', by_position = true;
    std::string shown = first;
    while (!(list = trim(list)).empty()) {
        auto comma = list.find(',');
        std::string_view item = trim(list.substr(0, comma));
        list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
        if (skip_self) {
            skip_self = false;
            continue;
        }
        shown += (shown.empty() ? "" : ", ") + std::string(item);
        if (item.front() == '*') {
            by_position = false;
            if (item.size() == 1) continue;
            rest = static_cast<int>(parameters.size());
            item.remove_prefix(1);
        }
        auto equals = item.find('=');
        std::string key(trim(item.substr(0, equals)));
        parameters.push_back(checked(PyUnicode_InternFromString(key.c_str())).release().ptr());
        defaults.push_back(equals == std::string_view::npos ? nullptr
                                                            : evaluate(item.substr(equals + 1)));
        if (by_position) ++positional;
    }
    doc = name + "(" + shown + ")\n--\n\n" + (text ? text : "");
}

void FunctionInfo::take(FunctionInfo read) {
    if (name.empty())
        *this = std::move(read);
    else if (qualified != read.qualified || doc != read.doc)
        raise(PyExc_SystemError, "the function of " + qualified + " is bound a second time, as " +
                                     read.qualified + ": give that a function of its own");
}

nb::object bind_arguments(const FunctionInfo& info, PyObject* const* args, Py_ssize_t count,
                          PyObject* keywords, PyObject** out) {
    const Py_ssize_t taken = std::min<Py_ssize_t>(count, info.positional);
    std::copy_n(args, taken, out);
    nb::object rest;
    if (info.rest >= 0) {
        rest = checked(PyTuple_New(count - taken));
        for (Py_ssize_t k = taken; k < count; ++k)
            PyTuple_SET_ITEM(rest.ptr(), k - taken, Py_NewRef(args[k]));
        out[info.rest] = rest.ptr();
    } else if (count > taken) {
        PyErr_Format(PyExc_TypeError,
                     "%s() takes at most %d positional arguments but %zd were given",
                     info.name.c_str(), info.positional, count);
        throw nb::python_error();
    }
    const Py_ssize_t named = keywords ? PyTuple_GET_SIZE(keywords) : 0;
    for (Py_ssize_t k = 0; k < named; ++k) {
        PyObject* keyword = PyTuple_GET_ITEM(keywords, k);
        const int place = place_of(info, keyword);
        if (place < 0) refuse(info, "got an unexpected keyword argument", keyword);
        if (out[place]) refuse(info, "got multiple values for argument", keyword);
        out[place] = args[count + k];
    }
    for (std::size_t k = 0; k < info.parameters.size(); ++k) {
        if (!out[k]) out[k] = info.defaults[k];
        if (!out[k]) refuse(info, "missing required argument:", info.parameters[k]);
    }
    return rest;
}

void translate_exception() noexcept {
    try {
        throw;
    } catch (nb::python_error& error) {
        error.restore();
    } catch (const nb::builtin_exception& error) {
        PyObject* type = error.type() == nb::exception_type::type_error    ? PyExc_TypeError
                         : error.type() == nb::exception_type::value_error ? PyExc_ValueError
                         : error.type() == nb::exception_type::index_error ? PyExc_IndexError
                                                                           : PyExc_RuntimeError;
        PyErr_SetString(type, error.what() ? error.what() : "");
    } catch (const nb::cast_error&) {
        PyErr_SetString(PyExc_TypeError, "an argument has an unsuitable type");
    } catch (...) {
        base::translate_exception();
    }
}

}  // namespace taviropy
