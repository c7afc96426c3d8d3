// Products of two variables, summed up to the rows of an upper triangle.
#include <algorithm>
#include <deque>
#include <memory>
#include <vector>

#include "base/arrays.hpp"
#include "scalars.hpp"

namespace taviropy {

namespace {

/// The terms of one part: data[k] * x[ids1[k]] * x[ids2[k]].
class Part {
  public:
    explicit Part(PyObject* arrays)
        : ids1_(item(arrays, 0), PyBUF_CONTIG_RO | PyBUF_FORMAT),
          ids2_(item(arrays, 1), PyBUF_CONTIG_RO | PyBUF_FORMAT),
          data_(item(arrays, 2), PyBUF_CONTIG_RO | PyBUF_FORMAT) {
        if (!ids1_.holds('i') || !ids2_.holds('i') || !data_.holds('d'))
            raise(PyExc_TypeError, "sum_pairs takes arrays of int32, int32 and float64");
        if (ids1_.size() != ids2_.size() || ids1_.size() != data_.size())
            raise(PyExc_ValueError, "sum_pairs got %zd, %zd and %zd entries in one part",
                  ids1_.size(), ids2_.size(), data_.size());
    }

    /// Calls visit(smaller id, larger id, coefficient) for each term.
    template <class Visit>
    void each(Visit visit) const {
        const auto *ids1 = static_cast<const int32_t*>(ids1_->buf),
                   *ids2 = static_cast<const int32_t*>(ids2_->buf);
        const auto* data = static_cast<const double*>(data_->buf);
        for (Py_ssize_t k = 0; k < data_.size(); ++k)
            visit(std::min(ids1[k], ids2[k]), std::max(ids1[k], ids2[k]), data[k]);
    }

  private:
    static PyObject* item(PyObject* arrays, Py_ssize_t k) {
        if (!PyTuple_Check(arrays) || PyTuple_GET_SIZE(arrays) != 3)
            raise(PyExc_TypeError, "a part of sum_pairs is a tuple of three arrays");
        return PyTuple_GET_ITEM(arrays, k);
    }

    Buffer ids1_, ids2_, data_;
};

struct Entry {
    int32_t column;
    double value;
};

bool by_column(const Entry& a, const Entry& b) { return a.column < b.column; }

/// Sorts entries by column. A symmetric matrix puts two rising runs into a row: its own entries
/// right of the diagonal, and those below it.
void sort_entries(std::vector<Entry>& row) {
    auto second = std::is_sorted_until(row.begin(), row.end(), by_column);
    if (second == row.end()) return;
    if (std::is_sorted(second, row.end(), by_column))
        std::inplace_merge(row.begin(), second, row.end(), by_column);
    else
        std::stable_sort(row.begin(), row.end(), by_column);
}

/// A filled array cut to its first items, in place.
template <class Item>
Ref first_items(std::unique_ptr<FilledArray<Item>> filled, Py_ssize_t count) {
    const bool is_longer = filled->buffer.size() > count;
    Ref array = std::move(filled->array);
    filled.reset();
    if (is_longer) {
        Ref resize = field(array.get(), "resize");
        Ref size = checked(Py_BuildValue("(n)", count));
        Ref options = checked(Py_BuildValue("{s:O}", "refcheck", Py_False));
        checked(PyObject_Call(resize.get(), size.get(), options.get()));
    }
    return array;
}

/// The terms of all parts as rows of entries, which become the arrays of the result.
class Triangle {
  public:
    Triangle(const std::deque<Part>& parts, Py_ssize_t size) : starts_(size + 1, 0) {
        const auto end = static_cast<uint64_t>(size);
        for (const Part& part : parts)
            part.each([&](int32_t row, int32_t column, double) {
                if (row < 0 || static_cast<uint64_t>(column) >= end) refuse_pair(row, column, size);
                ++starts_[row + 1];
            });
        for (Py_ssize_t row = 0; row < size; ++row) starts_[row + 1] += starts_[row];
        columns_ = std::make_unique<FilledArray<int32_t>>("int32", starts_.back());
        values_ = std::make_unique<FilledArray<double>>("float64", starts_.back());
        std::vector<int64_t> next(starts_.begin(), starts_.end() - 1);
        for (const Part& part : parts)
            part.each([&](int32_t row, int32_t column, double value) {
                const int64_t place = next[row]++;
                columns_->items[place] = column;
                values_->items[place] = value;
            });
        sum_up();
    }

    /// (ids1, ids2, data) as arrays
    Ref arrays() && {
        const int64_t count = starts_.back();
        FilledArray<int32_t> rows("int32", count);
        for (std::size_t row = 0; row + 1 < starts_.size(); ++row)
            std::fill(rows.items + starts_[row], rows.items + starts_[row + 1],
                      static_cast<int32_t>(row));
        Ref columns = first_items(std::move(columns_), count);
        Ref values = first_items(std::move(values_), count);
        return checked(PyTuple_Pack(3, rows.array.get(), columns.get(), values.get()));
    }

  private:
    [[noreturn]] static void refuse_pair(int32_t row, int32_t column, Py_ssize_t size) {
        raise(PyExc_ValueError, "sum_pairs got the ids %d and %d; they go from 0 to %zd", row,
              column, size - 1);
    }

    /// Sorts each row, adds up what has the same column and leaves out what comes out zero.
    void sum_up() {
        std::vector<Entry> entries;
        int64_t begin = 0, out = 0;
        for (std::size_t row = 0; row + 1 < starts_.size(); ++row) {
            const int64_t end = starts_[row + 1];
            entries.clear();
            for (int64_t k = begin; k < end; ++k)
                entries.push_back({columns_->items[k], values_->items[k]});
            sort_entries(entries);
            for (std::size_t k = 0; k < entries.size();) {
                Entry sum = entries[k++];
                while (k < entries.size() && entries[k].column == sum.column)
                    sum.value += entries[k++].value;
                if (sum.value == 0.0) continue;
                columns_->items[out] = sum.column;
                values_->items[out++] = sum.value;
            }
            starts_[row + 1] = out;
            begin = end;
        }
    }

    std::vector<int64_t> starts_;  ///< by the smaller id of a pair
    std::unique_ptr<FilledArray<int32_t>> columns_;
    std::unique_ptr<FilledArray<double>> values_;
};

Ref sum_pairs(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    check_count("sum_pairs", nargs, 2, 2);
    PyObject* parts = args[0];
    const Py_ssize_t size = checked(PyLong_AsSsize_t(args[1]));
    if (size < 0) raise(PyExc_ValueError, "sum_pairs got the number %zd of variables", size);
    if (!PyList_Check(parts)) raise(PyExc_TypeError, "sum_pairs takes a list of parts");
    std::deque<Part> terms;
    for (Py_ssize_t k = 0; k < PyList_GET_SIZE(parts); ++k)
        terms.emplace_back(PyList_GET_ITEM(parts, k));
    return Triangle(terms, size).arrays();
}

PyMethodDef functions[] = {
    {"sum_pairs", method<sum_pairs>(), METH_FASTCALL,
     R"(sum_pairs(parts, size, /)
--

The sum of quadratic terms, each pair of variables once and none with the coefficient 0.

parts is a list of (ids1 int32, ids2 int32, coeffs float64), contiguous arrays; ids are below size. Gives arrays of the
same kinds; the smaller id of a pair comes first, and the pairs rise.

TypeError and ValueError for other arrays.)"},
    {nullptr},
};

}  // namespace

void ready_pairs(PyObject* module) { check(PyModule_AddFunctions(module, functions)); }

}  // namespace taviropy
