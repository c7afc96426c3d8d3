// The arrays inside sparse matrices, viewed so that native code can walk them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <limits>

#include "base/arrays.hpp"

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

/// Types that convert to float64 without SciPy's refusing or warning.
bool is_real_format(const base::Buffer& view);

/// An index array, viewed as contiguous int32 or int64 of any number of dimensions. Arrays of other
/// integer types and layouts are viewed through a copy.
class IndexArray {
  public:
    /// False where it is no ndarray of integers. What is viewed is NumPy's own class, so that no
    /// code of the user runs here and later.
    bool acquire(PyObject* array);
    bool wide() const { return wide_; }
    int ndim() const { return view_->ndim; }
    Py_ssize_t size() const { return view_.size(); }
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
    /// The array as it was given, borrowed.
    PyObject* array() const { return array_.get(); }
    /// Whether the view is of that array itself.
    bool is_given() const { return !copy_; }

  private:
    base::Ref array_, copy_;
    base::Buffer view_;
    bool wide_ = false;
};

/// The values of a matrix, of any dtype.
class DataArray {
  public:
    /// False where it is no ndarray; else as with indices.
    bool acquire(PyObject* array);
    int ndim() const { return ndim_; }
    Py_ssize_t length() const { return length_; }  ///< extent of the first axis
    Py_ssize_t extent(int axis) const;
    bool is_double() const { return double_; }  ///< float64, contiguous and of native byte order
    /// Whether the conversion to float64 is a plain one, as SciPy does it for all numeric types.
    bool is_real() const { return real_; }
    /// Contiguous doubles, converted where they are of another type.
    const double* doubles();
    /// The array as it was given, borrowed.
    PyObject* array() const { return array_.get(); }

  private:
    base::Ref array_, copy_;
    base::Buffer view_;
    int ndim_ = 0;
    Py_ssize_t length_ = 0;
    bool double_ = false, real_ = false;
};

}  // namespace taviropy::sparse
