"""What changed in a model since its engine was last brought into step with it."""

from __future__ import annotations

from typing import Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

from .attributes import LINEAR, VARIABLE
from .entries import Entries
from .values import rising

Indices = NDArray[np.int32]
_NONE = np.empty(0, np.int32)


class Changes(NamedTuple):
    """What an engine that has a model has to catch up with, in this order.

    First columns and rows leave: ``kept_columns`` and ``kept_rows`` are the numbers, rising, of
    those that stay, None where all do. All other numbers are the ones of afterwards. Of the columns
    and rows that are left, those listed have new types, new bounds (also where the type is new),
    new costs or new sides. ``entries`` are new coefficients of rows, also at new columns and in new
    rows. From ``first_column`` and ``first_row`` on they are new. ``higher`` tells that quadratic
    or general constraints came or went. Sense, offset and quadratic terms of the objective are for
    the engine to compare.
    """

    kept_columns: Indices | None
    kept_rows: Indices | None
    types: Indices
    bounds: Indices
    costs: Indices
    sides: Indices
    entries: Entries
    first_column: int
    first_row: int
    higher: bool


class ChangeLog:
    """Notes what changes, from the moment on that there is an engine to be told."""

    def __init__(self) -> None:
        self.higher = False
        self._is_on = False
        self._counts = {VARIABLE: 0, LINEAR: 0}  # columns and rows that the engine has
        self._kept: dict[int, Indices] = {}
        self._at: dict[str, _Positions] = {}
        self._entries: list[Entries] = []  # by ids

    def start(self, columns: int, rows: int) -> None:
        """An engine has the model, so many columns and rows, as it is now."""
        self._is_on, self.higher = True, False
        self._counts = {VARIABLE: columns, LINEAR: rows}
        self._kept, self._at, self._entries = {}, {}, []

    def stop(self) -> None:
        """There is no engine any more."""
        self._is_on = False
        self._kept, self._at, self._entries = {}, {}, []

    def note(self, attrname: str, positions: NDArray[Any]) -> None:
        """An attribute changed at these indices, which are copied where they aren't new."""
        if self._is_on and attrname in _KINDS and len(positions):
            self._at.setdefault(attrname, _Positions()).add(positions)

    def note_entries(self, entries: Entries) -> None:
        """Coefficients were set, by ids."""
        if self._is_on and len(entries.values):
            self._entries.append(entries)

    def note_removal(self, kind: int, kept: Indices) -> None:
        """Elements left; `kept` are the old indices that stay, waiting elements among them."""
        if kind not in self._counts:
            self.higher = True
        elif self._is_on:
            for attrname, attribute_kind in _KINDS.items():
                if attribute_kind == kind and attrname in self._at:
                    self._at[attrname].renumber(kept)
            count = self._counts[kind]
            stay = kept[: np.searchsorted(kept, count)]
            if len(stay) < count:
                before = self._kept.get(kind)
                self._kept[kind] = stay if before is None else before[stay]
                self._counts[kind] = len(stay)

    def changes(self) -> Changes:
        """What there is to catch up with, the entries still by ids."""
        columns, rows = self._counts[VARIABLE], self._counts[LINEAR]
        return Changes(
            self._kept.get(VARIABLE),
            self._kept.get(LINEAR),
            self._merged(("VType",), columns),
            self._merged(("LB", "UB", "VType"), columns),
            self._merged(("Obj",), columns),
            self._merged(("RHS", "Sense"), rows),
            Entries.merged(self._entries),
            columns,
            rows,
            self.higher,
        )

    def _merged(self, names: tuple[str, ...], count: int) -> Indices:
        """Indices below `count` at which one of the attributes changed, rising, each once."""
        parts = [part for name in names if name in self._at for part in self._at[name].parts]
        if not parts:
            return _NONE
        at = rising(parts)
        if len(at) and at[-1] >= count:
            at = at[at < count]
        return at.astype(np.int32)


_KINDS = {
    "LB": VARIABLE,
    "UB": VARIABLE,
    "Obj": VARIABLE,
    "VType": VARIABLE,
    "RHS": LINEAR,
    "Sense": LINEAR,
}


class _Positions:
    """Index arrays of what changed; what repeats is merged from time to time."""

    def __init__(self) -> None:
        self.parts: list[NDArray[Any]] = []
        self._room = 1024

    def add(self, positions: NDArray[Any]) -> None:
        self.parts.append(positions)
        self._room -= 1 + len(positions)
        if self._room < 0:
            self.parts = [rising(self.parts)]
            self._room = 1024 + len(self.parts[0])

    def renumber(self, kept: Indices) -> None:
        """Follow a removal: `kept` are the old indices that stay."""
        at = rising(self.parts)
        new = np.searchsorted(kept, at)
        stays = new < len(kept)
        stays[stays] = kept[new[stays]] == at[stays]
        self.parts = [new[stays]]
