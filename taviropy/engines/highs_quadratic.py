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
from highspy import HessianFormat, MatrixFormat

from .._tvo import TVO
from ..data.values import Floats
from .highs_live import forget_types, new_highs
from .optimality import ConvexProgram
from .protocol import Answer

# A point and the multipliers of the rows.
Multiplied = tuple[Floats, Floats]


class QuadraticProgram(ConvexProgram):
    """A convex program without quadratic rows, put to HiGHS from other points of view."""

    def answer_of(self, highs: Any) -> Multiplied | None:
        """The point and the row's multipliers that HiGHS ended with, None where it has none."""
        found = highs.getSolution()
        x, y = np.array(found.col_value), self.sign * np.array(found.row_dual)
        whole = len(x) == self.matrix.shape[1] and len(y) == self.matrix.shape[0]
        return (x, y) if whole and np.isfinite(x).all() and np.isfinite(y).all() else None

    def seen_from(self, point: Floats, step: float) -> Any:
        """A HiGHS instance with ``point + step * units * d`` for x.

        The units bring the curvature in each variable near one; each row is scaled likewise.
        """
        highs, columns = new_highs(), len(point)
        units = sp.diags_array(self.units)
        matrix = (sp.diags_array(self.row_scales) @ self.matrix @ units).tocsr()
        triangle = sp.triu(units @ self.hessian @ units, format="csr")
        activity = self.matrix @ point
        low, high = (self.row_scales * (side - activity) / step for side in self.row_bounds)
        highs.passModel(
            columns,
            len(low) + 1,  # the last one is empty: without rows the solver makes mistakes
            matrix.nnz,
            triangle.nnz,
            int(MatrixFormat.kRowwise),
            int(HessianFormat.kTriangular),
            TVO.MINIMIZE,
            0.0,
            self.units * self.gradient(point),
            *((bound - point) / (step * self.units) for bound in self.column_bounds),
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
        return self.within_bounds(point + step * self.units * d), self.row_scales * y

    def answer(self, point: Floats, multipliers: Floats, status: int) -> Answer:
        """A point and its multipliers as the answer to the model."""
        reduced = self.reduced_costs(point, multipliers)
        activity: Floats = self.matrix @ point
        return Answer(
            status,
            point,
            row_values=lambda: activity,
            reduced_costs=self.sign * reduced,
            row_duals=self.sign * multipliers,
        )
