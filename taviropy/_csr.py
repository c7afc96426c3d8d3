"""Rows of coefficients as three arrays: ``indptr``, ``ids`` (of variables) and ``data``.

All functions work on whole blocks in time proportional to what goes in and comes out. They never
write to their operands, and may return them.
"""

from __future__ import annotations

import math

import numpy as np

from ._scalars import scan_rows


class Rows:
    """CSR rows. ``indptr`` has one entry more than rows; row k is ``indptr[k]:indptr[k + 1]``.

    ``shared`` tells that somebody else may change the arrays, ``finite`` that all coefficients are
    known to be finite, ``rising`` that the ids are known to rise in each row.
    """

    __slots__ = ("indptr", "ids", "data", "shared", "finite", "rising")

    def __init__(self, indptr, ids, data, shared=False, finite=False, rising=False):
        self.indptr = indptr
        self.ids = ids
        self.data = data
        self.shared = shared
        self.finite = finite
        self.rising = rising

    @property
    def count(self):
        """The number of rows."""
        return len(self.indptr) - 1

    @property
    def nnz(self):
        """The number of stored coefficients."""
        return len(self.data)

    def by_row(self):
        """These rows."""
        return self

    def by_column(self, columns):
        """The same coefficients by column; ids are below `columns`, and none comes twice a row."""
        import scipy.sparse as sp

        shape = (self.count, columns)
        matrix = sp.csr_matrix((self.data, self.ids, self.indptr), shape=shape).tocsc()
        return Columns(self.count, matrix.indptr, matrix.indices, matrix.data)

    def copy(self):
        """Rows that share no array with these."""
        arrays = self.indptr.copy(), self.ids.copy(), self.data.copy()
        return Rows(*arrays, finite=self.finite, rising=self.rising)


class Columns:
    """CSC columns: the coefficients of column j are at ``indptr[j]:indptr[j + 1]``."""

    __slots__ = ("count", "indptr", "rows", "data")

    def __init__(self, count, indptr, rows, data):
        self.count = count  # of rows
        self.indptr = indptr
        self.rows = rows
        self.data = data

    def by_row(self):
        """The same coefficients as `Rows`."""
        import scipy.sparse as sp

        shape = (self.count, len(self.indptr) - 1)
        matrix = sp.csc_matrix((self.data, self.rows, self.indptr), shape=shape).tocsr()
        return Rows(matrix.indptr, matrix.indices, matrix.data, finite=True, rising=True)


def empty(count):
    """`count` rows without coefficients."""
    return Rows(np.zeros(count + 1, np.int32), np.empty(0, np.int32), np.empty(0))


def take(rows, which):
    """The rows with the numbers `which`, which may repeat."""
    lengths = np.diff(rows.indptr)[which]
    indptr = _offsets(lengths)
    source = np.arange(indptr[-1]) + np.repeat(rows.indptr[:-1][which] - indptr[:-1], lengths)
    return Rows(indptr, rows.ids[source], rows.data[source], finite=rows.finite, rising=rows.rising)


def side_by_side(parts):
    """Row k of the result holds row k of every part, one after the other."""
    if len(parts) == 1:
        return parts[0]
    lengths = [np.diff(part.indptr) for part in parts]
    indptr = _offsets(np.sum(lengths, axis=0))
    ids, data = np.empty(indptr[-1], parts[0].ids.dtype), np.empty(indptr[-1])
    start = indptr[:-1].copy()
    for part, length in zip(parts, lengths, strict=True):
        target = np.arange(part.nnz) + np.repeat(start - part.indptr[:-1], length)
        ids[target], data[target] = part.ids, part.data
        start += length
    return Rows(indptr, ids, data, finite=all(part.finite for part in parts))


def difference_of_rows(left, right, left_shape, right_shape, shape):
    """Rows of ``left - right``, each broadcast from its shape to `shape`; either may be None."""
    parts = []
    if left is not None:
        parts.append(_broadcast(left, left_shape, shape))
    if right is not None:
        rows = _broadcast(right, right_shape, shape)
        parts.append(Rows(rows.indptr, rows.ids, -rows.data, rows.shared, rows.finite, rows.rising))
    return side_by_side(parts) if parts else empty(math.prod(shape))


def _broadcast(rows, old_shape, shape):
    if old_shape == shape:
        return rows
    which = np.arange(rows.count).reshape(old_shape)
    return take(rows, np.broadcast_to(which, shape).reshape(-1))


def stack(parts):
    """All rows of the first part, then those of the second, and so on."""
    if len(parts) == 1:
        return parts[0]
    if not parts:
        return empty(0)
    indptr = _offsets(np.concatenate([np.diff(part.indptr) for part in parts]))
    return Rows(
        indptr,
        np.concatenate([part.ids for part in parts]),
        np.concatenate([part.data for part in parts]),
        finite=all(part.finite for part in parts),
        rising=all(part.rising for part in parts),
    )


def renumber(rows, numbers):
    """The same rows with ``numbers[id]`` for ids, without the entries that have a negative number.

    Numbers that aren't negative rise with the ids.
    """
    ids = numbers[rows.ids]
    stays = ids >= 0
    if stays.all():
        return Rows(rows.indptr, ids, rows.data, finite=rows.finite, rising=rows.rising)
    kept = np.concatenate([[0], np.cumsum(stays)])
    return Rows(
        kept[rows.indptr], ids[stays], rows.data[stays], finite=rows.finite, rising=rows.rising
    )


def products(rows, values):
    """The sums of coefficient times ``values[id]``, one a row."""
    return sums_by_row(rows, rows.data * values[rows.ids])


def sums_by_row(rows, entries):
    """The sums of what stands at the rows' entries, one a row."""
    row_of = np.repeat(np.arange(rows.count), np.diff(rows.indptr))
    return np.bincount(row_of, entries, rows.count)


def without_repeats(rows, columns):
    """Rows in which no id comes twice: equal ones are added up. Ids are below `columns`."""
    if rows.rising or (scan_rows(rows.indptr, rows.ids, rows.data) or (False, False))[1]:
        return rows
    import scipy.sparse as sp

    merged = sp.csr_matrix(
        (rows.data.copy(), rows.ids.copy(), rows.indptr.copy()), shape=(rows.count, columns)
    )
    merged.sum_duplicates()
    return Rows(merged.indptr, merged.indices, merged.data, finite=rows.finite, rising=True)


def _offsets(lengths):
    indptr = np.zeros(len(lengths) + 1, np.int64)
    np.cumsum(lengths, out=indptr[1:])
    return indptr
