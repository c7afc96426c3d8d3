// The arrays inside sparse matrices: viewed, checked, made, and wrapped into matrices.
//
// For the files of the sparse kit alone; everyone else includes support/sparse.hpp.
#pragma once

#include <nanobind/nanobind.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <limits>

#include "support/object_arrays.hpp"

namespace taviropy::sparse {

/// Calls `body` with a value of the index type: int64 where `wide`, else int32.
template <class Body>
decltype(auto) with_index(bool wide, Body&& body) {
    return wide ? body(std::int64_t()) : body(std::int32_t());
}

/// Whether indices that reach these values need int64.
inline bool needs_wide(std::initializer_list<Py_ssize_t> values) {
    return std::max(values) > std::numeric_limits<std::int32_t>::max();
}

/// An index array, viewed as contiguous int32 or int64 of any number of dimensions. Arrays of other
/// integer types and layouts are viewed through a copy.
class IndexArray {
  public:
    /// False where it is no ndarray of integers. What is viewed is NumPy's own class, so that no
    /// code of the user runs here and later.
    bool acquire(nb::handle array);
    bool wide() const { return wide_; }
    int ndim() const { return view_->ndim; }
    Py_ssize_t size() const { return view_->len / view_->itemsize; }
    template <class I>
    const I* as() const {
        return static_cast<const I*>(view_->buf);
    }
    Py_ssize_t operator[](Py_ssize_t k) const {
        return wide_ ? as<std::int64_t>()[k] : as<std::int32_t>()[k];
    }
    /// Gives both the same width, the larger of the two.
    static void unify(IndexArray& a, IndexArray& b);
    void widen();
    /// The array as it was given.
    nb::handle array() const { return array_; }
    /// Whether the view is of that array itself.
    bool is_given() const { return viewed_.is(array_); }

  private:
    nb::object array_, viewed_;
    ArrayBuffer view_;
    bool wide_ = false;
};

/// The values of a matrix, of any dtype.
class DataArray {
  public:
    /// False where it is no ndarray; else as with indices.
    bool acquire(nb::handle array);
    int ndim() const { return ndim_; }
    Py_ssize_t length() const { return length_; }  ///< extent of the first axis
    Py_ssize_t extent(int axis) const;
    bool is_double() const { return double_; }  ///< float64, contiguous and of native byte order
    /// Whether the conversion to float64 is a plain one, as SciPy does it for all numeric types.
    bool is_real() const { return real_; }
    /// Contiguous doubles; for real data alone.
    const double* doubles(nb::handle np);
    /// The array as it was given.
    nb::handle array() const { return array_; }

  private:
    nb::object array_, viewed_;
    ArrayBuffer view_;
    int ndim_ = 0;
    Py_ssize_t length_ = 0;
    bool double_ = false, real_ = false;
};

/// A matrix in csr, csc or bsr format, its arrays viewed and found sound. `major` and `minor` are
/// the rows and columns of a csr matrix, the columns and rows of a csc matrix, counted in blocks
/// for bsr.
struct Compressed {
    Py_ssize_t major = 0, minor = 0;
    Py_ssize_t nnz = 0;  ///< stored entries; the arrays may be longer
    IndexArray indptr, indices;
    DataArray data;

    struct Later {};

    Compressed(nb::handle A, const char* format) : Compressed(A, format, Later()) { check(A); }
    /// The views alone, and the extents. Reading a matrix may run code of the user, which may
    /// change the arrays of another one: where several are needed, `check` follows when all are
    /// viewed.
    Compressed(nb::handle A, const char* format, Later);
    /// Finds the arrays sound and counts the stored entries; `A` is named in errors.
    void check(nb::handle A);
    bool wide() const { return indices.wide(); }
    bool has_spare() const { return indices.size() != nnz || data.length() != nnz; }
};

/// A two-dimensional matrix in coo format, its arrays viewed and found sound.
struct Triplets {
    Py_ssize_t rows = 0, cols = 0, nnz = 0;
    IndexArray row, col;
    DataArray data;

    explicit Triplets(nb::handle A);
    bool wide() const { return row.wide(); }
};

/// What a matrix is, where the kit knows its layout: the very classes of SciPy, two-dimensional.
enum class Format { csr, csc, coo, other };
struct Kind {
    Format format = Format::other;
    bool is_array = false;  ///< csr_array and the like, rather than csr_matrix
};
Kind kind_of(nb::handle sp, nb::handle A);

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
