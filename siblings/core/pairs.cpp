// Products of two variables, summed up to the rows of an upper triangle.
#include <algorithm>
#include <deque>
#include <memory>
#include <vector>

#include "common/arrays.hpp"
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
        if (!ids1_.has_format("i") || !ids2_.has_format("i") || !data_.has_format("d"))
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
void sort_entries(Entry* begin, Entry* end) {
    Entry* second = std::is_sorted_until(begin, end, by_column);
    if (second == end) return;
    if (std::is_sorted(second, end, by_column))
        std::inplace_merge(begin, second, end, by_column);
    else
        std::stable_sort(begin, end, by_column);
}

/// Adds up sorted entries of equal column, in place, without what comes out zero; gives the end.
Entry* summed_entries(Entry* begin, Entry* end, Entry* out) {
    while (begin != end) {
        Entry sum = *begin++;
        while (begin != end && begin->column == sum.column) sum.value += (begin++)->value;
        if (sum.value != 0.0) *out++ = sum;
    }
    return out;
}

/// The terms of all parts as rows of entries, and their number.
class Triangle {
  public:
    explicit Triangle(const std::deque<Part>& parts) : starts_(row_count(parts) + 1, 0) {
        for (const Part& part : parts)
            part.each([this](int32_t row, int32_t, double) { ++starts_[row + 1]; });
        for (std::size_t row = 1; row < starts_.size(); ++row) starts_[row] += starts_[row - 1];
        entries_ =
            std::make_unique_for_overwrite<Entry[]>(static_cast<std::size_t>(starts_.back()));
        std::vector<int64_t> next(starts_.begin(), starts_.end() - 1);
        for (const Part& part : parts)
            part.each([&](int32_t row, int32_t column, double value) {
                entries_[next[row]++] = {column, value};
            });
        sum_up();
    }

    /// (ids1, ids2, data) as arrays
    Ref arrays() const {
        const int64_t count = starts_.back();
        FilledArray<int32_t> rows("int32", count), columns("int32", count);
        FilledArray<double> data("float64", count);
        for (std::size_t row = 0; row + 1 < starts_.size(); ++row)
            std::fill(rows.items + starts_[row], rows.items + starts_[row + 1],
                      static_cast<int32_t>(row));
        for (int64_t k = 0; k < count; ++k) {
            columns.items[k] = entries_[k].column;
            data.items[k] = entries_[k].value;
        }
        return checked(PyTuple_Pack(3, rows.array.get(), columns.array.get(), data.array.get()));
    }

  private:
    static std::size_t row_count(const std::deque<Part>& parts) {
        int32_t smallest = 0, largest = -1;
        for (const Part& part : parts)
            part.each([&](int32_t row, int32_t column, double) {
                smallest = std::min(smallest, row);
                largest = std::max(largest, column);
            });
        if (smallest < 0) raise(PyExc_ValueError, "sum_pairs got the id %d", smallest);
        return static_cast<std::size_t>(largest) + 1;
    }

    void sum_up() {
        Entry* out = entries_.get();
        int64_t begin = 0;
        for (std::size_t row = 0; row + 1 < starts_.size(); ++row) {
            const int64_t end = starts_[row + 1];
            sort_entries(entries_.get() + begin, entries_.get() + end);
            out = summed_entries(entries_.get() + begin, entries_.get() + end, out);
            starts_[row + 1] = out - entries_.get();
            begin = end;
        }
    }

    std::vector<int64_t> starts_;  ///< by the smaller id of a pair
    std::unique_ptr<Entry[]> entries_;
};

Ref sum_pairs(PyObject*, PyObject* parts) {
    if (!PyList_Check(parts)) raise(PyExc_TypeError, "sum_pairs takes a list of parts");
    std::deque<Part> terms;
    for (Py_ssize_t k = 0; k < PyList_GET_SIZE(parts); ++k)
        terms.emplace_back(PyList_GET_ITEM(parts, k));
    return Triangle(terms).arrays();
}

PyMethodDef functions[] = {
    {"sum_pairs", method<sum_pairs>(), METH_O,
     "sum_pairs(parts, /)\n--\n\nThe sum of quadratic terms, each pair of variables once and none "
     "with the coefficient 0.\n\nparts is a list of (ids1 int32, ids2 int32, coeffs float64), "
     "contiguous arrays. Gives arrays of the\nsame kinds; the smaller id of a pair comes first, "
     "and the pairs rise.\n\nTypeError and ValueError for other arrays."},
    {nullptr},
};

}  // namespace

void ready_pairs(PyObject* module) { check(PyModule_AddFunctions(module, functions)); }

}  // namespace taviropy
