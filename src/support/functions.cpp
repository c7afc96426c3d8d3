#include "support/functions.hpp"

#include <stdexcept>
#include <string_view>

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

bool refuse(const FunctionInfo& info, const std::string& what) {
    PyErr_SetString(PyExc_TypeError, (info.name + "() " + what).c_str());
    return false;
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

void FunctionInfo::parse(const char* owner, const char* signature, const char* first,
                         const char* text, Site where) {
    std::string_view whole(signature);
    auto open = whole.find('(');
    name = whole.substr(0, open);
    qualified = std::string("taviropy._matrixapi.") + owner + (*owner ? "." : "") + name;
    site = where;
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
    if (by_position_alone()) shown += shown.empty() ? "" : ", /";
    doc = name + "(" + shown + ")\n--\n\n" + (text ? text : "");
}

bool bind_arguments(const FunctionInfo& info, PyObject* const* args, Py_ssize_t count,
                    PyObject* keywords, PyObject** out, PyObject*& rest) {
    Py_ssize_t taken = count < info.positional ? count : info.positional;
    for (Py_ssize_t k = 0; k < taken; ++k) out[k] = args[k];
    if (info.rest >= 0) {
        rest = PyTuple_New(count - taken);
        if (!rest) return false;
        for (Py_ssize_t k = taken; k < count; ++k)
            PyTuple_SET_ITEM(rest, k - taken, Py_NewRef(args[k]));
        out[info.rest] = rest;
    } else if (count > taken) {
        return refuse(info, "takes at most " + std::to_string(info.positional) +
                                " positional arguments but " + std::to_string(count) +
                                " were given");
    }
    Py_ssize_t named = keywords ? PyTuple_GET_SIZE(keywords) : 0;
    bool fits = true;
    for (Py_ssize_t k = 0; fits && k < named; ++k) {
        PyObject* keyword = PyTuple_GET_ITEM(keywords, k);
        int place = place_of(info, keyword);
        const char* shown = PyUnicode_AsUTF8(keyword);
        if (place < 0)
            fits = refuse(info, std::string("got an unexpected keyword argument '") + shown + "'");
        else if (out[place])
            fits = refuse(info, std::string("got multiple values for argument '") + shown + "'");
        else
            out[place] = args[count + k];
    }
    for (std::size_t k = 0; fits && k < info.parameters.size(); ++k) {
        if (out[k]) continue;
        out[k] = info.defaults[k];
        if (!out[k])
            fits = refuse(info, std::string("missing required argument: '") +
                                    PyUnicode_AsUTF8(info.parameters[k]) + "'");
    }
    if (!fits) Py_CLEAR(rest);
    return fits;
}

void translate_exception(const FunctionInfo& info) noexcept {
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
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
    }
    add_traceback(info);
}

}  // namespace taviropy
