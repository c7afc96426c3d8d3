"""Multipliers of linear and convex quadratic rows that show that a model has no point.

Clarabel finds them for the cones that stand for the rows. They are checked by arithmetic: the sum
of the rows, so multiplied, is concave, so that its tangent at any point keeps above it.

Source: Boyd and Vandenberghe, Convex Optimization (Cambridge, 2004), sections 3.1.3 and 5.8.
"""

from __future__ import annotations

from typing import Any

import clarabel
import numpy as np
import scipy.sparse as sp
from scipy.sparse.linalg import lsmr

from ..data.values import Floats
from ..data.view import QuadraticRows, View
from .clarabel import Problem, quiet_settings
from .cones import Cone
from .factor import NotConvex
from .optimality import ConvexProgram
from .proofs import symmetric
from .protocol import Run
from .running import Log, Stop

_ROUNDING = 1e-9  # relative to the sum of the magnitudes that cancel out
_INSIDE = 1e-6  # what a value is away from a bound, relative to it, that isn't at it
_FINE = 1e-14


def conic_certificate(view: View) -> tuple[Floats, Floats] | None:
    """Multipliers of the linear and of the quadratic rows, the largest 1 or -1; None where none
    were found.

    They are positive for lower sides and negative for upper ones.
    """
    quadratic = view.quadratic_rows
    if quadratic is None:
        return None
    try:
        problem = Problem(view)
    except NotConvex:
        return None
    solution = problem.run(Run(Log(False, None), Stop()), np.inf, feasibility=True)
    if not problem.proves_no_point(solution):
        return None
    z = np.array(solution.z)
    of_cones = [
        _multiplier(cone, part)
        for cone, part in zip(problem.cones, problem.cone_multipliers(z), strict=True)
    ]
    found = np.concatenate([problem.row_multipliers(z), of_cones])
    if not np.isfinite(found).all() or not found.any():
        return None
    found /= abs(found).max()
    rows, curved = np.split(found, [view.row_count])
    rows[abs(rows) <= _ROUNDING] = 0.0
    return (rows, curved) if _proves(problem.program, quadratic, rows, curved) else None


def _multiplier(cone: Cone, part: Floats) -> float:
    """The multiplier of the row that a cone stands for, NaN for a cone that isn't convex as a row.

    Where (u, v, w) multiply ``(s + t/s, s - t/s, 2 F x)``, the sum is at least (u - v) / s times
    ``t - |F x|^2``; with ``(sqrt b, F x)`` it is u / (2 sqrt b).
    """
    if cone.weight == 4.0 and cone.dimension >= 2 and cone.sides[:2].sum() > 0.0:
        size = (part[0] - part[1]) / (cone.sides[:2].sum() / 2.0)
    elif cone.weight == 1.0 and not (cone.rows == 0).any() and cone.sides[0] > 0.0:
        size = part[0] / (2.0 * cone.sides[0])
    else:
        return np.nan
    return float(size if cone.turned else -size)


def _proves(program: ConvexProgram, quadratic: QuadraticRows, rows: Floats, curved: Floats) -> bool:
    """Whether the sum of the rows, each less its side, is negative between the bounds."""
    size = len(program.costs)
    hessian, pull = sp.csr_array((size, size)), program.matrix.T @ rows
    cancelling = abs(program.matrix).T @ abs(rows)
    constant, scale = _at_sides(rows, *program.row_bounds)
    for k, multiplier in enumerate(curved.tolist()):
        hessian = hessian + multiplier * symmetric(quadratic.terms(k), size)
    part, more = quadratic.rows, _at_sides(curved, quadratic.lower, quadratic.upper)
    linear = sp.csr_array((part.data, part.ids, part.indptr), shape=(part.count, size))
    pull, cancelling = pull + linear.T @ curved, cancelling + abs(linear).T @ abs(curved)
    constant, scale = constant + more[0], scale + more[1]
    x = _highest(hessian, pull, *program.column_bounds)
    if x is None:
        return False
    slope = hessian @ x + pull
    slope[abs(slope) <= _ROUNDING * (abs(hessian) @ abs(x) + cancelling)] = 0.0
    used = slope != 0.0
    ends = np.where(slope > 0.0, program.column_bounds[1], program.column_bounds[0])[used]
    if not np.isfinite(ends).all():
        return False
    value = x @ (hessian @ x) / 2.0 + pull @ x - constant
    terms = abs(x) @ (abs(hessian) @ abs(x)) + cancelling @ abs(x) + scale
    most = value + slope[used] @ (ends - x[used])
    return bool(most < -_ROUNDING * (1.0 + terms))


def _at_sides(multipliers: Floats, lower: Floats, upper: Floats) -> Floats:
    """The multipliers times the sides that they belong to, and the same in magnitudes."""
    used = multipliers != 0.0
    sides = np.where(multipliers > 0.0, lower, upper)[used]
    return np.array([multipliers[used] @ sides, abs(multipliers[used]) @ abs(sides)])


def _highest(hessian: Any, pull: Floats, lower: Floats, upper: Floats) -> Floats | None:
    """Where a concave quadratic function is highest between bounds."""
    matrix, sides = [], []
    for sign, bounds in ((1.0, upper), (-1.0, lower)):
        at = np.flatnonzero(np.isfinite(bounds))
        matrix.append(sign * sp.eye_array(len(pull), format="csr")[at])
        sides.append(sign * bounds[at])
    count = sum(map(len, sides))
    found = clarabel.DefaultSolver(
        sp.csc_matrix(sp.triu(-hessian)),
        -pull,
        sp.csc_matrix(sp.vstack(matrix)),
        np.concatenate(sides),
        [clarabel.NonnegativeConeT(count)] if count else [],
        quiet_settings(),
    ).solve()
    x = np.clip(np.array(found.x), lower, upper)
    if not np.isfinite(x).all():
        return None
    room = _INSIDE * (1.0 + abs(x))
    free = np.flatnonzero((x > lower + room) & (x < upper - room))
    if len(free):
        slope = (hessian @ x + pull)[free]
        x[free] -= lsmr(hessian[free][:, free], slope, atol=_FINE, btol=_FINE)[0]
    highest: Floats = np.clip(x, lower, upper)
    return highest
