"""Hand-written arrays, handed to HiGHS in one call: what no modelling layer can be faster than."""

import highspy
import numpy as np


def _solver():
    h = highspy.Highs()
    h.setOptionValue("output_flag", False)
    return h


def _load(n, rows, c, row_lower, row_upper, indptr, indices, values):
    h = _solver()
    inf = highspy.kHighsInf
    status = h.passModel(
        n, rows, len(values), int(highspy.MatrixFormat.kRowwise), 1, 0.0,
        c, np.zeros(n), np.full(n, inf), row_lower, row_upper, indptr, indices, values,
        np.zeros(n, dtype=np.int32),
    )  # fmt: skip
    assert status == highspy.HighsStatus.kOk
    return h


def w1(d):
    return _load(
        d.n, d.n, d.c, np.full(d.n, -highspy.kHighsInf), d.r - d.b,
        d.A.indptr, d.A.indices, d.A.data,
    )  # fmt: skip


def w2(d):
    indptr = np.arange(0, d.n * d.n + 1, d.n, dtype=np.int32)
    indices = np.tile(np.arange(d.n, dtype=np.int32), d.n)
    return _load(
        d.n, d.n, d.c, np.full(d.n, -highspy.kHighsInf), d.r - d.b,
        indptr, indices, d.A.ravel(),
    )  # fmt: skip


def w3(d):
    h = _solver()
    h.addVars(d.n, np.zeros(d.n), np.full(d.n, highspy.kHighsInf))
    for k in range(len(d.r)):
        h.addRow(-highspy.kHighsInf, d.r[k], 10, d.idx[k], d.a[k])
    return h


def w4(d):
    k, nnz = d.k, d.A.nnz
    per_row = np.diff(d.A.indptr)
    # Row (i, j) of A @ X holds the entries of row i of A at the columns (l, j).
    counts = np.concatenate([np.repeat(per_row, k), np.full(2 * k, k)])
    indptr = np.zeros(k * k + 2 * k + 1, dtype=np.int32)
    np.cumsum(counts, out=indptr[1:])
    starts = np.repeat(d.A.indptr[:-1], k)
    place = np.repeat(starts - indptr[: k * k], np.repeat(per_row, k)) + np.arange(nnz * k)
    column = np.repeat(np.tile(np.arange(k), k), np.repeat(per_row, k))
    grid = np.arange(k * k, dtype=np.int32).reshape(k, k)
    indices = np.concatenate([d.A.indices[place] * k + column, grid.T.ravel(), grid.ravel()])
    values = np.concatenate([d.A.data[place], np.ones(2 * k * k)])
    low = np.concatenate([np.full(k * k, -np.inf), np.ones(k), np.full(k, -np.inf)])
    high = np.concatenate([d.B.ravel(), np.ones(k), d.s])
    return _load(
        k * k, k * k + 2 * k, np.zeros(k * k), low, high, indptr, indices.astype(np.int32), values
    )


def _quadratic(n, c, start, index, value):
    h = _solver()
    inf, none = highspy.kHighsInf, np.zeros(0, dtype=np.int32)
    status = h.passModel(
        n, 0, 0, len(value), int(highspy.MatrixFormat.kRowwise), 1, 1, 0.0,
        c, np.zeros(n), np.full(n, inf), np.zeros(0), np.zeros(0), np.zeros(1, dtype=np.int32),
        none, np.zeros(0), start, index, value, np.zeros(n, dtype=np.int32),
    )  # fmt: skip
    assert status == highspy.HighsStatus.kOk
    return h


def w5(d):
    import scipy.sparse as sp

    # HiGHS takes the lower triangle of the Hessian 2 Q, column by column.
    lower = sp.tril(d.Q, format="csc")
    return _quadratic(d.n, d.c, lower.indptr, lower.indices, 2 * lower.data)


def w5_dense(d):
    rows, columns = np.triu_indices(d.n)
    start = np.zeros(d.n + 1, dtype=np.int32)
    np.cumsum(np.arange(d.n, 0, -1), out=start[1:])
    return _quadratic(d.n, d.c, start, columns.astype(np.int32), 2 * d.Q[rows, columns])
