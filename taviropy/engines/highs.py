"""HiGHS: linear, mixed-integer and convex quadratic models."""

from __future__ import annotations

import numpy as np
from highspy import (
    HessianFormat,
    Highs,
    HighsHessian,
    HighsModelStatus,
    HighsOptionType,
    HighsStatus,
    MatrixFormat,
    ObjSense,
)

from .._attrutil import CHARACTERS, GENERAL, LINEAR, QUADRATIC, VARIABLE
from .._exception import TaviroError
from .._linear import rows_by_column
from .._quadratic import column_numbers
from .._session import Solution
from .._tvo import TVO
from ._convexity import is_convex
from ._run import refuse_infinite, run_with_log

_CONTINUOUS, _BINARY = CHARACTERS["VType"].index("C"), CHARACTERS["VType"].index("B")
_LESS, _EQUAL, _GREATER = range(3)

_STATUSES = {
    HighsModelStatus.kOptimal: TVO.Status.OPTIMAL,
    HighsModelStatus.kModelEmpty: TVO.Status.OPTIMAL,
    HighsModelStatus.kInfeasible: TVO.Status.INFEASIBLE,
    HighsModelStatus.kUnbounded: TVO.Status.UNBOUNDED,
    HighsModelStatus.kUnboundedOrInfeasible: TVO.Status.INFEASIBLE_OR_UNBOUNDED,
    HighsModelStatus.kTimeLimit: TVO.Status.TIME_LIMIT,
    HighsModelStatus.kInterrupt: TVO.Status.INTERRUPTED,
    HighsModelStatus.kIterationLimit: TVO.Status.INTERRUPTED,
    HighsModelStatus.kSolutionLimit: TVO.Status.INTERRUPTED,
    HighsModelStatus.kObjectiveBound: TVO.Status.INTERRUPTED,
    HighsModelStatus.kObjectiveTarget: TVO.Status.INTERRUPTED,
}
_WITH_SOLUTION = (TVO.Status.OPTIMAL, TVO.Status.TIME_LIMIT, TVO.Status.INTERRUPTED)
_OWN_OPTIONS = {"gap": "mip_rel_gap", "threads": "threads", "seed": "random_seed"}
_OPTION_TYPES = {
    HighsOptionType.kBool: bool,
    HighsOptionType.kInt: int,
    HighsOptionType.kDouble: float,
    HighsOptionType.kString: str,
}
_NO_INDEX, _NO_VALUE = np.empty(0, np.int32), np.empty(0)
_LARGE = 50_000  # coefficients
_FEASIBLE = 2  # of HiGHS's solution statuses


