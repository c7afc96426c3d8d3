"""Models that leave nothing to decide: no constraint, and every variable fixed by its bounds.

Their answer is the bounds. No engine starts, none is even loaded, and so there is no log.
"""

from __future__ import annotations

import numpy as np

from ._attrutil import CHARACTERS, VARIABLE
from ._session import Solution
from ._tvo import TVO

_CONTINUOUS = CHARACTERS["VType"].index("C")


def nothing_to_decide(model):
    """Whether `answer` may take the place of a solve."""
    variables = model._tables[VARIABLE]
    return (
        variables.size > 0
        and all(table.size == 0 for kind, table in model._tables.items() if kind != VARIABLE)
        and model._objective.quadratic is None
        and bool(np.array_equal(variables["LB"], variables["UB"]))
        and bool(np.isfinite(variables["LB"]).all())
        and bool((variables["VType"] == _CONTINUOUS).all())
    )


def answer(model):
    """The solution of such a model."""
    variables = model._tables[VARIABLE]
    values = np.array(variables["LB"])
    costs = np.array(variables["Obj"])
    objective = float(costs @ values) + model._objective.offset
    return Solution(
        TVO.Status.OPTIMAL,
        objective=objective,
        bound=objective,
        values={"X": values, "ReducedCost": costs, "Dual": np.empty(0), "Slack": np.empty(0)},
    )
