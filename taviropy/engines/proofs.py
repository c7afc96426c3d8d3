"""A direction in which a model improves for ever, and multipliers that show that it has no point.

They are found by linear models of their own, whichever engine solved the model, and are checked by
arithmetic before anybody sees them.

Source: Schrijver, Theory of Linear and Integer Programming (Wiley, 1986), sections 7.3 and 8.2.
"""

from __future__ import annotations

from typing import Any

import numpy as np
import scipy.sparse as sp
from highspy import HighsModelStatus, MatrixFormat

from ..data.quadratic import QuadraticTerms
from ..data.values import Floats
from ..data.view import View
from .certificates import is_ray, proves_no_point
from .highs_live import new_highs
from .optimality import ConvexProgram, largest, scales

_NOISE = 1e-9  # entries so much smaller than the largest are none
_FINE = 1e-10  # tolerance of the linear models
_FLAT = 1e-9  # curvature along a ray, relative to the terms that cancel out


def ray(view: View) -> Floats | None:
    """A direction, its largest entry 1 or -1, along which the objective improves for ever from any
    point of the model's relaxation without integers; None where none was found.

    Along it linear rows and bounds stay satisfied, and nothing that is quadratic has curvature.
    Variables of general constraints and of a nonlinear objective stay where they are.
    """
    program = ConvexProgram(view)
    lower, upper = (np.where(np.isfinite(b), 0.0, np.sign(b)) for b in program.column_bounds)
    still = _in_general_constraints(view)
    lower[still] = upper[still] = 0.0
    rows = [program.matrix, program.hessian, *_quadratic_rows(view)]
    sides = [_directions(*program.row_bounds), _level(view.column_count), *_quadratic_sides(view)]
    matrix = sp.vstack(rows, format="csr")
    low, high = (np.concatenate(side) for side in zip(*sides, strict=True))
    found = _solved(program.costs, lower, upper, matrix, low, high)
    if found is None:
        return None
    direction = _clean(found[0])
    if direction is None or not is_ray(program, direction):
        return None
    change = matrix @ direction
    room = _FLAT * (abs(matrix) @ abs(direction))
    return direction if ((change >= low - room) & (change <= high + room)).all() else None


def certificate(view: View) -> Floats | None:
    """Multipliers of the linear rows, the largest 1 or -1, with which the sum of the rows keeps out
    all points between the bounds; None where none were found.

    They are positive for lower sides and negative for upper ones.
    """
    program = ConvexProgram(view)
    rows, columns = program.matrix.shape
    units = scales(largest(program.matrix))
    matrix = sp.diags_array(units) @ program.matrix
    slacks = sp.eye_array(rows)
    found = _solved(
        np.concatenate([np.zeros(columns), np.ones(2 * rows)]),
        np.concatenate([program.column_bounds[0], np.zeros(2 * rows)]),
        np.concatenate([program.column_bounds[1], np.full(2 * rows, np.inf)]),
        sp.hstack([matrix, slacks, -slacks], format="csr"),
        *(units * side for side in program.row_bounds),
    )
    if found is None:
        return None
    multipliers = _clean(units * found[1])
    if multipliers is None or not proves_no_point(program, multipliers):
        return None
    return multipliers


def _solved(
    costs: Floats, lower: Floats, upper: Floats, matrix: Any, low: Floats, high: Floats
) -> tuple[Floats, Floats] | None:
    """The optimal point and the dual values of the rows of a linear model to be minimized."""
    highs = new_highs()
    rows, columns = matrix.shape
    highs.passModel(
        columns,
        rows,
        matrix.nnz,
        int(MatrixFormat.kRowwise),
        1,
        0.0,
        costs,
        lower,
        upper,
        low,
        high,
        matrix.indptr,
        matrix.indices,
        matrix.data,
        np.zeros(columns, np.int32),
    )
    for name in ("primal_feasibility_tolerance", "dual_feasibility_tolerance"):
        highs.setOptionValue(name, _FINE)
    highs.run()
    if highs.getModelStatus() != HighsModelStatus.kOptimal:
        return None
    found = highs.getSolution()
    return np.array(found.col_value), np.array(found.row_dual)


def _clean(values: Floats) -> Floats | None:
    """The values scaled so that the largest is 1 or -1, without noise; None where all are zero."""
    top = abs(values).max(initial=0.0)
    if top <= _NOISE:
        return None
    values = values / top
    return np.where(abs(values) > _NOISE, values, 0.0)


def _directions(lower: Floats, upper: Floats) -> tuple[Floats, Floats]:
    """The sides of rows as those of a change that may go on for ever."""
    return np.where(np.isfinite(lower), 0.0, -np.inf), np.where(np.isfinite(upper), 0.0, np.inf)


def _level(count: int) -> tuple[Floats, Floats]:
    return np.zeros(count), np.zeros(count)


def _quadratic_rows(view: View) -> list[Any]:
    """The linear parts of quadratic rows, and the matrices of their terms."""
    quadratic, size = view.quadratic_rows, view.column_count
    if quadratic is None:
        return []
    rows = quadratic.rows
    linear = sp.csr_array((rows.data, rows.ids, rows.indptr), shape=(rows.count, size))
    return [linear, *(symmetric(quadratic.terms(k), size) for k in range(rows.count))]


def _quadratic_sides(view: View) -> list[tuple[Floats, Floats]]:
    quadratic = view.quadratic_rows
    if quadratic is None:
        return []
    levels = [_level(view.column_count)] * quadratic.rows.count
    return [_directions(quadratic.lower, quadratic.upper), *levels]


def symmetric(terms: QuadraticTerms, size: int) -> Any:
    """The matrix H of terms that are ``x @ H @ x / 2``."""
    half = sp.coo_array((terms.data, (terms.ids1, terms.ids2)), shape=(size, size)).tocsr()
    return half + half.T


def _in_general_constraints(view: View) -> Any:
    """The columns that general constraints look at, and a nonlinear objective."""
    found = [np.empty(0, np.intp)]
    if view.nonlinear_objective is not None:
        found.append(view.nonlinear_objective.first[view.nonlinear_objective.variables()])
    if view.nonlinear is not None:
        trees, columns = view.nonlinear.trees, view.nonlinear.columns
        found += [trees.first[trees.variables()], columns[columns >= 0]]
    if view.indicators is not None:
        found += [view.indicators.columns, view.indicators.rows.ids]
    return np.unique(np.concatenate(found)).astype(np.intp)
