"""How far a point and its multipliers are from optimal for a convex model with quadratic parts."""

from __future__ import annotations

from functools import cached_property
from typing import Any

import numpy as np
import scipy.sparse as sp

from .._tvo import TVO
from ..data.values import Floats
from ..data.view import View


class ConvexProgram:
    """Minimize ``x'Hx/2 + c'x`` with x, ``A x`` and quadratic functions of x between bounds.

    A model that maximizes is turned round. Multipliers are positive where they push from below.
    """

    def __init__(self, view: View) -> None:
        columns, rows = view.columns(), view.rows
        self.view = view
        self.sign = 1.0 if view.sense == TVO.MINIMIZE else -1.0
        self.costs = self.sign * columns.costs
        self.column_bounds = columns.lower, columns.upper
        self.row_bounds = view.sides()
        shape = (view.row_count, view.column_count)
        self.matrix = sp.csr_array((rows.data, rows.ids, rows.indptr), shape=shape)
        self.hessian = self._hessian()

    def _hessian(self) -> Any:
        terms, size = self.view.quadratic_objective, self.view.column_count
        if terms is None:
            return sp.csr_array((size, size))
        half = sp.coo_array((self.sign * terms.data, (terms.ids1, terms.ids2)), shape=(size, size))
        half = half.tocsr()
        return (half + half.T).tocsr()

    @cached_property
    def units(self) -> Floats:
        """Powers of two by which the columns are stretched to bring their curvature near one."""
        return scales(np.sqrt(abs(self.hessian.diagonal())))  # also of one that is not convex

    @cached_property
    def row_scales(self) -> Floats:
        """Powers of two that bring the rows, their columns stretched, near one."""
        return scales(largest(self.matrix @ sp.diags_array(self.units)))

    def value(self, x: Floats) -> float:
        """The objective at a point."""
        return float(x @ (self.hessian @ x) / 2.0 + self.costs @ x) + self.sign * self.view.offset

    def gradient(self, x: Floats) -> Floats:
        """The gradient of the objective at a point."""
        gradient: Floats = self.hessian @ x + self.costs
        return gradient

    def within_bounds(self, x: Floats) -> Floats:
        """The nearest point between the variables' bounds."""
        return np.clip(x, *self.column_bounds)

    def reduced_costs(self, x: Floats, rows: Floats, pull: Floats | float = 0.0) -> Floats:
        """What the multipliers of linear rows leave of the gradient; `pull` is the part that those
        of quadratic rows take."""
        reduced: Floats = self.gradient(x) - self.matrix.T @ rows - pull
        return reduced

    def error(self, x: Floats, rows: Floats, pull: Floats | float = 0.0, gap: float = 0.0) -> float:
        """How far from optimal a point can be: relative to the objective, or beyond a bound.

        `gap` is what the multipliers of quadratic rows promise. Along an open side a variable is
        taken to move no farther than its own size and one.
        """
        activity = self.matrix @ x
        gap += _gap(x, self.reduced_costs(x, rows, pull), *self.column_bounds)
        gap += _gap(activity, rows, *self.row_bounds)
        beyond = [_violation(x, *self.column_bounds), _violation(activity, *self.row_bounds)]
        quadratic = self.view.quadratic_rows
        if quadratic is not None:
            beyond.append(_violation(quadratic.values(x), quadratic.lower, quadratic.upper))
        error = max(gap / (1.0 + abs(self.value(x))), *beyond)
        return error if np.isfinite(error) else np.inf


def _gap(values: Floats, multipliers: Floats, lower: Floats, upper: Floats) -> float:
    """What the multipliers promise from moving the values to the sides that they push to."""
    room = np.where(multipliers > 0.0, values - lower, upper - values)
    return float(abs(multipliers) @ np.clip(room, 0.0, 1.0 + abs(values)))


def _violation(values: Floats, lower: Floats, upper: Floats) -> float:
    """How far the values are beyond their sides, relative to their own size and one."""
    beyond = np.maximum(lower - values, values - upper) / (1.0 + abs(values))
    return float(beyond.max(initial=0.0))


def largest(matrix: Any) -> Floats:
    """The largest magnitude in each row."""
    return abs(matrix).max(axis=1).toarray().ravel() if matrix.nnz else np.zeros(matrix.shape[0])


def scales(magnitudes: Floats) -> Floats:
    """Powers of two that bring magnitudes near one; one for a magnitude of zero."""
    return np.exp2(-np.round(np.log2(np.where(magnitudes > 0.0, magnitudes, 1.0))))
