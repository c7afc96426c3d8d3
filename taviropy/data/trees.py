"""Expression trees as arrays: for each tree a list of operations."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any

import numpy as np
from numpy.typing import NDArray

from .._scalars import TREE_OPERATIONS, tree_values
from .rows import offsets
from .values import Codes, Floats, Ids

OPERATIONS: tuple[str, ...] = TREE_OPERATIONS
CONSTANT, VARIABLE = OPERATIONS.index("constant"), OPERATIONS.index("var")


class Trees:
    """Trees; the operations of tree k are at ``indptr[k]:indptr[k + 1]``, its root the last one.

    An operation comes after those that it uses, and what is used more than once stands once.
    ``codes`` are places in OPERATIONS. A constant has its value in ``numbers``, a variable its id
    (or column) in ``first``; all others have in ``first`` and ``second`` the places of their
    arguments within the tree, -1 where there is none.
    """

    __slots__ = ("indptr", "codes", "first", "second", "numbers")

    def __init__(
        self,
        indptr: NDArray[np.int64],
        codes: Codes,
        first: Ids,
        second: Ids,
        numbers: Floats,
    ) -> None:
        self.indptr = indptr
        self.codes = codes
        self.first = first
        self.second = second
        self.numbers = numbers

    @classmethod
    def empty(cls, count: int) -> Trees:
        """`count` trees without operations, places where no tree is."""
        none = np.empty(0, np.int32)
        return cls(np.zeros(count + 1, np.int64), np.empty(0, np.uint8), none, none, np.empty(0))

    @property
    def count(self) -> int:
        """The number of trees."""
        return len(self.indptr) - 1

    def take(self, which: NDArray[Any]) -> Trees:
        """The trees with the numbers `which`, which may repeat."""
        lengths = np.diff(self.indptr)[which]
        indptr = offsets(lengths)
        source = np.arange(indptr[-1]) + np.repeat(self.indptr[:-1][which] - indptr[:-1], lengths)
        arrays = (self.codes, self.first, self.second, self.numbers)
        return Trees(indptr, *(array[source] for array in arrays))

    @staticmethod
    def stack(parts: Sequence[Trees]) -> Trees:
        """All trees of the first part, then those of the second, and so on."""
        if len(parts) == 1:
            return parts[0]
        if not parts:
            return Trees.empty(0)
        return Trees(
            offsets(np.concatenate([np.diff(part.indptr) for part in parts])),
            np.concatenate([part.codes for part in parts]),
            np.concatenate([part.first for part in parts]),
            np.concatenate([part.second for part in parts]),
            np.concatenate([part.numbers for part in parts]),
        )

    def variables(self) -> NDArray[np.intp]:
        """The places of the operations that are variables."""
        return np.flatnonzero(self.codes == VARIABLE)

    def tree_of(self, places: NDArray[Any]) -> NDArray[np.intp]:
        """The numbers of the trees that the operations at these places belong to."""
        return np.searchsorted(self.indptr, places, side="right") - 1

    def renumbered(self, places: NDArray[Any], numbers: Ids) -> Trees:
        """The same trees with `numbers` for the variables at `places`."""
        first = self.first.copy()
        first[places] = numbers
        return Trees(self.indptr, self.codes, first, self.second, self.numbers)

    def values(self, x: Floats) -> Floats:
        """The value of each tree where the variables have the values `x`."""
        return tree_values(
            np.ascontiguousarray(self.indptr),
            np.ascontiguousarray(self.codes),
            np.ascontiguousarray(self.first, np.int32),
            np.ascontiguousarray(self.second, np.int32),
            np.ascontiguousarray(self.numbers),
            np.ascontiguousarray(x),
        )
