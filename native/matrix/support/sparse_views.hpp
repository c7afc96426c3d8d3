// The arrays of a CSR or CSC matrix, read natively.
#pragma once

#include <nanobind/nanobind.h>

#include "support/sparse_arrays.hpp"

namespace taviropy::sparse {

/// The stored entries of one row of a CSR matrix, or of one column of a CSC matrix.
struct Line {
    Py_ssize_t begin, end;
    Py_ssize_t size() const { return end - begin; }
};

/// Reads a float64 matrix in compressed form, line by line. Whatever its arrays hold, nothing
/// outside them is read: a line that doesn't lie within them, and an index out of range, is a
/// ValueError.
class CompressedView {
  public:
    explicit CompressedView(nb::handle matrix);

    /// How many lines there are by the index pointers.
    Py_ssize_t lines() const { return indptr_.size() - 1; }
    Line line(Py_ssize_t i) const {
        Line found = {indptr_[i], indptr_[i + 1]};
        if (found.begin < 0 || found.end < found.begin || found.end > stored_) refuse_line(i);
        return found;
    }
    /// The index of a stored entry, which must be below `limit`.
    Py_ssize_t index(Py_ssize_t k, Py_ssize_t limit) const {
        Py_ssize_t found = indices_[k];
        if (found < 0 || found >= limit) refuse_index(found, limit);
        return found;
    }

    /// The values of a line as a new list of floats.
    nb::object value_list(Line line) const;
    /// The objects of a strided array that the indices of a line pick, as a new list.
    nb::object picked_list(Line line, const Chunk& objects, Py_ssize_t size) const;

  private:
    [[noreturn]] static void refuse_line(Py_ssize_t i);
    [[noreturn]] static void refuse_index(Py_ssize_t found, Py_ssize_t limit);

    IndexArray indptr_, indices_;
    DataArray data_;
    const double* values_;
    Py_ssize_t stored_;
};

}  // namespace taviropy::sparse
