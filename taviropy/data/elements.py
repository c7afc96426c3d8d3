"""The data of all elements of a kind: columns with one entry an element, and names."""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any

import numpy as np
from numpy.typing import DTypeLike, NDArray

from .._scalars import ModelCore, Numbering
from .names import Names
from .values import Ids, Shape

_FIRST_CAPACITY = 16


class Elements:
    """Columns of data: the entries of the elements in place first, then those that wait.

    The numbering is the only one to know how many elements there are and which ids they have; here
    stand the arrays, with room to grow. An entry is written before its element
    exists, so that no interrupt can leave an element without data. ``optional`` columns take no
    memory until they are first written; until then they read as their default.
    """

    def __init__(
        self,
        numbering: Numbering,
        kind: int,
        prefix: str,
        dtypes: Mapping[str, DTypeLike],
        optional: dict[str, Any] | None = None,
    ) -> None:
        self.names = Names(prefix)
        self.numbering = numbering
        self._kind = kind
        self._arrays: dict[str, NDArray[Any]] = {n: np.empty(0, d) for n, d in dtypes.items()}
        self._optional = optional or {}
        self._capacity = 0
        self._live_ids: Ids | None = None  # as of the last removal and size

    @property
    def placed(self) -> int:
        """How many elements are in place."""
        return self.numbering.count()

    @property
    def size(self) -> int:
        """How many elements there are, in place and waiting."""
        return self.numbering.size()

    def __getitem__(self, name: str) -> NDArray[Any]:
        """The column, an array of ``size`` entries that may be written to.

        A view: growing the columns may leave it behind.
        """
        column: NDArray[Any] = self._arrays[name][: self.size]
        return column

    def placed_part(self, name: str) -> NDArray[Any]:
        """The entries of the elements in place."""
        part: NDArray[Any] = self._arrays[name][: self.placed]
        return part

    def has(self, name: str) -> bool:
        """Whether an optional column was ever written."""
        return name in self._arrays

    def need(self, name: str) -> NDArray[Any]:
        """The column; an optional one comes into being here."""
        if name not in self._arrays:
            self._arrays[name] = np.full(self._capacity, self._optional[name])
        return self[name]

    def read(self, name: str, positions: NDArray[Any]) -> NDArray[Any]:
        """The entries of a column at some positions, defaults where it was never written."""
        if name not in self._arrays:
            return np.full(len(positions), self._optional[name])
        entries: NDArray[Any] = self._arrays[name][positions]
        return entries

    def columns(self) -> list[tuple[str, NDArray[Any]]]:
        """All columns that there are, by name."""
        return [(name, self[name]) for name in self._arrays]

    def state(self) -> dict[str, Any]:
        """Copies of all data, for `restore`."""
        numbering = self.numbering
        return {
            "next_id": numbering.next_id(),
            "count": numbering.count(),
            "live_ids": None if numbering.all_in_place() else numbering.live_ids(),
            "discarded_ids": numbering.discarded_ids(),
            "columns": {name: column.copy() for name, column in self.columns()},
            "names": self.names.state(),
        }

    def restore(self, state: dict[str, Any], takes_arrays: bool) -> None:
        """Take over the data of others, where there are none so far; arrays that nobody else holds
        may be taken, others are copied."""
        columns = state["columns"]
        for name in self._arrays:
            if name not in columns:
                raise KeyError(name)
        size = len(columns[next(iter(self._arrays))])
        for name, column in columns.items():
            needed = self.need(name).dtype
            if column.dtype != needed or column.shape != (size,):
                raise ValueError(f"{name}: {column.dtype} {column.shape}, not {needed} ({size},)")
            self._arrays[name] = column if takes_arrays else column.copy()
        live = state["live_ids"]
        count = state["next_id"] if live is None else len(live)
        if count != size:
            raise ValueError(f"{size} entries for {count} elements")
        self.numbering.restore(state["next_id"], state["count"], live)
        self.numbering.discard(state["discarded_ids"])
        self.names.restore(state["names"])
        self._capacity = size

    def prepare(self, start: int, count: int, values: dict[str, Any]) -> None:
        """Write entries from place `start` on for elements that are about to be made.

        Each value is a scalar or has `count` entries.
        """
        end = start + count
        if end > self._capacity:
            self._grow(end, start)
        for name, array in self._arrays.items():
            array[start:end] = values[name] if name in values else self._optional[name]

    def make(
        self, core: ModelCore, shape: Shape, names: str | list[str], values: dict[str, Any]
    ) -> NDArray[Any]:
        """New elements with these data: an object array of handles. `names` as in `Names.add`."""
        count = 1
        for length in shape:
            count *= length
        self.prepare(self.size, count, values)
        self.names.add(self.numbering.next_id(), shape, names)
        return core.new_elements(self._kind, shape)

    def make_one(self, core: ModelCore, name: str, values: tuple[Any, ...]) -> Any:
        """A new element: its handle. `values` are those of the columns that aren't optional."""
        start = self.size
        if start == self._capacity:
            self._grow(start + 1, start)
        for array, value in zip(self._arrays.values(), values, strict=False):
            array[start] = value
        if len(self._arrays) > len(values):
            for column in list(self._arrays)[len(values) :]:
                self._arrays[column][start] = self._optional[column]
        if name:
            self.names.add(self.numbering.next_id(), None, name)
        return core.new_element(self._kind)

    def _grow(self, needed: int, filled: int) -> None:
        exact = self._capacity == 0 and needed > _FIRST_CAPACITY
        self._capacity = needed if exact else max(needed, _FIRST_CAPACITY, self._capacity * 3 // 2)
        for name, array in self._arrays.items():
            grown = np.empty(self._capacity, array.dtype)
            grown[:filled] = array[:filled]
            self._arrays[name] = grown

    def keep(self, kept: NDArray[Any]) -> None:
        """Follow a removal that the core has settled: `kept` are the old places that stay."""
        for name, array in self._arrays.items():
            self._arrays[name] = array[kept]
        self._capacity = len(kept)
        self._live_ids = None
        self.names.forget_removed(self.ids())

    def ids(self) -> Ids:
        """The ids of all elements by place, rising."""
        if self._live_ids is None or len(self._live_ids) != self.size:
            self._live_ids = (
                np.arange(self.size, dtype=np.int32)
                if self.numbering.all_in_place()
                else self.numbering.live_ids()
            )
        return self._live_ids

    def positions(self, ids: Ids) -> Ids:
        """The places of the elements with these ids, which aren't removed."""
        if self.numbering.all_in_place():
            return ids
        return np.searchsorted(self.ids(), ids)

    def names_of(self, positions: Any) -> list[str]:
        """Names of the elements at these places."""
        at = np.asarray(positions, np.int64)
        in_place = self.numbering.all_in_place()
        return self.names.get(at.tolist() if in_place else self.ids()[at].tolist())

    def name_of(self, position: int) -> str:
        """The name of the element at a place."""
        return self.names_of((position,))[0]

    def all_names(self) -> list[str]:
        """The names of the elements in place."""
        return self.names_of(np.arange(self.placed))

    def rename(self, positions: Any, names: list[str]) -> None:
        """Give the elements at these places new names."""
        in_place = self.numbering.all_in_place()
        at = np.asarray(positions, np.int64)
        self.names.set((at if in_place else self.ids()[at]).tolist(), names)
