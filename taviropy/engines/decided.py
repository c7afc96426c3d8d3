"""Models that leave nothing to decide: an engine isn't asked, none is even loaded.

They are those without variables, those whose bounds or sides cross, and those without constraints
whose variables are all fixed by their bounds.
"""

from __future__ import annotations

import numpy as np

from .._tvo import TVO
from ..data.values import Floats
from ..data.view import View
from .protocol import Answer

_TOLERANCE = 1e-6  # what a side may be missed by, relative to its size where that is above one


def decided(view: View) -> Answer | None:
    """The answer to such a model, None for any other; TaviroError where a general constraint or a
    nonlinear objective has a variable that was removed."""
    if view.general_count:
        _ = view.nonlinear, view.indicators
    _ = view.nonlinear_objective
    if any((view.has_crossed_bounds, view.has_crossed_sides)):  # both look for infinite ones
        return Answer(TVO.Status.INFEASIBLE)
    if not view.column_count:
        return _without_variables(view)
    if view.row_count or view.quadratic_count or view.general_count:
        return None
    return _without_rows(view)


def _without_variables(view: View) -> Answer:
    x = np.empty(0)
    sides = [(np.zeros(view.row_count), *view.sides())]
    for rows in (view.quadratic_rows, view.nonlinear):
        if rows is not None:
            sides.append((rows.values(x), rows.lower, rows.upper))
    if not all(_holds(*each) for each in sides):
        return Answer(TVO.Status.INFEASIBLE)
    return Answer(
        TVO.Status.OPTIMAL,
        x,
        view.objective_at(x),
        reduced_costs=np.empty(0),
        row_duals=np.zeros(view.row_count),
        quadratic_duals=np.zeros(view.quadratic_count),
    )


def _holds(values: Floats, lower: Floats, upper: Floats) -> bool:
    slack = _TOLERANCE * np.maximum(1.0, abs(values))
    return bool(((values >= lower - slack) & (values <= upper + slack)).all())


def _without_rows(view: View) -> Answer | None:
    columns = view.columns()
    if (
        view.quadratic_objective is not None
        or view.nonlinear_objective is not None
        or view.has_integers
        or not np.array_equal(columns.lower, columns.upper)
        or not np.isfinite(columns.lower).all()
    ):
        return None
    x = columns.lower.copy()
    return Answer(
        TVO.Status.OPTIMAL,
        x,
        view.objective_at(x),
        reduced_costs=columns.costs.copy(),
        row_duals=np.empty(0),
    )
