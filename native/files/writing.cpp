// Coefficients as text. Numbers are the shortest texts that are read as the same ones, infinity is
// 1e+30; names and numbers are ASCII.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>

#include "files.hpp"

namespace taviropy {

namespace {

constexpr double kFar = 1e30;
constexpr double kLargestWhole = 1e15;  // written by its digits, as 100000 is rather than 1e+05

void append_number(std::string& text, double value) {
    char digits[32];
    if (std::isinf(value)) value = std::copysign(kFar, value);
    std::to_chars_result end{};
    if (std::abs(value) <= kLargestWhole && value == std::trunc(value))
        end = std::to_chars(digits, digits + sizeof digits, static_cast<long long>(value));
    else
        end = std::to_chars(digits, digits + sizeof digits, value);
    text.append(digits, end.ptr);
}

/// Coefficients in lines, as CSR or CSC arrays have them; checked, so that they can be walked.
struct Lines {
    Lines(PyObject* const* arrays, std::size_t names)
        : indptr_(arrays[0], PyBUF_CONTIG_RO | PyBUF_FORMAT),
          ids_(arrays[1], PyBUF_CONTIG_RO | PyBUF_FORMAT),
          data_(arrays[2], PyBUF_CONTIG_RO | PyBUF_FORMAT) {
        if (!(indptr_.holds('l') || indptr_.holds('q')) || !ids_.holds('i') || !data_.holds('d'))
            raise(PyExc_TypeError, "expected arrays of int64, int32 and float64");
        bool fits = indptr_.size() > 0 && starts()[0] >= 0 && ids_.size() == data_.size() &&
                    starts()[count()] <= ids_.size();
        for (Py_ssize_t k = 0; fits && k < count(); ++k) fits = starts()[k] <= starts()[k + 1];
        for (Py_ssize_t k = 0; fits && k < ids_.size(); ++k)
            fits = ids()[k] >= 0 && static_cast<std::size_t>(ids()[k]) < names;
        if (!fits) raise(PyExc_ValueError, "the arrays of coefficients don't fit each other");
    }

    Py_ssize_t count() const { return indptr_.size() - 1; }
    const int64_t* starts() const { return static_cast<const int64_t*>(indptr_->buf); }
    const int32_t* ids() const { return static_cast<const int32_t*>(ids_->buf); }
    const double* data() const { return static_cast<const double*>(data_->buf); }

  private:
    Buffer indptr_, ids_, data_;
};

Ref number_texts(PyObject*, PyObject* array) {
    Buffer values(array, PyBUF_CONTIG_RO | PyBUF_FORMAT);
    if (!values.holds('d')) raise(PyExc_TypeError, "expected an array of float64");
    const auto* items = static_cast<const double*>(values->buf);
    Ref list = checked(PyList_New(values.size()));
    std::string text;
    for (Py_ssize_t k = 0; k < values.size(); ++k) {
        text.clear();
        append_number(text, items[k]);
        PyList_SET_ITEM(list.get(), k, new_text(text).release());
    }
    return list;
}

/// For each column lines " name other number", one a coefficient. The columns have `names`.
Ref column_texts(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("column_texts", nargs, 5, 5);
    const auto names = ascii_views(args[0]), others = ascii_views(args[1]);
    const Lines columns(args + 2, others.size());
    if (static_cast<Py_ssize_t>(names.size()) != columns.count())
        raise(PyExc_ValueError, "there are %zd columns and %zd names", columns.count(),
              static_cast<Py_ssize_t>(names.size()));
    Ref list = checked(PyList_New(columns.count()));
    std::string text;
    for (Py_ssize_t j = 0; j < columns.count(); ++j) {
        text.clear();
        for (int64_t k = columns.starts()[j]; k < columns.starts()[j + 1]; ++k) {
            text.append(" ").append(names[j]).append(" ").append(others[columns.ids()[k]]);
            text.append(" ");
            append_number(text, columns.data()[k]);
            text.append("\n");
        }
        PyList_SET_ITEM(list.get(), j, new_text(text).release());
    }
    return list;
}

/// For each row the text of its sum, as " x - 2 y", with `width` terms a line.
Ref sum_texts(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("sum_texts", nargs, 5, 5);
    const auto names = ascii_views(args[0]);
    const Lines rows(args + 1, names.size());
    const Py_ssize_t width = checked(PyLong_AsSsize_t(args[4]));
    if (width < 1) raise(PyExc_ValueError, "a line has at least one term");
    Ref list = checked(PyList_New(rows.count()));
    std::string text;
    for (Py_ssize_t i = 0; i < rows.count(); ++i) {
        text.clear();
        const int64_t start = rows.starts()[i];
        for (int64_t k = start; k < rows.starts()[i + 1]; ++k) {
            const double value = rows.data()[k];
            if (k > start && (k - start) % width == 0) text.append("\n ");
            if (k > start || value < 0) text.append(value < 0 ? " -" : " +");
            text.append(" ");
            if (std::abs(value) != 1.0) {
                append_number(text, std::abs(value));
                text.append(" ");
            }
            text.append(names[rows.ids()[k]]);
        }
        PyList_SET_ITEM(list.get(), i, new_text(text).release());
    }
    return list;
}

}  // namespace

PyMethodDef writing_methods[] = {
    {"number_texts", method<number_texts>(), METH_O,
     "The numbers as the shortest texts that are read as the same ones."},
    {"column_texts", method<column_texts>(), METH_FASTCALL,
     "For each column the lines of its coefficients: its name, the row's name and the number."},
    {"sum_texts", method<sum_texts>(), METH_FASTCALL, "For each row the text of its sum."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace taviropy
