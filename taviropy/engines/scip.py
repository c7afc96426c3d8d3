"""SCIP: quadratic constraints, non-convex, nonlinear and indicator constraints."""

from __future__ import annotations

from collections.abc import Callable
from functools import cache
from pathlib import Path
from tempfile import TemporaryDirectory
from time import perf_counter
from typing import Any

import numpy as np
from pyscipopt import Model as Scip
from pyscipopt.scip import Expr, ExprCons, Term

from .._exception import TaviroError
from .._tvo import TVO
from ..data.changes import Changes
from ..data.quadratic import QuadraticTerms
from ..data.rows import Rows
from ..data.values import Floats
from ..data.view import View
from .certificates import has_ray
from .optimality import ConvexProgram
from .protocol import Answer, Found, Run
from .reach import coefficients, refuse_large, smallest, warn_of_open, warn_of_small
from .running import as_type, in_thread, silent
from .scip_plugins import Plugins
from .scip_trees import TreeTranslator

_INFINITY = 1e20  # SCIP's own
# Values that come near its infinity, and where sides are closed to see what depends on that.
_FAR, _NEAR = 1e19, 1e15
_CLEAR = 1e-3  # what an objective is worse by then, relative to itself, where it depends
_EPSILON, _FINEST_EPSILON = 1e-9, 1e-15  # what it takes for zero, and how fine that is made here
_STATUSES = {
    "optimal": TVO.Status.OPTIMAL,
    "gaplimit": TVO.Status.OPTIMAL,
    "infeasible": TVO.Status.INFEASIBLE,
    "unbounded": TVO.Status.UNBOUNDED,
    "inforunbd": TVO.Status.INFEASIBLE_OR_UNBOUNDED,
    "timelimit": TVO.Status.TIME_LIMIT,
    "userinterrupt": TVO.Status.INTERRUPTED,
    "terminate": TVO.Status.INTERRUPTED,
    "nodelimit": TVO.Status.INTERRUPTED,
    "totalnodelimit": TVO.Status.INTERRUPTED,
    "stallnodelimit": TVO.Status.INTERRUPTED,
    "sollimit": TVO.Status.INTERRUPTED,
    "bestsollimit": TVO.Status.INTERRUPTED,
    "restartlimit": TVO.Status.INTERRUPTED,
    "primallimit": TVO.Status.INTERRUPTED,
    "duallimit": TVO.Status.INTERRUPTED,
}
_WITH_SOLUTION = (TVO.Status.OPTIMAL, TVO.Status.TIME_LIMIT, TVO.Status.INTERRUPTED)


