// What reading and writing of model files share.
#pragma once

#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/arrays.hpp"

namespace taviropy {

using namespace base;

/// The characters of an ASCII str, alive as long as it is.
inline std::string_view ascii_view(PyObject* text) {
    if (!PyUnicode_Check(text) || !PyUnicode_IS_ASCII(text))
        raise(PyExc_ValueError, "expected a str of ASCII characters");
    return {static_cast<const char*>(PyUnicode_DATA(text)),
            static_cast<std::size_t>(PyUnicode_GET_LENGTH(text))};
}

inline Ref new_text(std::string_view text) {
    return checked(PyUnicode_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size())));
}

/// A list of ASCII str.
inline std::vector<std::string_view> ascii_views(PyObject* list) {
    if (!PyList_Check(list)) raise(PyExc_TypeError, "expected a list of str");
    std::vector<std::string_view> views;
    views.reserve(static_cast<std::size_t>(PyList_GET_SIZE(list)));
    for (Py_ssize_t k = 0; k < PyList_GET_SIZE(list); ++k)
        views.push_back(ascii_view(PyList_GET_ITEM(list, k)));
    return views;
}

/// Numbers by name. The names are views of texts that live longer.
using Numbering = std::unordered_map<std::string_view, int64_t>;

/// The names of a dict of str and int that are ASCII; no other one can come up in ASCII text.
inline Numbering numbering_of(PyObject* dict) {
    if (!PyDict_Check(dict)) raise(PyExc_TypeError, "expected a dict of str and int");
    Numbering numbers;
    numbers.reserve(static_cast<std::size_t>(PyDict_GET_SIZE(dict)));
    PyObject *name, *number;
    for (Py_ssize_t place = 0; PyDict_Next(dict, &place, &name, &number);) {
        if (!PyUnicode_Check(name) || !PyUnicode_IS_ASCII(name)) continue;
        const long long value = checked(PyLong_AsLongLong(number));
        numbers.emplace(ascii_view(name), value);
    }
    return numbers;
}

/// A new array with the items.
template <class Item>
Ref array_of(const char* dtype, const std::vector<Item>& items) {
    FilledArray<Item> array(dtype, static_cast<Py_ssize_t>(items.size()));
    std::copy(items.begin(), items.end(), array.items);
    return std::move(array.array);
}

extern PyMethodDef reading_methods[];
extern PyMethodDef writing_methods[];

}  // namespace taviropy