class HighsEngine:
    """A live HiGHS instance that holds the model and follows its changes.

    Changed bounds, costs, types and right-hand sides, new columns and rows, and removals are
    handed over as such, and HiGHS keeps its basis. Only the first load passes a whole model.
    """

    def __init__(self):
        self._highs = _new_highs()
        self._columns = 0  # how many of the model's columns and rows HiGHS has
        self._rows = 0
        self._loaded = False
        self._objective = None  # (sense, offset) that HiGHS has
        self._hessian = None  # the version of the quadratic objective that HiGHS has
        self._threads = None

    @staticmethod
    def reason_against(model, final):
        """Why HiGHS can't take the model, as part of a sentence; empty where it can.

        Whether a quadratic objective is convex takes a while to find out: unless the answer is
        to be `final`, one that isn't known yet is taken for convex.
        """
        for kind, noun in ((QUADRATIC, "quadratic"), (GENERAL, "general")):
            table = model._tables[kind]
            if table.placed:
                name = table.names_of(np.arange(1))[0]
                return f"'{name}' is a {noun} constraint"
        if model._objective.quadratic is not None:
            integers = np.flatnonzero(model._tables[VARIABLE]["VType"] != _CONTINUOUS)
            if len(integers):
                name = model._tables[VARIABLE].names_of(integers[:1])[0]
                return f"its objective is quadratic and the variable '{name}' is integer"
            if not is_convex(model, final):
                return "its quadratic objective is not convex"
        return ""

    @staticmethod
    def option_type(name):
        """Python type of one of HiGHS's options, None for an unknown name."""
        if not isinstance(name, str):
            return None
        highs = _new_highs()
        status, kind = highs.getOptionType(name)
        return _OPTION_TYPES[kind] if status == HighsStatus.kOk else None

    def close(self):
        """Release the solver's memory."""
        self._highs.clear()
        self._highs = None

    # Loading

    def load(self, model, changes):
        """Bring HiGHS into step with the model."""
        if self._loaded:
            self.push(model, changes)
            self._add_columns(model)
            self._add_rows(model)
        else:
            self._pass_whole(model)
        self._push_objective(model)

    def push(self, model, changes):
        """Hand over changed attributes of columns and rows that HiGHS has."""
        columns = {
            name: _merged(changes[name], self._columns)
            for name in ("LB", "UB", "Obj", "VType")
            if name in changes
        }
        rows = [each for name in ("RHS", "Sense") for each in changes.get(name, ())]
        if "VType" in columns:
            at = columns["VType"]
            types = (model._tables[VARIABLE]["VType"][at] != _CONTINUOUS).astype(np.uint8)
            self._do(self._highs.changeColsIntegrality, len(at), at, types)
        bounds = [columns[name] for name in ("LB", "UB", "VType") if name in columns]
        if bounds:
            at = _merged(bounds, self._columns)
            lower, upper = _column_bounds(model, at)
            self._do(self._highs.changeColsBounds, len(at), at, lower, upper)
        if "Obj" in columns:
            at = columns["Obj"]
            costs = model._tables[VARIABLE]["Obj"][at]
            self._do(self._highs.changeColsCost, len(at), at, costs)
        if rows:
            at = _merged(rows, self._rows)
            lower, upper = _row_bounds(model, at)
            self._do(self._highs.changeRowsBounds, len(at), at, lower, upper)

    def remove(self, kind, kept):
        """Delete columns or rows that left the model."""
        if kind not in (VARIABLE, LINEAR):
            return
        count = self._columns if kind == VARIABLE else self._rows
        gone = np.ones(count, bool)
        kept = kept[kept < count]
        gone[kept] = False
        at = np.flatnonzero(gone).astype(np.int32)
        if kind == LINEAR:
            self._rows = len(kept)
            delete = self._highs.deleteRows
        else:
            self._columns = len(kept)
            delete = self._highs.deleteCols
        if len(at):
            self._do(delete, len(at), at)

    def _pass_whole(self, model):
        variables, linear = model._tables[VARIABLE], model._tables[LINEAR]
        columns = slice(0, variables.placed)
        lower, upper = _column_bounds(model, columns)
        row_lower, row_upper = _row_bounds(model, slice(0, linear.placed))
        layout, *arrays = self._matrix(model)
        self._do(
            self._highs.passModel,
            variables.placed,
            linear.placed,
            len(arrays[2]),
            int(layout),
            model._objective.sense,
            model._objective.offset,
            variables["Obj"][columns],
            lower,
            upper,
            row_lower,
            row_upper,
            *arrays,
            (variables["VType"][columns] != _CONTINUOUS).astype(np.int32),
        )
        self._columns, self._rows = variables.placed, linear.placed
        if self._columns and (variables["VType"][columns] == _CONTINUOUS).all():
            # So that HiGHS forgets the list of types, which it would warn of in each log.
            self._do(
                self._highs.changeColsIntegrality, 1, np.zeros(1, np.int32), np.zeros(1, np.uint8)
            )
        self._objective = (model._objective.sense, model._objective.offset)
        self._loaded = True

    @staticmethod
    def _matrix(model):
        """(layout, starts, indices, coefficients) of all rows.

        HiGHS keeps its matrix by column. A large one is turned here, and the model keeps it that
        way too: HiGHS would hold both while it turns it, and the model a third.
        """
        rows = _rows_from(model, 0)
        if rows.nnz < _LARGE:
            return MatrixFormat.kRowwise, rows.indptr, rows.ids, rows.data
        columns = rows.by_column(model._tables[VARIABLE].placed)
        if model._all_in_place(VARIABLE) and model._all_in_place(LINEAR):
            model._linear_rows.keep_by_column(columns)
        return MatrixFormat.kColwise, columns.indptr, columns.rows, columns.data

    def _add_columns(self, model):
        variables = model._tables[VARIABLE]
        count = variables.placed - self._columns
        if not count:
            return
        at = slice(self._columns, variables.placed)
        lower, upper = _column_bounds(model, at)
        self._do(
            self._highs.addCols,
            count,
            variables["Obj"][at],
            lower,
            upper,
            0,
            _NO_INDEX,
            _NO_INDEX,
            _NO_VALUE,
        )
        integers = np.flatnonzero(variables["VType"][at] != _CONTINUOUS) + self._columns
        if len(integers):
            self._do(
                self._highs.changeColsIntegrality,
                len(integers),
                integers.astype(np.int32),
                np.ones(len(integers), np.uint8),
            )
        self._columns = variables.placed

    def _add_rows(self, model):
        first, end = self._rows, model._tables[LINEAR].placed
        if first == end:
            return
        rows = _rows_from(model, first)
        lower, upper = _row_bounds(model, slice(first, end))
        self._do(
            self._highs.addRows,
            rows.count,
            lower,
            upper,
            rows.nnz,
            rows.indptr[:-1],
            rows.ids,
            rows.data,
        )
        self._rows = end

    def _push_objective(self, model):
        objective = model._objective
        sense, offset = objective.sense, objective.offset
        if (sense, offset) != self._objective:
            self._do(
                self._highs.changeObjectiveSense,
                ObjSense.kMinimize if sense == TVO.MINIMIZE else ObjSense.kMaximize,
            )
            self._do(self._highs.changeObjectiveOffset, offset)
            self._objective = (sense, offset)
        if objective.quadratic is None:
            if self._hessian is not None:
                self._drop_hessian()
        elif self._hessian != objective.version:
            self._pass_hessian(model)
            self._hessian = objective.version

    def _pass_hessian(self, model):
        """Hand over the quadratic terms: half of x' H x, H by its lower triangle."""
        terms = model._objective.quadratic.by_column(column_numbers(model))
        starts = np.zeros(self._columns + 1, np.int32)
        np.cumsum(np.bincount(terms.ids1, minlength=self._columns), out=starts[1:])
        values = np.where(terms.ids1 == terms.ids2, 2.0 * terms.data, terms.data)
        self._do(
            self._highs.passHessian,
            self._columns,
            len(values),
            int(HessianFormat.kTriangular),
            starts,
            terms.ids2,
            values,
        )

    def _drop_hessian(self):
        self._do(self._highs.passHessian, HighsHessian())
        self._hessian = None

    def _do(self, call, *args):
        """Call HiGHS; where it refuses, ask again for its words and raise them."""
        if call(*args) != HighsStatus.kError:
            return
        words = []
        self._highs.setOptionValue("output_flag", True)
        self._highs.setOptionValue("log_to_console", False)
        self._highs.setCallback(lambda kind, text, *rest: words.append(text), None)
        self._highs.startCallbackInt(0)
        call(*args)
        self._highs.setCallback(None, None)
        text = " ".join(" ".join(words).split())
        raise TaviroError(
            TVO.Error.ENGINE_FAILED,
            f"HiGHS refused the model's data in {call.__name__}: {text or 'no reason given'}",
        )

    # Solving

    def solve(self, model, options):
        """Solve what is loaded; returns a Solution."""
        self._apply(options)
        self._pass_start(model)
        if self._hessian is None:
            interrupted = run_with_log(self._highs, options["log"])
        else:
            interrupted = self._run_quadratic(options)
        return self._solution(model, interrupted)

    def _run_quadratic(self, options):
        """Run the quadratic solver, which cycles on some models without curvature in places.

        Then it gets further tries with a stronger regularization, which is less exact.
        """
        highs = self._highs
        own = options.by_engine["highs"]
        if "qp_iteration_limit" not in own:
            highs.setOptionValue("qp_iteration_limit", 10_000 + 50 * (self._columns + self._rows))
        for regularization in (None, 1e-6, 1e-5):
            if regularization is not None:
                highs.clearSolver()
                highs.setOptionValue("qp_regularization_value", regularization)
            interrupted = run_with_log(highs, options["log"])
            status = highs.getModelStatus()
            stuck = status == HighsModelStatus.kIterationLimit or status not in _STATUSES
            if (
                not stuck
                or interrupted
                or {"qp_iteration_limit", "qp_regularization_value"} & {*own}
            ):
                break
        return interrupted

    def _apply(self, options):
        highs = self._highs
        highs.resetOptions()
        wanted = dict(options.by_engine["highs"])
        for name, engine_name in _OWN_OPTIONS.items():
            if options[name] is not None:
                wanted[engine_name] = options[name]
        limit = min(options["timeLimit"], wanted.pop("time_limit", np.inf))
        if limit < np.inf:
            wanted["time_limit"] = highs.getRunTime() + limit  # its clock never restarts
        if wanted.get("threads", 0) != self._threads:
            self._threads = wanted.get("threads", 0)
            Highs.resetGlobalScheduler(True)
        for name, value in wanted.items():
            if highs.setOptionValue(name, value) != HighsStatus.kOk:
                raise TaviroError(
                    TVO.Error.ERROR_INVALID_ARGUMENT,
                    f"HiGHS doesn't take {value!r} for its option '{name}'",
                )

    def _pass_start(self, model):
        variables = model._tables[VARIABLE]
        if not variables.has("Start"):
            return
        start = variables["Start"][: self._columns]
        at = np.flatnonzero(np.isfinite(start)).astype(np.int32)
        if len(at) and (variables["VType"][: self._columns] != _CONTINUOUS).any():
            self._highs.setSolution(len(at), at, start[at])

    def _solution(self, model, interrupted):
        highs = self._highs
        status = _STATUSES.get(highs.getModelStatus(), TVO.Status.FAILED)
        if interrupted and status == TVO.Status.FAILED:
            status = TVO.Status.INTERRUPTED
        info = highs.getInfo()
        is_mip = bool((model._tables[VARIABLE]["VType"] != _CONTINUOUS).any())
        solution = Solution(status)
        if is_mip:
            if np.isfinite(info.mip_dual_bound):
                solution.bound = info.mip_dual_bound
            text = "a model with integer variables has no dual values"
            solution.missing = dict.fromkeys(("ReducedCost", "Dual"), text)
        empty = highs.getModelStatus() == HighsModelStatus.kModelEmpty
        if status not in _WITH_SOLUTION or not (info.primal_solution_status == _FEASIBLE or empty):
            return solution
        solution.objective = highs.getObjectiveValue()
        if not is_mip and status == TVO.Status.OPTIMAL:
            solution.bound = solution.objective
        found = highs.getSolution()
        rhs = model._tables[LINEAR]["RHS"]
        solution.values["X"] = np.array(found.col_value)
        solution.values["Slack"] = rhs - np.array(found.row_value)
        if not is_mip and found.dual_valid:
            solution.values["ReducedCost"] = np.array(found.col_dual)
            solution.values["Dual"] = np.array(found.row_dual)
        return solution

    # Files

    def write(self, model, path):
        """Write an MPS or LP file with the model's names."""
        from ._files import write_file

        write_file(self._highs, model, path)