class ScipEngine:
    """A SCIP problem, built anew from the model at each load after a change."""

    title = "SCIP"

    def __init__(self) -> None:
        self._scip: Any = None
        self._variables: list[Any] = []

    @classmethod
    def refuses(cls, view: View, final: bool) -> str:
        """Nothing: SCIP takes all that a model can hold."""
        return ""

    @classmethod
    def option_names(cls) -> list[str]:
        """The names of SCIP's parameters."""
        return list(_parameters())

    @classmethod
    def checked_option(cls, name: str, value: object) -> object:
        """`value` as the type of a parameter, ValueError where it doesn't fit."""
        converted = as_type(type(_parameters()[name]), value)
        scip = Scip()
        try:
            with silent(2):
                scip.setParam(name, converted)
        except (ValueError, OverflowError, KeyError):
            raise ValueError("a value that SCIP allows for it") from None
        return converted

    def close(self) -> None:
        """Release the solver's memory."""
        self._scip = None
        self._variables = []

    def load(self, view: View, changes: Changes | None) -> None:
        """Build the problem."""
        self._scip = Scip(view.name or "model")
        self._scip.hideOutput()
        try:
            self._set_epsilon(view)
            self._add_variables(view)
            self._add_semi(view)
            self._add_linear(view)
            self._add_objective(view)
            self._add_quadratic(view)
            self._add_nonlinear(view)
            self._add_indicators(view)
        except (TaviroError, Warning):
            raise
        except Exception as error:
            raise TaviroError(
                TVO.Error.ENGINE_FAILED, f"SCIP refused the model's data: {error}"
            ) from None

    # Loading

    def _set_epsilon(self, view: View) -> None:
        """Make SCIP see the smallest coefficients, as far as it can."""
        parts = list(coefficients(view))
        refuse_large(self.title, _INFINITY, parts)
        least = smallest(parts)
        if least <= _EPSILON:
            self._scip.setParam("numerics/epsilon", max(least / 4.0, _FINEST_EPSILON))
            warn_of_small(self.title, _FINEST_EPSILON, parts)

    def _add_variables(self, view: View) -> None:
        data, names = view.columns(), view.column_names()
        binary = data.is_integer & (data.lower == 0.0) & (data.upper == 1.0)
        types = np.where(binary, "B", np.where(data.is_integer, "I", "C")).tolist()
        lower = self._finite(data.lower, "bound", view.column_name)
        upper = self._finite(data.upper, "bound", view.column_name)
        add = self._scip.addVar
        self._variables = [
            add(name, kind, low, high, cost)
            for name, kind, low, high, cost in zip(
                names, types, lower, upper, data.costs.tolist(), strict=True
            )
        ]

    def _add_semi(self, view: View) -> None:
        """Columns that are zero where a binary variable is, and else between their own bounds."""
        semi = view.columns().semi if view.is_semi.any() else None
        if semi is None:
            return
        for at, *bounds in zip(*(part.tolist() for part in semi), strict=True):
            value, is_on = self._variables[at], self._scip.addVar(f"on{at}", "B")
            low, high = (None, 0.0) if bounds[0] > 0.0 else (0.0, None)
            zero = ExprCons(Expr({Term(value): 1.0}), low, high)
            self._scip.addConsIndicator(zero, is_on, False)
            for bound, low, high in ((bounds[0], 0.0, None), (bounds[1], None, 0.0)):
                if abs(bound) < _INFINITY:
                    expr = Expr({Term(value): 1.0, Term(is_on): -bound})
                    self._scip.addCons(ExprCons(expr, low, high))

    def _finite(self, values: Floats, noun: str, name: Callable[[int], str]) -> list[float | None]:
        """Bounds or sides as SCIP takes them, None for an open one."""
        warn_of_open(self.title, _INFINITY, values, noun, name)
        return [None if abs(value) >= _INFINITY else value for value in values.tolist()]

    def _sides(self, lower: Floats, upper: Floats, name: Any) -> tuple[list[Any], list[Any]]:
        """Both sides of rows. One that is open on both sides keeps SCIP's infinity on the left."""
        lows = self._finite(lower, "side", name)
        highs = self._finite(upper, "side", name)
        for k, (low, high) in enumerate(zip(lows, highs, strict=True)):
            if low is None and high is None:
                lows[k] = -_INFINITY
        return lows, highs

    def _add_linear(self, view: View) -> None:
        rows, names = view.rows, view.row_names()
        lower, upper = self._sides(*view.sides(), view.row_name)
        for k, name in enumerate(names):
            expr = Expr(self._linear_terms(rows, k))
            self._scip.addCons(ExprCons(expr, lower[k], upper[k]), name=name)

    def _add_objective(self, view: View) -> None:
        scip = self._scip
        if view.offset:
            scip.addObjoffset(view.offset)
        minimizing = view.sense == TVO.MINIMIZE
        if view.quadratic_objective is not None:
            value = scip.addVar("objective", "C", None, None, 1.0)
            expr = Expr(self._pair_terms(view.quadratic_objective) | {Term(value): -1.0})
            scip.addCons(ExprCons(expr, None if minimizing else 0.0, 0.0 if minimizing else None))
        self._add_nonlinear_objective(view)
        if minimizing:
            scip.setMinimize()
        else:
            scip.setMaximize()

    def _add_nonlinear_objective(self, view: View) -> None:
        """A variable for each addend, which the objective pushes against it."""
        trees, scip = view.nonlinear_objective, self._scip
        if trees is None:
            return
        translator = TreeTranslator(scip, trees, self._variables, lambda k: "objective")
        sides = (None, 0.0) if view.sense == TVO.MINIMIZE else (0.0, None)
        for k in range(trees.count):
            value = scip.addVar(f"objective{k}", "C", None, None, 1.0)
            scip.addCons(ExprCons(translator.translate(k) - value, *sides))

    def _add_quadratic(self, view: View) -> None:
        quadratic = view.quadratic_rows
        if quadratic is None:
            return
        lower, upper = self._sides(quadratic.lower, quadratic.upper, view.quadratic_name)
        for k in range(quadratic.rows.count):
            terms = self._linear_terms(quadratic.rows, k) | self._pair_terms(quadratic.terms(k))
            cons = ExprCons(Expr(terms), lower[k], upper[k])
            self._scip.addCons(cons, name=view.quadratic_name(k))

    def _add_nonlinear(self, view: View) -> None:
        nonlinear = view.nonlinear
        if nonlinear is None:
            return

        def name(k: int) -> str:
            return view.general_name(int(nonlinear.places[k]))

        lower, upper = self._sides(nonlinear.lower, nonlinear.upper, name)
        translator = TreeTranslator(self._scip, nonlinear.trees, self._variables, name)
        for k, column in enumerate(nonlinear.columns.tolist()):
            expr = translator.translate(k)
            if column >= 0:
                expr = expr - self._variables[column]
            self._scip.addCons(ExprCons(expr, lower[k], upper[k]), name=name(k))

    def _add_indicators(self, view: View) -> None:
        indicators = view.indicators
        if indicators is None:
            return

        def name(k: int) -> str:
            return view.general_name(int(indicators.places[k]))

        lower, upper = self._sides(indicators.lower, indicators.upper, name)
        for k, column in enumerate(indicators.columns.tolist()):
            terms, binary = self._linear_terms(indicators.rows, k), self._variables[column]
            for low, high in ((None, upper[k]), (lower[k], None)):
                if (low is None and high is None) or low == -_INFINITY:
                    continue
                cons = ExprCons(Expr(dict(terms)), low, high)
                self._scip.addConsIndicator(cons, binary, bool(indicators.values[k]), name(k))

    def _linear_terms(self, rows: Rows, k: int) -> dict[Any, float]:
        part = slice(rows.indptr[k], rows.indptr[k + 1])
        return {
            Term(self._variables[column]): value
            for column, value in zip(rows.ids[part].tolist(), rows.data[part].tolist(), strict=True)
        }

    def _pair_terms(self, terms: QuadraticTerms) -> dict[Any, float]:
        """The terms as SCIP's; each pair stands there once."""
        columns = zip(terms.ids1.tolist(), terms.ids2.tolist(), strict=True)
        return {
            Term(self._variables[first], self._variables[second]): value
            for (first, second), value in zip(columns, terms.data.tolist(), strict=True)
        }

    # Solving

    def solve(self, view: View, run: Run) -> Answer:
        """Solve what is loaded; what has no optimum is solved once more to make sure."""
        deadline = perf_counter() + run.time_limit
        self._apply(run)
        self._pass_start(view)
        plugins = Plugins(self._scip, self._variables, run)
        try:
            self._optimize(run)
            answer = self._answer(view, run)
            if run.lazy is None:
                plugins.end()  # a further solve is no news, but has the same rows
            return answer if run.stop else self._sure(view, run, deadline, answer)
        finally:
            plugins.end()

    def _sure(self, view: View, run: Run, deadline: float, answer: Answer) -> Answer:
        """An answer that is made sure of where SCIP found no end."""
        if answer.status in (TVO.Status.UNBOUNDED, TVO.Status.INFEASIBLE_OR_UNBOUNDED):
            return Answer(self._settled(view, run, deadline, answer.status))
        if answer.status == TVO.Status.OPTIMAL and self._is_at_infinity():
            return self._brought_back(view, run, deadline, answer)
        return answer

    def _settled(self, view: View, run: Run, deadline: float, claim: int) -> int:
        """The status of a model whose objective has no end if it has a point."""
        run.log.line("The objective may have no end: looking for a feasible point.")
        self._scip.freeTransform()
        self._scip.setObjective(Expr())
        self._optimize_until(run, deadline)
        status = self._scip.getStatus()
        if status == "infeasible":
            return TVO.Status.INFEASIBLE
        if status != "optimal":
            return TVO.Status.INFEASIBLE_OR_UNBOUNDED
        is_linear = view.quadratic_objective is None and view.nonlinear_objective is None
        if not is_linear or view.quadratic_count or view.general_count:
            return TVO.Status.UNBOUNDED
        if has_ray(ConvexProgram(view), deadline - perf_counter()):
            return TVO.Status.UNBOUNDED
        return claim if perf_counter() > deadline else TVO.Status.FAILED

    def _is_at_infinity(self) -> bool:
        """Whether the best point has a value that is next to SCIP's infinity."""
        best, variables = self._scip.getBestSol(), self._scip.getVars()
        return any(abs(self._scip.getSolVal(best, v)) >= _FAR for v in variables)

    def _brought_back(self, view: View, run: Run, deadline: float, answer: Answer) -> Answer:
        """The answer to a model whose optimum is at infinity, or seems so.

        Its open sides are closed far outside. Where that makes the optimum worse, there is none;
        else the new point is as good, and a better one to use.
        """
        run.log.line("The optimum is at infinity: solving again within large bounds.")
        scip = self._scip
        scip.freeTransform()
        for variable in scip.getVars():
            if variable.getLbOriginal() <= -_INFINITY:
                scip.chgVarLb(variable, -_NEAR)
            if variable.getUbOriginal() >= _INFINITY:
                scip.chgVarUb(variable, _NEAR)
        self._optimize_until(run, deadline)
        within = self._answer(view, run)
        if within.status != TVO.Status.OPTIMAL or within.x is None or answer.x is None:
            return answer if run.stop else Answer(TVO.Status.INFEASIBLE_OR_UNBOUNDED)
        values = view.objective_at(answer.x), view.objective_at(within.x)
        gain = view.sense * (values[1] - values[0])
        if gain > _CLEAR * (1.0 + abs(values[1])):
            return Answer(TVO.Status.UNBOUNDED)
        return within

    def _optimize_until(self, run: Run, deadline: float) -> None:
        if deadline < np.inf:
            passed = self._scip.getSolvingTime()
            self._scip.setParam("limits/time", passed + max(deadline - perf_counter(), 0.0))
        self._optimize(run)

    def _optimize(self, run: Run) -> None:
        """Run SCIP, its log going where that of the run goes.

        SCIP writes the log to a file, which is read meanwhile: it would call Python's streams
        without Python's lock. Its automatic differentiation has room for 64 threads in the life of
        a process.
        """
        scip = self._scip
        if not run.log.is_on:
            pump = run.reporter.pump
            in_thread(scip.optimizeNogil, run.stop, scip.interruptSolve, pump, in_kept=True)
            return
        with TemporaryDirectory() as folder:
            path = Path(folder, "log")
            path.touch()
            scip.setLogfile(str(path))
            try:
                with path.open(encoding="utf-8", errors="replace") as log:

                    def tick() -> None:
                        run.log.write(log.read())
                        run.reporter.pump()

                    in_thread(scip.optimizeNogil, run.stop, scip.interruptSolve, tick, in_kept=True)
            finally:
                scip.setLogfile(None)

    def _apply(self, run: Run) -> None:
        wanted = {"misc/catchctrlc": False, **run.options}
        for name, value in (
            ("limits/time", None if run.time_limit == np.inf else run.time_limit),
            ("limits/gap", run.gap),
            ("lp/threads", None if run.threads is None else min(run.threads, 64)),
            ("randomization/randomseedshift", run.seed),
        ):
            if value is not None:
                wanted[name] = value
        for name, value in wanted.items():
            try:
                self._scip.setParam(name, value)
            except ValueError:
                raise TaviroError(
                    TVO.Error.ERROR_INVALID_ARGUMENT,
                    f"SCIP doesn't take {value!r} for its parameter '{name}'",
                ) from None

    def _pass_start(self, view: View) -> None:
        if view.start is None:
            return
        at = np.flatnonzero(np.isfinite(view.start))
        if not len(at):
            return
        start = self._scip.createPartialSol()
        for column, value in zip(at.tolist(), view.start[at].tolist(), strict=True):
            self._scip.setSolVal(start, self._variables[column], value)
        self._scip.addSol(start)

    def _answer(self, view: View, run: Run) -> Answer:
        scip = self._scip
        status = _STATUSES.get(scip.getStatus(), TVO.Status.FAILED)
        if run.stop and status == TVO.Status.FAILED:
            status = TVO.Status.INTERRUPTED
        text = "SCIP gives no dual values: solve a continuous linear model with engine='highs'"
        answer = Answer(status, missing=dict.fromkeys(("ReducedCost", "Dual"), text))
        answer.nodes, answer.iterations = scip.getNTotalNodes(), scip.getNLPIterations()
        bound = scip.getDualbound()
        if abs(bound) < scip.infinity():
            answer.bound = bound
        if status in _WITH_SOLUTION and scip.getNSols():
            best = scip.getBestSol()
            variables = self._variables  # not those of the next load
            answer.x = _point(scip, variables, best)
            answer.pool = lambda: [
                Found(scip.getSolObjVal(each), _point(scip, variables, each))
                for each in scip.getSols()
            ]
        return answer


def _point(scip: Any, variables: list[Any], solution: Any) -> Floats:
    return np.array([scip.getSolVal(solution, v) for v in variables], np.float64)


@cache
def _parameters() -> dict[str, Any]:
    found: dict[str, Any] = Scip().getParams()
    return found
