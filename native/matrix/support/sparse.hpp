// Sparse matrices of the compact forms: made, stacked and multiplied.
//
// Every function gives the matrix that the SciPy expression in its comment gives, entry for entry
// and dtype for dtype. Matrices that come from a user pass `check` before anything walks them.
#pragma once

#include <nanobind/nanobind.h>

#include <vector>

namespace taviropy::sparse {

namespace nb = nanobind;

/// Refuses a malformed sparse matrix (arrays too short, index pointers that fall, indices out of
/// range) by ValueError. What isn't sparse passes. Unsorted, duplicate and explicitly zero entries
/// are legal.
void check(nb::handle matrix);

/// The matrix, checked; a twin of it where its arrays are longer than what it stores.
nb::object sound(nb::handle matrix);

/// csr_matrix(A, dtype=float64, copy=copy), for anything that csr_matrix takes. Checked.
nb::object to_csr(nb::handle A, bool copy);

/// A.copy(), for a csr or coo matrix of ours
nb::object copy(nb::handle A);

/// csr_matrix(A.T, dtype=float64, copy=True), with sorted indices. Checked.
nb::object transposed_to_csr(nb::handle A);

/// csr_matrix(eye(n), dtype=float64)
nb::object identity(Py_ssize_t n);

/// hstack((identity(n), identity(n)))
nb::object twin_identity(Py_ssize_t n);

/// spdiags(full(n, value), 0, n, n, format='csr')
nb::object scaled_identity(Py_ssize_t n, double value);

/// A csr matrix of ours in a stack, or a single row, which stands in each row of the stack.
struct Beside {
    nb::object A;
    bool repeated = false;
};

/// hstack(matrices, format='csr'), with kron(ones((rows, 1)), A) for a repeated row A. Where
/// nothing is repeated, `rows` doesn't count.
nb::object hstack(const std::vector<Beside>& matrices, Py_ssize_t rows = 0);

/// csr_matrix(kron(ones((rows, 1)), A)): the single row of A, `rows` times
nb::object repeat_row(nb::handle A, Py_ssize_t rows);

/// csr_matrix(broadcast_to(row, (rows, size))), for a row of numbers; zeros are dropped
nb::object repeated_row(const double* row, Py_ssize_t size, Py_ssize_t rows);

/// Multiplies the entries of each row of a csr matrix of ours by its own factor, in place.
/// `factors` is an array with one number for each row, in C order.
void scale_rows(nb::handle A, nb::handle factors);

/// csr_matrix(kron(left, right, format='csr'), dtype=float64). Checked.
nb::object kron(nb::handle left, nb::handle right);

/// csr_matrix(left @ right, dtype=float64, copy=False) for a product with a csr matrix of ours.
/// Checked.
nb::object product(nb::handle left, nb::handle right);

/// coo_matrix(A, dtype=float64, copy=copy). Checked.
nb::object to_coo(nb::handle A, bool copy);

/// block_diag(matrices, format='coo'), for a list of coo matrices of ours
nb::object block_diag(nb::list matrices);

/// A.toarray(), checked first: SciPy itself walks malformed matrices into foreign memory.
nb::object to_array(nb::handle A);

}  // namespace taviropy::sparse
