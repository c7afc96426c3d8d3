// Sparse matrices that come from a user, viewed and found sound.
//
// SciPy's own code trusts the arrays and walks malformed ones into foreign memory, so this comes
// before anything of SciPy's touches them. Unsorted, duplicate and explicitly zero entries are
// legal. Errors are those of native/base: a `PythonError`, with Python's error set.
#pragma once

#include "arrays.hpp"

namespace taviropy::sparse {

/// A matrix in csr, csc or bsr format, its arrays viewed and found sound. `major` and `minor` are
/// the rows and columns of a csr matrix, the columns and rows of a csc matrix, counted in blocks
/// for bsr.
struct Compressed {
    Py_ssize_t major = 0, minor = 0;
    Py_ssize_t nnz = 0;  ///< stored entries; the arrays may be longer
    IndexArray indptr, indices;
    DataArray data;

    struct Later {};

    Compressed(PyObject* A, const char* format) : Compressed(A, format, Later()) { check(A); }
    /// The views alone, and the extents. Reading a matrix may run code of the user, which may
    /// change the arrays of another one: where several are needed, `check` follows when all are
    /// viewed.
    Compressed(PyObject* A, const char* format, Later);
    /// Finds the arrays sound and counts the stored entries; `A` is named in errors.
    void check(PyObject* A);
    bool wide() const { return indices.wide(); }
    bool has_spare() const { return indices.size() != nnz || data.length() != nnz; }
};

/// A two-dimensional matrix in coo format, its arrays viewed and found sound.
struct Triplets {
    Py_ssize_t rows = 0, cols = 0, nnz = 0;
    IndexArray row, col;
    DataArray data;

    explicit Triplets(PyObject* A);
    bool wide() const { return row.wide(); }
};

/// What a matrix is, where its layout is known: the very classes of SciPy, two-dimensional.
enum class Format { csr, csc, coo, other };
struct Kind {
    Format format = Format::other;
    bool is_array = false;  ///< csr_array and the like, rather than csr_matrix
};
Kind kind_of(PyObject* A);

/// The matrix, found sound; a twin of it where its arrays are longer than what it stores, or where
/// its class is derived from SciPy's. ValueError for a malformed one: arrays too short, index
/// pointers that fall, indices out of range. What isn't sparse passes as it is.
base::Ref sound(PyObject* A);

}  // namespace taviropy::sparse
