"""Names by element id. A block keeps its base name and its shape, never a string an element."""

from __future__ import annotations

import operator
from bisect import bisect_right
from collections.abc import Iterable

import numpy as np

from .values import Ids, Shape

_MANY = 1_000


class Names:
    """The names of all elements of a kind, made when they are asked for.

    An element has a name of its own, or one of its block, or its number of creation behind the
    kind's prefix.
    """

    def __init__(self, prefix: str) -> None:
        self._prefix = prefix
        self._own: dict[int, str] = {}  # by id, for elements named one by one
        self._starts: list[int] = []  # first ids of the named blocks, rising
        self._blocks: list[tuple[int, int, str, Shape]] = []  # first id, end id, base name, shape

    def add(self, first_id: int, shape: Shape | None, names: str | list[str]) -> None:
        """Name elements that are about to be made: one by one, or as a block of a shape.

        The names of a block with the base name "x" are "x[0,1]" and so on; that of one element
        without a shape is the base name itself.
        """
        if isinstance(names, list):
            self._own.update(enumerate(names, first_id))
        elif names and shape is None:
            self._own[first_id] = names
        elif names and shape is not None:
            count = 1
            for length in shape:
                count *= length
            self._starts.append(first_id)
            self._blocks.append((first_id, first_id + count, names, shape))

    def set(self, ids: Iterable[int], names: Iterable[str]) -> None:
        """Rename elements."""
        self._own.update(zip(ids, names, strict=True))

    def forget_removed(self, live_ids: Ids) -> None:
        """Give up names of elements that aren't among `live_ids` (rising), once they are many.

        Until then a removed element is still shown by its name.
        """
        if len(self._own) + len(self._blocks) <= 2 * len(live_ids) + _MANY:
            return
        live = set(live_ids.tolist())
        self._own = {k: name for k, name in self._own.items() if k in live}
        firsts = np.searchsorted(live_ids, [block[0] for block in self._blocks])
        ends = np.searchsorted(live_ids, [block[1] for block in self._blocks])
        self._blocks = [self._blocks[k] for k in np.flatnonzero(firsts < ends)]
        self._starts = [block[0] for block in self._blocks]

    def state(self) -> tuple[dict[int, str], list[tuple[int, int, str, Shape]]]:
        """Copies of all data, for `restore`."""
        return dict(self._own), list(self._blocks)

    def restore(self, state: tuple[dict[int, str], list[tuple[int, int, str, Shape]]]) -> None:
        """Take over the names of others."""
        own, blocks = state
        self._own = {operator.index(k): str(name) for k, name in own.items()}
        self._blocks = [(int(i), int(j), str(base), tuple(shape)) for i, j, base, shape in blocks]
        self._starts = [block[0] for block in self._blocks]

    def get(self, ids: list[int]) -> list[str]:
        """The names of the elements with these ids."""
        own, prefix = self._own, self._prefix
        if not self._blocks:
            if not own:
                return [f"{prefix}{k}" for k in ids]
            return [own.get(k, f"{prefix}{k}") for k in ids]
        return [own[k] if k in own else self._block_name(k) for k in ids]

    def _block_name(self, element_id: int) -> str:
        at = bisect_right(self._starts, element_id) - 1
        if at >= 0:
            first, end, base, shape = self._blocks[at]
            if element_id < end:
                index = []
                rest = element_id - first
                for length in reversed(shape):
                    rest, entry = divmod(rest, length)
                    index.append(str(entry))
                return f"{base}[{','.join(reversed(index))}]" if shape else base
        return f"{self._prefix}{element_id}"
