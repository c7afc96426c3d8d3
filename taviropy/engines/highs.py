"""HiGHS: linear, mixed-integer and convex quadratic models."""

from __future__ import annotations

from time import perf_counter

import numpy as np
from highspy import Highs, HighsModelStatus, HighsOptionType, HighsStatus

from .._attrutil import GENERAL, LINEAR, QUADRATIC, VARIABLE
from .._exception import TaviroError
from .._session import Solution
from .._tvo import TVO
from ._convexity import is_convex
from ._highs_loading import CONTINUOUS, LiveHighs, new_highs
from ._quadratic_program import QuadraticProgram
from ._run import run_with_log, tell

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
_FEASIBLE = 2  # of HiGHS's solution statuses
# Quadratic programs: errors as `QuadraticProgram.error` measures them, and what is tried where one
# is larger: steps and HiGHS's regularization, None for its own.
_SMALL_ERROR, _TOLERABLE_ERROR = 5e-7, 1e-5
_TRIES = ((1.0, None), (1e-3, None), (1.0, 0.0), (1e-6, None), (1e-3, 0.0), (1.0, 1e-5))


class HighsEngine(LiveHighs):
    """HiGHS as the engine of a model: what it can take, its options, its solutions."""

    def __init__(self):
        super().__init__()
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
            integers = np.flatnonzero(model._tables[VARIABLE]["VType"] != CONTINUOUS)
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
        highs = new_highs()
        status, kind = highs.getOptionType(name)
        return _OPTION_TYPES[kind] if status == HighsStatus.kOk else None

    # Solving

    def solve(self, model, options):
        """Solve what is loaded; returns a Solution."""
        self._apply(self._highs, options, options["timeLimit"])
        self._pass_start(model)
        if self._hessian is not None:
            return self._solve_quadratic(model, options)
        interrupted = run_with_log(self._highs, options["log"])
        if not interrupted and self._is_wrongly_infeasible(options):
            tell("There is a feasible point: solving again without presolve.", options["log"])
            self._highs.clearSolver()
            self._highs.setOptionValue("presolve", "off")
            interrupted = run_with_log(self._highs, options["log"])
        return self._solution(model, interrupted)

    def _is_wrongly_infeasible(self, options):
        """Whether HiGHS's presolve calls a model infeasible that isn't.

        That happens to models that are unbounded. Without costs there is nothing to confuse.
        """
        info = self._highs.getInfo()
        if (
            self._highs.getModelStatus() != HighsModelStatus.kInfeasible
            or info.simplex_iteration_count > 0
            or info.mip_node_count > 0
        ):
            return False
        highs, columns = new_highs(), np.arange(self._columns, dtype=np.int32)
        highs.passModel(self._highs.getLp())
        highs.changeColsCost(len(columns), columns, np.zeros(len(columns)))
        self._apply(highs, options, options["timeLimit"])
        run_with_log(highs, False)
        return highs.getModelStatus() == HighsModelStatus.kOptimal

    def _solve_quadratic(self, model, options):
        """Solve a model with a quadratic objective; no answer is taken on trust."""
        deadline = perf_counter() + options["timeLimit"]
        interrupted = run_with_log(self._highs, options["log"])
        solution = self._solution(model, interrupted)
        settled = {TVO.Status.INFEASIBLE, TVO.Status.TIME_LIMIT}
        if "qp_iteration_limit" in options.by_engine["highs"]:
            settled.add(TVO.Status.INTERRUPTED)
        if interrupted or solution.status in settled:
            return solution
        program = QuadraticProgram(model)
        answer = program.answer_of(self._highs) if solution.values else None
        error = program.error(*answer) if answer else np.inf
        if error <= _SMALL_ERROR:
            return solution
        if program.has_ray():
            is_feasible = solution.status in (TVO.Status.OPTIMAL, TVO.Status.UNBOUNDED)
            return Solution(
                TVO.Status.UNBOUNDED if is_feasible else TVO.Status.INFEASIBLE_OR_UNBOUNDED
            )
        return self._mended(program, answer, error, options, deadline)

    def _mended(self, program, answer, error, options, deadline):
        """The solution that comes from looking at the program from the best point so far."""
        own_regularization = options.by_engine["highs"].get("qp_regularization_value")
        status = TVO.Status.FAILED
        for step, regularization in _TRIES:
            if error <= _SMALL_ERROR:
                break
            seconds = deadline - perf_counter()
            if seconds <= 0.0:
                status = TVO.Status.TIME_LIMIT
                break
            tell(f"The answer's error is {error:.1e}: solving again from there.", options["log"])
            point = program.within_bounds(answer[0] if answer else np.zeros(self._columns))
            highs = program.seen_from(point, step)
            self._apply(highs, options, seconds)
            if regularization is not None and own_regularization is None:
                highs.setOptionValue("qp_regularization_value", regularization)
            interrupted = run_with_log(highs, options["log"])
            found = program.answer_seen_from(point, step, highs)
            new_error = program.error(*found) if found else np.inf
            if new_error < error:
                answer, error = found, new_error
            if interrupted:
                status = TVO.Status.INTERRUPTED
                break
        if error <= _TOLERABLE_ERROR:
            status = TVO.Status.OPTIMAL
        if answer is None or status == TVO.Status.FAILED:
            return Solution(status)
        return program.solution(*answer, status)

    def _apply(self, highs, options, seconds):
        """Set the options of the next run, which is to end after so many seconds."""
        highs.resetOptions()
        # The quadratic solver cycles on some models: there shall be an end.
        most_iterations = 10_000 + 50 * (self._columns + self._rows)
        wanted = {"qp_iteration_limit": most_iterations, **options.by_engine["highs"]}
        for name, engine_name in _OWN_OPTIONS.items():
            if options[name] is not None:
                wanted[engine_name] = options[name]
        limit = min(seconds, wanted.pop("time_limit", np.inf))
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
        if len(at) and (variables["VType"][: self._columns] != CONTINUOUS).any():
            self._highs.setSolution(len(at), at, start[at])

    def _solution(self, model, interrupted):
        highs = self._highs
        status = _STATUSES.get(highs.getModelStatus(), TVO.Status.FAILED)
        if interrupted and status == TVO.Status.FAILED:
            status = TVO.Status.INTERRUPTED
        info = highs.getInfo()
        is_mip = bool((model._tables[VARIABLE]["VType"] != CONTINUOUS).any())
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
