"""What SCIP calls while it solves: for news, and for rows that are added on the way."""

from __future__ import annotations

from math import isinf
from typing import Any

import numpy as np
from pyscipopt import Conshdlr, Eventhdlr
from pyscipopt.scip import PY_SCIP_EVENTTYPE as EVENT
from pyscipopt.scip import PY_SCIP_RESULT as RESULT
from pyscipopt.scip import Expr, ExprCons, Term

from ..data.values import Floats
from .protocol import Run
from .running import News, Row

_AFTER_INTEGRALITY = -1  # as a priority: only points that are integer come here


class Plugins:
    """The plugins of one SCIP for one run; they serve no other."""

    def __init__(self, scip: Any, variables: list[Any], run: Run) -> None:
        self._scip, self._variables = scip, variables
        self._run: Run | None = run
        number = getattr(scip, "data", None) or 0  # names of plugins can't be used again
        scip.data = number + 1
        if run.reporter:
            scip.includeEventhdlr(_News(self), f"news{number}", "")
        if run.lazy is not None:
            for name in ("misc/allowstrongdualreds", "misc/allowweakdualreds"):
                scip.setParam(name, False)  # they count on knowing all rows
            scip.setParam("misc/usesymmetry", 0)
            priority = {"enfopriority": _AFTER_INTEGRALITY, "chckpriority": _AFTER_INTEGRALITY}
            scip.includeConshdlr(_Rows(self), f"rows{number}", "", **priority, needscons=False)

    def end(self) -> None:
        """After the run: be of no more use."""
        self._run = None

    def tell(self, is_new: bool) -> None:
        """Hand over news."""
        if self._run is None or not (is_new or self._run.reporter.is_due):
            return
        scip = self._scip
        solution, bound = scip.getBestSol(), scip.getDualbound()
        # The primal bound follows only after this.
        best = scip.getSolObjVal(solution) if scip.getNSols() else None
        bound = None if abs(bound) >= scip.infinity() else bound
        x = self.point(solution) if is_new else None
        nodes, iterations = scip.getNTotalNodes(), scip.getNLPIterations()
        self._run.reporter.tell(News(best, bound, nodes, iterations, x))

    def point(self, solution: Any) -> Floats:
        """The values of all variables; of a solution of None in the relaxation."""
        return np.array([self._scip.getSolVal(solution, v) for v in self._variables], np.float64)

    def broken(self, solution: Any) -> list[Row]:
        """The rows that the user wants and a solution breaks."""
        if self._run is None or self._run.lazy is None:
            return []
        x = self.point(solution)
        return [row for row in self._run.lazy(x) if row.is_broken_at(x)]

    def add(self, row: Row) -> None:
        """Add a row to the problem."""
        terms = zip(row.columns.tolist(), row.coefficients.tolist(), strict=True)
        expression = Expr({Term(self._variables[column]): value for column, value in terms})
        sides = (None if isinf(side) else side for side in (row.lower, row.upper))
        self._scip.addCons(ExprCons(expression, *sides))


class _News(Eventhdlr):
    def __init__(self, plugins: Plugins) -> None:
        self._plugins = plugins

    def eventinit(self) -> None:
        for event in (EVENT.BESTSOLFOUND, EVENT.NODESOLVED):
            self.model.catchEvent(event, self)

    def eventexec(self, event: Any) -> dict[str, Any]:
        self._plugins.tell(event.getType() == EVENT.BESTSOLFOUND)
        return {}


class _Rows(Conshdlr):
    def __init__(self, plugins: Plugins) -> None:
        self._plugins = plugins

    def conscheck(self, constraints: Any, solution: Any, *rest: Any) -> dict[str, Any]:
        is_broken = bool(self._plugins.broken(solution))
        return {"result": RESULT.INFEASIBLE if is_broken else RESULT.FEASIBLE}

    def consenfolp(self, constraints: Any, *rest: Any) -> dict[str, Any]:
        broken = self._plugins.broken(None)
        for row in broken:
            self._plugins.add(row)
        return {"result": RESULT.CONSADDED if broken else RESULT.FEASIBLE}

    def consenfops(self, constraints: Any, *rest: Any) -> dict[str, Any]:
        return self.consenfolp(constraints)

    def conslock(self, *rest: Any) -> None:
        """No constraint stands for what isn't known yet, so there is nothing to lock."""
