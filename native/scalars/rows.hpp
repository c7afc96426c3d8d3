// Rows of constraints as the core meets them: CSR matrices, three NumPy arrays each, that are
// checked before they are walked.
#pragma once

#include "base/arrays.hpp"

namespace taviropy {

using namespace base;

/// A one-dimensional array of int32 or int64 that lies in one piece.
class IntegerArray {
  public:
    explicit IntegerArray(PyObject* array)
        : buffer_(array, PyBUF_FORMAT | PyBUF_C_CONTIGUOUS), narrow_(buffer_.holds('i')) {}

    bool fits() const {
        return buffer_->ndim == 1 && (narrow_ || buffer_.holds('l') || buffer_.holds('q'));
    }
    Py_ssize_t size() const { return buffer_.size(); }
    bool is_narrow() const { return narrow_; }
    const int32_t* narrow() const { return static_cast<const int32_t*>(buffer_->buf); }
    const int64_t* wide() const { return static_cast<const int64_t*>(buffer_->buf); }
    int64_t operator[](Py_ssize_t k) const {
        return narrow_ ? static_cast<const int32_t*>(buffer_->buf)[k]
                       : static_cast<const int64_t*>(buffer_->buf)[k];
    }

  private:
    Buffer buffer_;
    bool narrow_;
};

/// The arrays of a CSR matrix.
struct CsrArrays {
    CsrArrays(PyObject* indptr_array, PyObject* indices_array, PyObject* data_array)
        : indptr(indptr_array),
          indices(indices_array),
          data(data_array, PyBUF_FORMAT | PyBUF_C_CONTIGUOUS) {}

    /// Whether the arrays make up `rows` rows: indptr starts at 0, never falls and stays within.
    bool is_whole(Py_ssize_t rows) const {
        if (!indptr.fits() || !indices.fits() || data->ndim != 1 || !data.holds('d') ||
            indptr.size() != rows + 1 || indptr[0] != 0)
            return false;
        for (Py_ssize_t row = 0; row < rows; ++row)
            if (indptr[row] > indptr[row + 1]) return false;
        return indptr[rows] <= indices.size() && indptr[rows] <= data.size();
    }
    const double* values() const { return static_cast<const double*>(data->buf); }

    IntegerArray indptr, indices;
    Buffer data;
};

/// Names of the fields of a compact expression and of its matrices.
struct FieldNames {
    PyObject *matmulparts, *constant, *indptr, *indices, *data, *vararr;
};
extern FieldNames field_names;

inline Ref field(PyObject* object, PyObject* name) {
    return checked(PyObject_GetAttr(object, name));
}

void ready_row_checks(PyObject* module);

}  // namespace taviropy
