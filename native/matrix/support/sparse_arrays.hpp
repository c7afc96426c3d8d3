// The arrays inside dense and sparse matrices: viewed, made, and wrapped into matrices.
//
// For the files of the sparse kit alone; everyone else includes support/sparse.hpp.
#pragma once

#include <nanobind/nanobind.h>

#include <cstdint>

#include "sparse/matrices.hpp"
#include "support/object_arrays.hpp"

namespace taviropy::sparse {

/// A dense array of real numbers with at most two axes, as a matrix; strides are in bytes.
struct Dense {
    Py_ssize_t rows = 1, cols = 1, row_stride = 0, col_stride = 0;
    const char* base = nullptr;
    ArrayBuffer view;

    /// False where NumPy and SciPy have to convert it: other types, dtypes, numbers of axes.
    bool acquire(nb::handle np, nb::handle A);
    const double& at(Py_ssize_t i, Py_ssize_t j) const {
        return *reinterpret_cast<const double*>(base + i * row_stride + j * col_stride);
    }
    /// Whether the entries of a row stand side by side.
    bool has_whole_rows() const { return col_stride == sizeof(double); }
    Py_ssize_t count_nonzero() const;
};

/// A fresh array with one axis, to be filled and then taken.
template <class T>
class Fresh {
  public:
    Fresh(nb::handle np, Py_ssize_t size);
    T* begin() const { return data_; }
    T& operator[](Py_ssize_t k) const { return data_[k]; }
    Py_ssize_t size() const { return size_; }
    nb::object take() { return std::move(array_); }

  private:
    nb::object array_;
    T* data_;  ///< stays where it is as long as nobody else has seen the array
    Py_ssize_t size_;
};

extern template class Fresh<double>;
extern template class Fresh<std::int32_t>;
extern template class Fresh<std::int64_t>;

/// The arrays of a new csr matrix.
template <class I>
struct CsrArrays {
    Fresh<double> data;
    Fresh<I> indices, indptr;

    CsrArrays(nb::handle np, Py_ssize_t rows, Py_ssize_t nnz)
        : data(np, nnz), indices(np, nnz), indptr(np, rows + 1) {}
};

/// csr_matrix((data, indices, indptr), shape=(rows, cols)), for sound arrays, which are not copied.
nb::object new_csr(nb::handle sp, nb::handle data, nb::handle indices, nb::handle indptr,
                   Py_ssize_t rows, Py_ssize_t cols);

template <class I>
nb::object new_csr(nb::handle sp, CsrArrays<I>&& arrays, Py_ssize_t rows, Py_ssize_t cols) {
    return new_csr(sp, arrays.data.take(), arrays.indices.take(), arrays.indptr.take(), rows, cols);
}

/// coo_matrix((data, (row, col)), shape=(rows, cols)), for sound arrays, which are not copied.
nb::object new_coo(nb::handle sp, nb::handle data, nb::handle row, nb::handle col, Py_ssize_t rows,
                   Py_ssize_t cols, bool canonical = false);

}  // namespace taviropy::sparse
