"""What shows that a model has no point or no optimum, checked by the model's own data.

A claim of that kind stands on a ray: of multipliers whose sum of rows no point can satisfy, or of
points along which the objective improves for ever.

Source: Schrijver, Theory of Linear and Integer Programming (Wiley, 1986), sections 7.3 and 8.2.
"""

from __future__ import annotations

import numpy as np
import scipy.sparse as sp
from highspy import HighsModelStatus, MatrixFormat

from .._tvo import TVO
from ..data.values import Floats
from .highs_live import new_highs
from .optimality import ConvexProgram, largest, scales

_ROUNDING = 1e-9  # relative to the sum of the magnitudes that cancel out
_STEEP = 1e-6  # least fall of a ray, as a share of the largest cost


def proves_no_point(program: ConvexProgram, multipliers: Floats) -> bool:
    """Whether the sum of the linear rows, so multiplied, keeps out all points between the bounds.

    The multipliers may have either sign.
    """
    sums = program.matrix.T @ multipliers
    sums[abs(sums) <= _ROUNDING * (abs(program.matrix).T @ abs(multipliers))] = 0.0
    return any(
        _most(sign * sums, *program.column_bounds) < _least(sign * multipliers, *program.row_bounds)
        for sign in (1.0, -1.0)
    )


def _most(weights: Floats, lower: Floats, upper: Floats) -> float:
    """The largest weighted sum of what lies between bounds, and some more for rounding."""
    used = weights != 0.0
    weights, ends = weights[used], np.where(weights > 0.0, upper, lower)[used]
    return float(weights @ ends + _ROUNDING * (1.0 + abs(weights) @ abs(ends)))


def _least(weights: Floats, lower: Floats, upper: Floats) -> float:
    return -_most(-weights, lower, upper)


def is_ray(program: ConvexProgram, direction: Floats) -> bool:
    """Whether a linear objective falls for ever along a direction, from any point."""
    fall, matrix = program.costs @ direction, program.matrix
    room = _ROUNDING * abs(direction).max(initial=0.0)
    return bool(
        fall < -_ROUNDING * (abs(program.costs) @ abs(direction))
        and _stays(direction, *program.column_bounds, room)
        and _stays(
            matrix @ direction, *program.row_bounds, _ROUNDING * (abs(matrix) @ abs(direction))
        )
    )


def _stays(change: Floats, lower: Floats, upper: Floats, room: Floats | float) -> bool:
    below, above = np.isfinite(lower) & (change < -room), np.isfinite(upper) & (change > room)
    return not (below | above).any()


def has_ray(program: ConvexProgram, seconds: float = np.inf) -> bool:
    """Whether the objective falls for ever from any point of the linear rows and bounds.

    Integers are no hindrance: a multiple of a rational ray is whole. False where the time ran out.

    Source: Frank and Wolfe, An algorithm for quadratic programming, Naval Research Logistics
    Quarterly 3 (1956): a convex quadratic objective without a minimum falls along a ray.
    """
    highs = new_highs()
    columns = len(program.costs)
    rows = sp.vstack([program.hessian, program.matrix], format="csr")
    rows = rows @ sp.diags_array(program.units)
    rows = (sp.diags_array(scales(largest(rows))) @ rows).tocsr()
    costs = program.units * program.costs
    lower, upper = (np.where(np.isfinite(side), 0.0, side) for side in program.row_bounds)
    highs.passModel(
        columns,
        rows.shape[0],
        rows.nnz,
        int(MatrixFormat.kRowwise),
        TVO.MINIMIZE,
        0.0,
        costs,
        *(np.where(np.isfinite(bound), 0.0, np.sign(bound)) for bound in program.column_bounds),
        np.append(np.zeros(columns), lower),
        np.append(np.zeros(columns), upper),
        rows.indptr,
        rows.indices,
        rows.data,
        np.zeros(columns, np.int32),
    )
    if seconds < np.inf:
        highs.setOptionValue("time_limit", max(seconds, 0.0))
    highs.run()
    fall = -highs.getObjectiveValue()
    steep = _STEEP * abs(costs).max(initial=0.0)
    return highs.getModelStatus() == HighsModelStatus.kOptimal and bool(fall > steep)
