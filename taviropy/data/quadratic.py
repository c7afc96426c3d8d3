"""Quadratic terms as arrays: a pair of variable ids and a coefficient for each term."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any

import numpy as np
from numpy.typing import NDArray

from .._scalars import sum_pairs
from .rows import Rows
from .values import Floats, Ids

Terms = tuple[NDArray[Any], NDArray[Any], NDArray[Any]]


class QuadraticTerms:
    """Terms ``data[k] * x[ids1[k]] * x[ids2[k]]``; the order within a pair has no meaning."""

    __slots__ = ("ids1", "ids2", "data")

    def __init__(self, ids1: Ids, ids2: Ids, data: Floats) -> None:
        self.ids1 = ids1
        self.ids2 = ids2
        self.data = data

    @classmethod
    def summed(cls, parts: Sequence[Terms], size: int) -> QuadraticTerms:
        """The terms of all parts, arrays (ids1, ids2, data): each pair once, in rising order.

        The smaller id of a pair comes first: the terms are the rows of an upper triangle. All ids
        are below `size`.
        """
        return cls(*sum_pairs([_contiguous(part) for part in parts], size))

    @property
    def count(self) -> int:
        """The number of terms."""
        return len(self.data)

    def value(self, x: Floats) -> float:
        """The sum of the terms where the variables have the values `x`."""
        return float(self.data @ (x[self.ids1] * x[self.ids2]))


def _contiguous(part: Terms) -> tuple[NDArray[np.int32], NDArray[np.int32], Floats]:
    ids1, ids2, data = part
    return (
        np.ascontiguousarray(ids1, np.int32),
        np.ascontiguousarray(ids2, np.int32),
        np.ascontiguousarray(data, np.float64),
    )


# Rows of quadratic terms are `Rows` whose ids hold two ids each: what rows can do they can do.


def packed(ids1: Ids, ids2: Ids) -> NDArray[np.int64]:
    """Two ids in one number."""
    return (ids1.astype(np.int64) << 32) | ids2


def first_ids(rows: Rows) -> Ids:
    """The first of the two ids of each term of packed rows."""
    return (rows.ids >> 32).astype(np.int32)


def second_ids(rows: Rows) -> Ids:
    """The second of the two ids of each term of packed rows."""
    return (rows.ids & 0xFFFFFFFF).astype(np.int32)
