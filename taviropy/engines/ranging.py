"""Sensitivity: how far one datum of a linear model may move while the basis stays optimal.

Source: Chvatal, Linear Programming (Freeman, 1983), chapter 10.
"""

from __future__ import annotations

from typing import Any

import numpy as np
from highspy import HighsBasisStatus, HighsModelStatus, HighsStatus

from ..data.basis import Basis
from ..data.values import Floats
from ..data.view import View
from .highs_live import LiveHighs

_SAME = 1e-6  # by what points of one vertex differ, relative to their size and one
_BASIC, _UPPER = int(HighsBasisStatus.kBasic), int(HighsBasisStatus.kUpper)


def ranges(view: View, basis: Basis, x: Floats) -> dict[str, Floats] | None:
    """The ranges of costs, bounds and right-hand sides by attribute, arrays of shape (elements, 2).

    None where the basis, with the point `x`, isn't that of an optimum of the model.
    """
    if not _is_linear(view) or (view.column_count, view.row_count) != tuple(map(len, basis)):
        return None
    if len(x) != view.column_count:  # some were removed, and as many added
        return None
    live = LiveHighs()
    try:
        live.load(view, None)
        live.set_basis(basis)
        highs = live._highs
        if not highs.getNumNz():  # HiGHS has no ranges without coefficients
            highs.addRow(-np.inf, np.inf, 1, np.zeros(1, np.int32), np.ones(1))
        highs.run()
        if highs.getModelStatus() != HighsModelStatus.kOptimal:
            return None
        found = highs.getSolution()
        if (abs(np.array(found.col_value) - x) > _SAME * (1.0 + abs(x))).any():
            return None
        status, told = highs.getRanging()
        if status != HighsStatus.kOk or not told.valid:
            return None
        return _Ranges(view, highs, found, told).all()
    finally:
        live.close()


def _is_linear(view: View) -> bool:
    """Whether the model is what HiGHS gets of it, and continuous."""
    objective = view.nonlinear_objective, view.quadratic_objective
    constraints = view.quadratic_count, view.general_count
    return objective == (None, None) and not any(constraints) and not view.has_integers


class _Ranges:
    """What HiGHS tells: for the side that a nonbasic column or row is at, where its move ends."""

    def __init__(self, view: View, highs: Any, found: Any, told: Any) -> None:
        self._view, self._told = view, told
        basis = highs.getBasis()
        self._columns, self._rows = (
            np.fromiter(map(int, statuses), np.intp, len(statuses))
            for statuses in (basis.col_status, basis.row_status)
        )
        self._x, self._activity = (
            np.array(found.col_value),
            np.array(found.row_value)[: view.row_count],
        )
        self._pull = view.sense * np.array(found.col_dual)  # positive: held from below

    def all(self) -> dict[str, Floats]:
        """The ranges by attribute."""
        lower, upper = self._bounds()
        told = self._told
        costs = np.column_stack([told.col_cost_dn.value_, told.col_cost_up.value_])
        return {
            "ObjRange": costs[: len(self._x)],
            "LBRange": lower,
            "UBRange": upper,
            "RHSRange": self._sides(),
        }

    def _bounds(self) -> tuple[Floats, Floats]:
        columns, x = self._view.columns(), self._x
        down, up = (
            np.array(end.value_)[: len(x)]
            for end in (self._told.col_bound_dn, self._told.col_bound_up)
        )
        is_fixed = columns.lower == columns.upper
        at_upper = np.where(is_fixed, self._pull < 0.0, self._columns == _UPPER)
        nonbasic = self._columns != _BASIC
        at_lower = nonbasic & ~at_upper & np.isfinite(columns.lower)
        at_upper &= nonbasic & np.isfinite(columns.upper)
        lower = np.column_stack([np.full(len(x), -np.inf), x])
        upper = np.column_stack([x, np.full(len(x), np.inf)])
        lower[at_lower] = np.column_stack([down, np.minimum(up, columns.upper)])[at_lower]
        upper[at_upper] = np.column_stack([np.maximum(down, columns.lower), up])[at_upper]
        return lower, upper

    def _sides(self) -> Floats:
        view, activity = self._view, self._activity
        lower, upper = view.sides()
        down, up = (
            np.array(end.value_)[: len(activity)]
            for end in (self._told.row_bound_dn, self._told.row_bound_up)
        )
        is_equation = lower == upper
        rhs = view.rhs
        is_below = rhs == upper  # a right-hand side that rows lie below
        found = np.column_stack(
            [
                np.where(is_below, activity, -np.inf),
                np.where(is_below & ~is_equation, np.inf, activity),
            ]
        )
        at = self._rows[: len(activity)]
        is_at = at != _BASIC
        is_at &= is_equation | (is_below == (at == _UPPER))
        moves = np.column_stack(
            [
                np.where(is_below & ~is_equation, np.maximum(down, lower), down),
                np.where(is_below | is_equation, up, np.minimum(up, upper)),
            ]
        )
        found[is_at] = moves[is_at]
        return found
