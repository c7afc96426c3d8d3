"""Rows of coefficients as three arrays: ``indptr``, ``ids`` (of variables) and ``data``.

All functions work on whole blocks in time proportional to what goes in and comes out. They never
write to their operands, and may return them.
"""

from __future__ import annotations

import math
from collections.abc import Sequence
from typing import Any, Protocol, Self

import numpy as np
from numpy.typing import NDArray

from .._scalars import columns_of_rows, scan_rows
from .values import Floats, Ids, Shape

Offsets = NDArray[np.signedinteger[Any]]


class Rows:
    """CSR rows. ``indptr`` has one entry more than rows; row k is ``indptr[k]:indptr[k + 1]``.

    ``shared`` tells that somebody else may change the arrays, ``finite`` that all coefficients are
    known to be finite, ``rising`` that the ids are known to rise strictly in each row.
    """

    __slots__ = ("indptr", "ids", "data", "shared", "finite", "rising")

    def __init__(
        self,
        indptr: Offsets,
        ids: Ids,
        data: Floats,
        shared: bool = False,
        finite: bool = False,
        rising: bool = False,
    ) -> None:
        self.indptr = indptr
        self.ids = ids
        self.data = data
        self.shared = shared
        self.finite = finite
        self.rising = rising

    @classmethod
    def empty(cls, count: int) -> Self:
        """`count` rows without coefficients."""
        arrays = np.zeros(count + 1, np.int32), np.empty(0, np.int32), np.empty(0)
        return cls(*arrays, finite=True, rising=True)

    @property
    def count(self) -> int:
        """The number of rows."""
        return len(self.indptr) - 1

    @property
    def nnz(self) -> int:
        """The number of stored coefficients."""
        return len(self.data)

    def row_numbers(self) -> NDArray[np.int64]:
        """The number of the row of each coefficient."""
        return np.repeat(np.arange(self.count), np.diff(self.indptr))

    def copy(self) -> Rows:
        """Rows that share no array with these."""
        arrays = self.indptr.copy(), self.ids.copy(), self.data.copy()
        return Rows(*arrays, finite=self.finite, rising=self.rising)

    def take(self, which: NDArray[Any]) -> Rows:
        """The rows with the numbers `which`, which may repeat."""
        lengths = np.diff(self.indptr)[which]
        indptr = offsets(lengths)
        source = np.arange(indptr[-1]) + np.repeat(self.indptr[:-1][which] - indptr[:-1], lengths)
        return Rows(
            indptr, self.ids[source], self.data[source], finite=self.finite, rising=self.rising
        )

    @staticmethod
    def stack(parts: Sequence[Rows | Columns]) -> Rows:
        """All rows of the first part, then those of the second, and so on."""
        if not parts:
            return Rows.empty(0)
        rows = [part.by_row() for part in parts]
        if len(rows) == 1:
            return rows[0]
        return Rows(
            offsets(np.concatenate([np.diff(part.indptr) for part in rows])),
            np.concatenate([part.ids for part in rows]),
            np.concatenate([part.data for part in rows]),
            finite=all(part.finite for part in rows),
            rising=all(part.rising for part in rows),
        )

    def renumbered(self, numbers: Ids) -> Rows:
        """The same rows with `numbers` for ids, without the entries that have a negative number.

        `numbers` has an entry a coefficient; those that aren't negative rise with the ids.
        """
        stays = numbers >= 0
        if stays.all():
            return Rows(self.indptr, numbers, self.data, finite=self.finite, rising=self.rising)
        kept = np.concatenate([[0], np.cumsum(stays)])
        return Rows(
            kept[self.indptr],
            numbers[stays],
            self.data[stays],
            finite=self.finite,
            rising=self.rising,
        )

    def products(self, values: Floats) -> Floats:
        """The sums of coefficient times ``values[id]``, one a row."""
        return self.sums(self.data * values[self.ids])

    def sums(self, entries: Floats) -> Floats:
        """The sums of what stands at the rows' coefficients, one a row."""
        return sums_at(self.row_numbers(), entries, self.count)

    def without_repeats(self, columns: int) -> Rows:
        """Rows in which no id comes twice: equal ones are added up. Ids are below `columns`."""
        if self.rising or (scan_rows(self.indptr, self.ids, self.data) or (False, False))[1]:
            return self
        import scipy.sparse as sp

        arrays = self.data.copy(), self.ids.copy(), self.indptr.copy()
        merged = sp.csr_matrix(arrays, shape=(self.count, columns))
        merged.sum_duplicates()
        return Rows(merged.indptr, merged.indices, merged.data, finite=self.finite, rising=True)

    def by_row(self) -> Rows:
        """These rows."""
        return self

    def by_column(self, columns: int) -> Columns:
        """The same coefficients by column; ids are below `columns`, and none comes twice a row."""
        indptr, ids = np.ascontiguousarray(self.indptr), np.ascontiguousarray(self.ids)
        turned = columns_of_rows(indptr, ids, np.ascontiguousarray(self.data), columns)
        if turned is not None:
            return Columns(self.count, *turned)
        import scipy.sparse as sp

        shape = (self.count, columns)
        matrix = sp.csr_matrix((self.data, self.ids, self.indptr), shape=shape).tocsc()
        return Columns(self.count, matrix.indptr, matrix.indices, matrix.data)


