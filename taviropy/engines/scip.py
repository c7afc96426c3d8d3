"""SCIP: quadratic constraints, non-convex, nonlinear and indicator constraints."""

from __future__ import annotations

import sys
from typing import Any

import numpy as np
from pyscipopt import Model as Scip
from pyscipopt.scip import Expr, ExprCons, Term

from .. import _csr
from .._attrutil import CHARACTERS, GENERAL, LINEAR, QUADRATIC, VARIABLE
from .._exception import TaviroError
from .._general import NonlinearConstr
from .._linear import rows_by_column
from .._quadratic import column_numbers, terms_of
from .._session import Solution
from .._tvo import TVO
from ._run import is_process_output, refuse_infinite
from ._trees import TreeTranslator

_INFINITY = 1e20  # SCIP's own
_SENSES = CHARACTERS["Sense"]
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
_OWN_OPTIONS = {
    "timeLimit": "limits/time",
    "gap": "limits/gap",
    "threads": "lp/threads",
    "seed": "randomization/randomseedshift",
}


class ScipEngine:
    """A SCIP problem, built anew from the model at each load after a change."""

    def __init__(self):
        self._scip: Any = None
        self._variables: list[Any] = []

    @staticmethod
    def option_type(name):
        """Python type of one of SCIP's parameters, None for an unknown name."""
        try:
            return type(Scip().getParam(name))
        except (KeyError, AttributeError, TypeError):
            return None

    def close(self):
        """Release the solver's memory."""
        self._scip = None
        self._variables = []

    def load(self, model, changes):
        """Build the problem."""
        scip = self._scip = Scip(model._name or "model")
        scip.hideOutput()
        self._add_variables(model)
        self._add_linear(model)
        self._add_objective(model)
        self._add_quadratic(model)
        self._add_general(model)

    def push(self, model, changes):
        """Nothing: the problem is built at load."""

    def remove(self, kind, kept):
        """Nothing, likewise."""

    # Loading

    def _add_variables(self, model):
        table = model._tables[VARIABLE]
        lower, upper = table["LB"], table["UB"]
        types = [CHARACTERS["VType"][code] for code in table["VType"].tolist()]
        binary = table["VType"] == CHARACTERS["VType"].index("B")
        if binary.any():
            lower = np.where(binary, np.maximum(lower, 0.0), lower)
            upper = np.where(binary, np.minimum(upper, 1.0), upper)
        refuse_infinite(table, slice(0, None), lower, upper, "variable")
        names = table.names_of(np.arange(table.placed))
        add = self._scip.addVar
        self._variables = [
            add(name, kind, low, high, cost)
            for name, kind, low, high, cost in zip(
                names, types, lower.tolist(), upper.tolist(), table["Obj"].tolist(), strict=True
            )
        ]

    def _add_linear(self, model):
        table = model._tables[LINEAR]
        rows = rows_by_column(model, model._linear_rows.select(table, 0))
        names = table.names_of(np.arange(table.placed))
        lower, upper = _sides(table, "RHS", "Sense")
        for k, name in enumerate(names):
            expr = Expr(self._linear_terms(rows, k))
            self._scip.addCons(ExprCons(expr, lower[k], upper[k]), name=name)

    def _add_objective(self, model):
        objective, scip = model._objective, self._scip
        if objective.offset:
            scip.addObjoffset(objective.offset)
        minimizing = objective.sense == TVO.MINIMIZE
        if objective.quadratic is not None:
            value = scip.addVar("objective", "C", None, None, 1.0)
            terms = objective.quadratic.by_column(column_numbers(model))
            expr = Expr(self._pair_terms(terms) | {Term(value): -1.0})
            scip.addCons(ExprCons(expr, None if minimizing else 0.0, 0.0 if minimizing else None))
        if minimizing:
            scip.setMinimize()
        else:
            scip.setMaximize()

    def _add_quadratic(self, model):
        table = model._tables[QUADRATIC]
        if not table.placed:
            return
        linear, pairs = (store.select(table, 0) for store in model._quadratic_rows)
        linear = rows_by_column(model, linear)
        numbers = column_numbers(model)
        all_terms, ends = terms_of(pairs), pairs.indptr.tolist()
        lower, upper = _sides(table, "QRHS", "QSense")
        for k, name in enumerate(table.names_of(np.arange(table.placed))):
            terms = all_terms.part(ends[k], ends[k + 1]).by_column(numbers)
            expr = Expr(self._linear_terms(linear, k) | self._pair_terms(terms))
            self._scip.addCons(ExprCons(expr, lower[k], upper[k]), name=name)

    def _add_general(self, model):
        table = model._tables[GENERAL]
        numbers = column_numbers(model)
        ids = table.ids_of(np.arange(table.placed)).tolist()
        for number, name in zip(ids, table.names_of(np.arange(table.placed)), strict=True):
            constr = model._general[number]
            try:
                if isinstance(constr, NonlinearConstr):
                    self._add_nonlinear(constr, numbers, name)
                else:
                    self._add_indicator(constr, numbers, name)
            except _RemovedVariable:
                raise TaviroError(
                    TVO.Error.NOT_IN_MODEL,
                    f"The general constraint '{name}' uses a variable that was removed: remove "
                    f"the constraint as well",
                ) from None

    def _add_nonlinear(self, constr, numbers, name):
        translator = TreeTranslator(self._scip, lambda var: self._variable(var._colno), name)
        expr = translator.translate(constr.root)
        self._scip.addCons(expr - self._variable(_column(constr.result, numbers)) == 0.0, name=name)

    def _add_indicator(self, constr, numbers, name):
        binary = self._variable(_column(constr.binary, numbers))
        terms = {}
        for number, value in zip(constr.ids.tolist(), constr.data.tolist(), strict=True):
            term = Term(self._variable(_column(number, numbers)))
            terms[term] = terms.get(term, 0.0) + value
        for sense in "<>" if constr.sense == "=" else constr.sense:
            lower = constr.rhs if sense == ">" else None
            upper = constr.rhs if sense == "<" else None
            self._scip.addConsIndicator(
                ExprCons(Expr(dict(terms)), lower, upper), binary, constr.value, name
            )

    def _variable(self, column):
        if column < 0:
            raise _RemovedVariable
        return self._variables[column]

    def _linear_terms(self, rows, k):
        part = slice(rows.indptr[k], rows.indptr[k + 1])
        return {
            Term(self._variables[column]): value
            for column, value in zip(rows.ids[part].tolist(), rows.data[part].tolist(), strict=True)
        }

    def _pair_terms(self, terms):
        found = {}
        for first, second, value in zip(
            terms.ids1.tolist(), terms.ids2.tolist(), terms.data.tolist(), strict=True
        ):
            term = Term(self._variables[first], self._variables[second])
            found[term] = found.get(term, 0.0) + value
        return found

    # Solving

    def solve(self, model, options):
        """Solve what is loaded; returns a Solution."""
        self._apply(options)
        self._pass_start(model)
        scip = self._scip
        scip.hideOutput(not options["log"])
        if not options["log"]:
            scip.optimizeNogil()
        elif is_process_output(sys.stdout):
            sys.stdout.flush()
            scip.optimizeNogil()
        else:
            scip.redirectOutput()
            scip.optimize()
        return self._solution(model)

    def _apply(self, options):
        wanted = dict(options.by_engine["scip"])
        for name, engine_name in _OWN_OPTIONS.items():
            if options[name] is not None and options[name] != np.inf:
                wanted[engine_name] = options[name]
        for name, value in wanted.items():
            try:
                self._scip.setParam(name, value)
            except ValueError:
                raise TaviroError(
                    TVO.Error.ERROR_INVALID_ARGUMENT,
                    f"SCIP doesn't take {value!r} for its parameter '{name}'",
                ) from None

    def _pass_start(self, model):
        table = model._tables[VARIABLE]
        if not table.has("Start"):
            return
        at = np.flatnonzero(np.isfinite(table["Start"]))
        if not len(at):
            return
        start = self._scip.createPartialSol()
        for column, value in zip(at.tolist(), table["Start"][at].tolist(), strict=True):
            self._scip.setSolVal(start, self._variables[column], value)
        self._scip.addSol(start)

    def _solution(self, model):
        scip = self._scip
        status = _STATUSES.get(scip.getStatus(), TVO.Status.FAILED)
        text = "SCIP gives no dual values: solve a continuous linear model with engine='highs'"
        solution = Solution(status, missing=dict.fromkeys(("ReducedCost", "Dual"), text))
        bound = scip.getDualbound()
        if abs(bound) < scip.infinity():
            solution.bound = bound
        if status not in _WITH_SOLUTION or not scip.getNSols():
            return solution
        best = scip.getBestSol()
        solution.objective = scip.getSolObjVal(best)
        x = np.array([scip.getSolVal(best, variable) for variable in self._variables], np.float64)
        solution.values["X"] = x
        rows = rows_by_column(model, model._linear_rows.select(model._tables[LINEAR], 0))
        solution.values["Slack"] = model._tables[LINEAR]["RHS"] - _csr.products(rows, x)
        solution.values["QSlack"] = model._tables[QUADRATIC]["QRHS"] - _quadratic_values(model, x)
        return solution

    def write(self, model, path):
        """Write the problem in a format that SCIP knows by the path's ending."""
        try:
            self._scip.writeProblem(path, verbose=False)
        except Exception as error:
            raise TaviroError(
                TVO.Error.FILE,
                f"SCIP can't write the model to '{path}' ({error}): use .cip, .mps or .lp",
            ) from None


