"""scipy.optimize.milp as an engine: what it takes to add one, written against the protocol alone."""

import numpy as np
import scipy.sparse as sp
from scipy.optimize import Bounds, LinearConstraint, milp

from taviropy import TVO
from taviropy.engines.protocol import Answer
from taviropy.engines.running import as_type

_STATUSES = {
    0: TVO.Status.OPTIMAL,
    1: TVO.Status.TIME_LIMIT,
    2: TVO.Status.INFEASIBLE,
    3: TVO.Status.UNBOUNDED,
    4: TVO.Status.INFEASIBLE_OR_UNBOUNDED,
}


class MilpEngine:
    """The arguments of `milp`, made anew at each load."""

    title = "scipy.optimize.milp"

    @classmethod
    def refuses(cls, view, final):
        if view.nonlinear_objective is not None:
            return "its objective is nonlinear"
        if view.quadratic_objective is not None:
            return "its objective is quadratic"
        if view.quadratic_count:
            return f"'{view.quadratic_name(0)}' is a quadratic constraint"
        return f"'{view.general_name(0)}' is a general constraint" if view.general_count else ""

    @classmethod
    def option_names(cls):
        return ["presolve"]

    @classmethod
    def checked_option(cls, name, value):
        return as_type(bool, value)

    def load(self, view, changes):
        columns, rows = view.columns(), view.rows
        shape = view.row_count, view.column_count
        matrix = sp.csr_array((rows.data, rows.ids, rows.indptr), shape=shape)
        self._sign = 1.0 if view.sense == TVO.MINIMIZE else -1.0
        self._arguments = {
            "c": self._sign * columns.costs,
            "integrality": columns.is_integer.astype(int),
            "bounds": Bounds(columns.lower, columns.upper),
            "constraints": LinearConstraint(matrix, *view.sides()) if view.row_count else None,
        }

    def solve(self, view, run):
        options = {"disp": False, **run.options}
        if np.isfinite(run.time_limit):
            options["time_limit"] = run.time_limit
        if run.gap is not None:
            options["mip_rel_gap"] = run.gap
        found = milp(**self._arguments, options=options)
        run.log.line(found.message)
        status = _STATUSES[found.status]
        if run.stop and status == TVO.Status.TIME_LIMIT:
            status = TVO.Status.INTERRUPTED
        text = "milp gives no dual values: solve the model with engine='highs'"
        answer = Answer(status, found.x, missing=dict.fromkeys(("ReducedCost", "Dual"), text))
        if view.has_integers and found.get("mip_dual_bound") is not None:
            answer.bound = self._sign * found.mip_dual_bound + view.offset
            answer.nodes = int(found.mip_node_count)
        return answer

    def close(self):
        self._arguments = None