class Columns:
    """Rows turned to CSC: the coefficients of column j are at ``indptr[j]:indptr[j + 1]``."""

    __slots__ = ("count", "indptr", "rows", "data")

    def __init__(self, count: int, indptr: Offsets, rows: Ids, data: Floats) -> None:
        self.count = count  # of rows
        self.indptr = indptr
        self.rows = rows
        self.data = data

    def take(self, which: NDArray[Any]) -> Rows:
        """The rows with the numbers `which`."""
        return self.by_row().take(which)

    def by_row(self) -> Rows:
        """The same coefficients as `Rows`."""
        import scipy.sparse as sp

        shape = (self.count, len(self.indptr) - 1)
        matrix = sp.csc_matrix((self.data, self.rows, self.indptr), shape=shape).tocsr()
        return Rows(matrix.indptr, matrix.indices, matrix.data, finite=True, rising=True)


def side_by_side(parts: Sequence[Rows]) -> Rows:
    """Row k of the result holds row k of every part, one after the other."""
    if len(parts) == 1:
        return parts[0]
    lengths = [np.diff(part.indptr) for part in parts]
    indptr = offsets(np.sum(lengths, axis=0))
    ids, data = np.empty(indptr[-1], parts[0].ids.dtype), np.empty(indptr[-1])
    start = indptr[:-1].copy()
    for part, length in zip(parts, lengths, strict=True):
        target = np.arange(part.nnz) + np.repeat(start - part.indptr[:-1], length)
        ids[target], data[target] = part.ids, part.data
        start += length
    return Rows(indptr, ids, data, finite=all(part.finite for part in parts))


def difference_of_rows(
    left: Rows | None, right: Rows | None, left_shape: Shape, right_shape: Shape, shape: Shape
) -> Rows:
    """Rows of ``left - right``, each broadcast from its shape to `shape`; either may be None."""
    parts = []
    if left is not None:
        parts.append(broadcast_rows(left, left_shape, shape))
    if right is not None:
        rows = broadcast_rows(right, right_shape, shape)
        parts.append(Rows(rows.indptr, rows.ids, -rows.data, rows.shared, rows.finite, rows.rising))
    return side_by_side(parts) if parts else Rows.empty(math.prod(shape))


def broadcast_rows(rows: Rows, old_shape: Shape, shape: Shape) -> Rows:
    """The rows of an array of `old_shape` as those of the array broadcast to `shape`."""
    if old_shape == shape:
        return rows
    which = np.arange(rows.count).reshape(old_shape)
    return rows.take(np.broadcast_to(which, shape).reshape(-1))