def _new_highs():
    highs = Highs()
    # The instance made itself its own callback's data, a cycle that nothing would ever free.
    highs.setCallback(None, None)
    highs.setOptionValue("output_flag", False)
    return highs


def _rows_from(model, first):
    return rows_by_column(model, model._linear_rows.select(model._tables[LINEAR], first))


def _merged(parts, count):
    """Index arrays as one rising array without repeats, of entries below `count`."""
    at = np.unique(np.concatenate(parts)) if len(parts) > 1 else np.unique(parts[0])
    return at[at < count].astype(np.int32)


def _column_bounds(model, at):
    """Bounds of columns as HiGHS takes them; `at` is a slice or an index array."""
    variables = model._tables[VARIABLE]
    lower, upper = variables["LB"][at], variables["UB"][at]
    binary = variables["VType"][at] == _BINARY
    if binary.any():
        lower = np.where(binary, np.maximum(lower, 0.0), lower)
        upper = np.where(binary, np.minimum(upper, 1.0), upper)
    refuse_infinite(variables, at, lower, upper, "variable")
    return lower, upper


def _row_bounds(model, at):
    """Both sides of rows."""
    table = model._tables[LINEAR]
    rhs, sense = table["RHS"][at], table["Sense"][at]
    if not table.has("Low") and len(sense) and (sense == sense[0]).all():
        lower = np.full(len(rhs), -np.inf) if sense[0] == _LESS else rhs
        upper = np.full(len(rhs), np.inf) if sense[0] == _GREATER else rhs
    else:
        below = table["Low"][at] if table.has("Low") else -np.inf
        lower = np.where(sense == _LESS, below, rhs)
        upper = np.where(sense == _GREATER, np.inf, rhs)
    refuse_infinite(table, at, lower, upper, "constraint")
    return lower, upper
