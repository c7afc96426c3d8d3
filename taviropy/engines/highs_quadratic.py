"""Convex quadratic models once more, to tell how good an answer is and to ask again for a better.

HiGHS's quadratic solver calls some points optimal that aren't: with rows of large coefficients,
without rows, along directions that have no curvature. The duality gap shows it. A better answer
comes from the same model seen from that point: moved there, stretched, its rows scaled.

Source: Weber, Sager and Gleixner, Solving quadratic programs to high precision using scaled
iterative refinement, Mathematical Programming Computation 11 (2019).
"""

from __future__ import annotations

from typing import Any

import numpy as np
import scipy.sparse as sp
from highspy import HessianFormat, HighsModelStatus, MatrixFormat

from .._tvo import TVO
from ..data.values import Floats
from ..data.view import View
from .highs_live import forget_types, new_highs
from .protocol import Answer

# A point and the multipliers of the rows.
Multiplied = tuple[Floats, Floats]

_STEEP = 1e-6  # least fall of a ray, as a share of the largest cost


class QuadraticProgram:
    """Minimize ``x' H x / 2 + c' x`` for x and ``A x`` between bounds; H is positive semidefinite.

    A model that maximizes is turned round.
    """

    def __init__(self, view: View) -> None:
        columns, rows = view.column_count, view.row_count
        data, terms = view.columns(), view.quadratic_objective
        assert terms is not None
        self._sign = 1.0 if view.sense == TVO.MINIMIZE else -1.0
        self._offset = self._sign * view.offset
        self._costs = self._sign * data.costs
        pairs = sp.coo_array(
            (self._sign * terms.data, (terms.ids1, terms.ids2)), shape=(columns, columns)
        ).tocsr()
        self._hessian = (pairs + pairs.T).tocsr()
        matrix = view.rows
        self._matrix = sp.csr_array((matrix.data, matrix.ids, matrix.indptr), shape=(rows, columns))
        curvature = self._hessian.diagonal()
        self._units = _scales(np.sqrt(curvature))
        self._row_scales = _scales(_largest(self._matrix @ sp.diags_array(self._units)))
        self._column_bounds = data.lower, data.upper
        self._row_bounds = view.sides()

    def answer_of(self, highs: Any) -> Multiplied | None:
        """The point and the row's multipliers that HiGHS ended with, None where it has none."""
        found = highs.getSolution()
        x, y = np.array(found.col_value), self._sign * np.array(found.row_dual)
        whole = len(x) == self._matrix.shape[1] and len(y) == self._matrix.shape[0]
        return (x, y) if whole and np.isfinite(x).all() and np.isfinite(y).all() else None

    def error(self, x: Floats, y: Floats) -> float:
        """How far from optimal a point can be: relative to the objective, or beyond a bound.

        Along an open side a variable is taken to move no farther than its own size and one.
        """
        activity = self._matrix @ x
        reduced = self._gradient(x) - self._matrix.T @ y
        gap = _gap(x, reduced, *self._column_bounds) + _gap(activity, y, *self._row_bounds)
        beyond = max(_violation(x, *self._column_bounds), _violation(activity, *self._row_bounds))
        return max(gap / (1.0 + abs(self._value(x) + self._offset)), beyond)

    def seen_from(self, point: Floats, step: float) -> Any:
        """A HiGHS instance with ``point + step * units * d`` for x.

        The units bring the curvature in each variable near one; each row is scaled likewise.
        """
        highs, columns = new_highs(), len(point)
        units = sp.diags_array(self._units)
        matrix = (sp.diags_array(self._row_scales) @ self._matrix @ units).tocsr()
        triangle = sp.triu(units @ self._hessian @ units, format="csr")
        activity = self._matrix @ point
        low, high = (self._row_scales * (side - activity) / step for side in self._row_bounds)
        highs.passModel(
            columns,
            len(low) + 1,  # the last one is empty: without rows the solver makes mistakes
            matrix.nnz,
            triangle.nnz,
            int(MatrixFormat.kRowwise),
            int(HessianFormat.kTriangular),
            TVO.MINIMIZE,
            0.0,
            self._units * self._gradient(point),
            *((bound - point) / (step * self._units) for bound in self._column_bounds),
            np.append(low, -np.inf),
            np.append(high, np.inf),
            np.append(matrix.indptr, matrix.nnz),
            matrix.indices,
            matrix.data,
            triangle.indptr,
            triangle.indices,
            step * triangle.data,
            np.zeros(columns, np.int32),
        )
        forget_types(highs)
        return highs

    def answer_seen_from(self, point: Floats, step: float, highs: Any) -> Multiplied | None:
        """The same as `answer_of` for an instance of `seen_from`."""
        found = highs.getSolution()
        d, y = np.array(found.col_value), np.array(found.row_dual)[:-1]
        if len(d) != len(point) or not (np.isfinite(d).all() and np.isfinite(y).all()):
            return None
        return self.within_bounds(point + step * self._units * d), self._row_scales * y

    def within_bounds(self, x: Floats) -> Floats:
        """The nearest point between the variables' bounds."""
        return np.clip(x, *self._column_bounds)

    def has_ray(self) -> bool:
        """Whether the objective falls for ever from any feasible point.

        Source: Frank and Wolfe, An algorithm for quadratic programming, Naval Research Logistics
        Quarterly 3 (1956): a convex quadratic objective without a minimum falls along a ray.
        """
        highs = new_highs()
        columns = len(self._costs)
        rows = sp.vstack([self._hessian, self._matrix], format="csr") @ sp.diags_array(self._units)
        rows = (sp.diags_array(_scales(_largest(rows))) @ rows).tocsr()
        costs = self._units * self._costs
        lower, upper = (np.where(np.isfinite(side), 0.0, side) for side in self._row_bounds)
        highs.passModel(
            columns,
            rows.shape[0],
            rows.nnz,
            int(MatrixFormat.kRowwise),
            TVO.MINIMIZE,
            0.0,
            costs,
            *(np.where(np.isfinite(bound), 0.0, np.sign(bound)) for bound in self._column_bounds),
            np.append(np.zeros(columns), lower),
            np.append(np.zeros(columns), upper),
            rows.indptr,
            rows.indices,
            rows.data,
            np.zeros(columns, np.int32),
        )
        highs.run()
        fall = -highs.getObjectiveValue()
        steep = _STEEP * abs(costs).max(initial=0.0)
        return highs.getModelStatus() == HighsModelStatus.kOptimal and bool(fall > steep)

    def answer(self, point: Floats, multipliers: Floats, status: int) -> Answer:
        """A point and its multipliers as the answer to the model."""
        reduced = self._gradient(point) - self._matrix.T @ multipliers
        activity: Floats = self._matrix @ point
        return Answer(
            status,
            point,
            row_values=lambda: activity,
            reduced_costs=self._sign * reduced,
            row_duals=self._sign * multipliers,
        )

    def _value(self, x: Floats) -> float:
        return float(x @ (self._hessian @ x) / 2.0 + self._costs @ x)

    def _gradient(self, x: Floats) -> Floats:
        gradient: Floats = self._hessian @ x + self._costs
        return gradient


def _gap(values: Floats, multipliers: Floats, lower: Floats, upper: Floats) -> float:
    """What the multipliers promise from moving the values to the sides that they push to."""
    room = np.where(multipliers > 0.0, values - lower, upper - values)
    return float(abs(multipliers) @ np.clip(room, 0.0, 1.0 + abs(values)))


def _violation(values: Floats, lower: Floats, upper: Floats) -> float:
    """How far the values are beyond their sides, relative to their own size and one."""
    beyond = np.maximum(lower - values, values - upper) / (1.0 + abs(values))
    return float(beyond.max(initial=0.0))


def _largest(matrix: Any) -> Floats:
    """The largest magnitude in each row."""
    return abs(matrix).max(axis=1).toarray().ravel() if matrix.nnz else np.zeros(matrix.shape[0])


def _scales(magnitudes: Floats) -> Floats:
    """Powers of two that bring magnitudes near one; one for a magnitude of zero."""
    return np.exp2(-np.round(np.log2(np.where(magnitudes > 0.0, magnitudes, 1.0))))