def sums_at(places: NDArray[Any], entries: Floats, count: int) -> Floats:
    """The sums of entries by place, for `count` places."""
    sums: Floats = np.bincount(places, entries, count)
    return sums.astype(np.float64, copy=False)  # without entries they are integers


def offsets(lengths: NDArray[Any]) -> NDArray[np.int64]:
    """Where parts of these lengths start, one after the other, and where the last one ends."""
    starts = np.zeros(len(lengths) + 1, np.int64)
    np.cumsum(lengths, out=starts[1:])
    return starts


# Blocks


class Lines(Protocol):
    """Data of constraints, one after the other, that can be picked and stacked."""

    @property
    def count(self) -> int: ...
    def take(self, which: NDArray[Any]) -> Any: ...
    @staticmethod
    def stack(parts: Sequence[Any]) -> Any: ...


class _Block[L: Lines]:
    """Lines that were added together, and which of them are still there (None: all)."""

    __slots__ = ("lines", "kept")

    def __init__(self, lines: L) -> None:
        self.lines = lines
        self.kept: NDArray[Any] | None = None

    @property
    def count(self) -> int:
        return self.lines.count if self.kept is None else len(self.kept)

    def keep(self, which: NDArray[Any]) -> None:
        """Leave the lines with the numbers `which`, counted over those that were there."""
        self.kept = which if self.kept is None else self.kept[which]
        if 2 * len(self.kept) < self.lines.count:
            self.lines, self.kept = self.lines.take(self.kept), None

    def all(self) -> L:
        if self.kept is not None:
            self.lines, self.kept = self.lines.take(self.kept), None
        return self.lines


class Store[L: Lines]:
    """Lines of all constraints of a kind, in the order of the elements' data, block by block.

    Lines of removed constraints are given up when they are half of their block, or when the block
    is asked for.
    """

    def __init__(self, kind: type[L]) -> None:
        self._kind = kind
        self._blocks: list[_Block[L]] = []
        self._count = 0

    def add(self, place: int, lines: L) -> None:
        """Append lines; their arrays are kept and must not change any more.

        `place` is how many there are so far. What stands there already comes from a call that was
        interrupted before its constraints existed, and goes.
        """
        while self._count > place:
            self._count -= self._blocks.pop().count
        if lines.count:
            self._blocks.append(_Block(lines))
            self._count += lines.count

    def keep(self, kept: NDArray[Any]) -> None:
        """Leave the lines with the numbers `kept`, rising."""
        start, blocks = 0, []
        for block in self._blocks:
            end = start + block.count
            first, last = np.searchsorted(kept, (start, end))
            if last - first < block.count:
                block.keep(kept[first:last] - start)
            if block.count:
                blocks.append(block)
            start = end
        self._blocks, self._count = blocks, len(kept)

    def replace(self, lines: L) -> None:
        """Keep all lines in this form instead, another one of the same lines."""
        self._blocks = [_Block(lines)] if lines.count else []

    def whole(self, count: int) -> Any:
        """The first `count` lines in the form that they are kept in, stacked where they weren't."""
        if len(self._blocks) == 1 and self._count == count:
            return self._blocks[0].all()
        return self.select(0, count)

    def select(self, first: int = 0, end: int | None = None) -> L:
        """The lines from number `first` on, before `end`."""
        end = self._count if end is None else end
        parts, stop = [], self._count
        for block in reversed(self._blocks):  # so that the latest lines cost no more than they are
            if stop <= first:
                break
            start = stop - block.count
            if start < end:
                lines = block.all()
                if start < first or stop > end:
                    lines = lines.take(np.arange(max(first, start), min(end, stop)) - start)
                parts.append(lines)
            stop = start
        selected = self._kind.stack(parts[::-1])
        if len(parts) > 1 and selected.count == self._count:
            self._blocks = [_Block(selected)]  # so that they needn't be stacked again
        return selected  # type: ignore[no-any-return]
