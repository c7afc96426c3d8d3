"""What the lines of the section BOUNDS in MPS files do to the columns.

Readers differ in three places. Here an integer column that no line bounds is binary; one within
[0, 1] is too, unless the lines are of the integer types LI and UI; one with a line SC is
semi-integer, as one with SI; and an upper bound below 0 takes
away the lower bound 0 of a column for which no line gives one, with a warning.
"""

from __future__ import annotations

import os
import warnings
from collections.abc import Callable

import numpy as np
from numpy.typing import NDArray

from .._exception import NumericsWarning, TaviroError
from ..data.attributes import BINARY, CONTINUOUS, SEMI, SEMI_WHOLE, WHOLE
from ..data.values import Codes, Floats
from .contents import infinite

WITHOUT_NUMBER = frozenset(("FR", "MI", "PL", "BV"))


class BoundLines:
    """The bounds and types of columns, line by line. ``fault`` makes the error for a line."""

    def __init__(self, is_integer: NDArray[np.bool], fault: Callable[..., TaviroError]) -> None:
        count = len(is_integer)
        self._fault = fault
        self._lower = [0.0] * count
        self._upper = [np.inf] * count
        self._is_integer = is_integer
        self._has_lower = bytearray(count)
        self._has_upper = bytearray(count)
        self._is_semi = np.zeros(count, bool)
        self._stays_integer = np.zeros(count, bool)  # rather than binary

    def set(self, kind: str, name: str, column: int, value: float) -> None:
        """Take in a line."""
        if kind == "UP":
            self._set_upper(column, value)
            return
        if kind in ("SC", "SI"):
            self._is_semi[column] = True
            self._is_integer[column] |= kind == "SI"
            self._set_upper(column, value)
            return
        if kind in ("LI", "UI"):
            self._is_integer[column] = self._stays_integer[column] = True
        elif kind == "BV":
            self._is_integer[column] = True
            self._set_lower(column, 0.0)
            self._set_upper(column, 1.0)
        elif kind not in ("LO", "FX", "FR", "MI", "PL"):
            raise self._fault(f"'{kind}' is no type of bound")
        if kind in ("LO", "LI", "FX"):
            self._set_lower(column, value)
        elif kind in ("FR", "MI"):
            self._set_lower(column, -np.inf)
        if kind in ("UI", "FX"):
            self._set_upper(column, value)
        elif kind in ("FR", "PL"):
            self._set_upper(column, np.inf)

    def _set_lower(self, column: int, value: float) -> None:
        self._lower[column] = value
        self._has_lower[column] = 1

    def _set_upper(self, column: int, value: float) -> None:
        self._upper[column] = value
        self._has_upper[column] = 1

    def finished(self, names: list[str]) -> tuple[Floats, Floats, Codes]:
        """Lower bounds, upper bounds and types of the columns, which have these names."""
        lower, upper = infinite(np.array(self._lower)), infinite(np.array(self._upper))
        has_lower, has_upper = (
            np.frombuffer(each, np.bool) for each in (self._has_lower, self._has_upper)
        )
        opened = np.flatnonzero((upper < 0) & ~has_lower)
        if len(opened):
            lower[opened] = -np.inf
            warnings.warn(
                f"The variable '{names[opened[0]]}' has the upper bound {upper[opened[0]]:g} and "
                f"no lower bound in the file ({len(opened)} such variables): the lower bound is "
                f"taken for -inf, where some programs take it for 0. A line of the type MI or LO "
                f"makes it clear",
                NumericsWarning,
                skip_file_prefixes=(os.path.dirname(os.path.dirname(__file__)),),
            )
        upper[self._is_integer & ~has_lower & ~has_upper] = 1.0
        types = np.where(self._is_integer, WHOLE, CONTINUOUS).astype(np.uint8)
        is_within = (
            self._is_integer & ~self._is_semi & (lower >= 0) & (upper <= 1) & ~self._stays_integer
        )
        types[is_within] = BINARY
        types[self._is_semi] = np.where(self._is_integer, SEMI_WHOLE, SEMI)[self._is_semi]
        return lower, upper, types