class _RemovedVariable(Exception):
    """A constraint refers to a variable that left the model."""


def _column(number, numbers):
    return number if numbers is None else int(numbers[number])


def _sides(table, rhs_name, sense_name):
    """Lower and upper sides of rows as lists, with None where only that side is open."""
    rhs, sense = table[rhs_name], table[sense_name]
    below = table["Low"] if table.has("Low") else np.full(table.size, -np.inf)
    lower = np.where(sense == _SENSES.index("<"), below, rhs)
    upper = np.where(sense == _SENSES.index(">"), np.inf, rhs)
    refuse_infinite(table, slice(0, None), lower, upper, "constraint")
    free = (lower == -np.inf) & (upper == np.inf)
    return (
        [None if value == -np.inf else value for value in np.where(free, -_INFINITY, lower)],
        [None if value == np.inf else value for value in upper],
    )


def _quadratic_values(model, x):
    table = model._tables[QUADRATIC]
    if not table.placed:
        return np.empty(0)
    linear, pairs = (store.select(table, 0) for store in model._quadratic_rows)
    numbers, terms = column_numbers(model), terms_of(pairs)
    # The number of a variable that isn't in the model is -1 or -2.
    by_id = x if numbers is None else np.append(x, (0.0, 0.0))[numbers]
    squares = _csr.sums_by_row(pairs, terms.data * by_id[terms.ids1] * by_id[terms.ids2])
    return squares + _csr.products(rows_by_column(model, linear), x)
