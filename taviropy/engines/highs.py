"""HiGHS: linear, mixed-integer and convex quadratic models."""

from __future__ import annotations

import os
import threading
from functools import cache
from math import isfinite
from time import perf_counter
from typing import TYPE_CHECKING, Any

import numpy as np
from highspy import Highs, HighsModelStatus, HighsOptions, HighsOptionType, HighsStatus, cb

from .._exception import TaviroError
from .._tvo import TVO
from ..data.values import Floats
from ..data.view import View
from .apart import call_apart
from .convexity import is_convex
from .highs_live import PRIMAL_SIMPLEX, LiveHighs, new_highs, reset_options, words_of
from .protocol import Answer, Found, Run
from .running import Log, News, Stop, as_type, in_thread

if TYPE_CHECKING:  # these need SciPy, whose import takes longer than a small model
    from .highs_claims import Claims
    from .highs_quadratic import Multiplied, QuadraticProgram

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
_CLAIMS = (  # that may not hold
    TVO.Status.FAILED,
    TVO.Status.INFEASIBLE,
    TVO.Status.UNBOUNDED,
    TVO.Status.INFEASIBLE_OR_UNBOUNDED,
)
_WITH_SOLUTION = (TVO.Status.OPTIMAL, TVO.Status.TIME_LIMIT, TVO.Status.INTERRUPTED)
_OPTION_TYPES = {
    HighsOptionType.kBool: bool,
    HighsOptionType.kInt: int,
    HighsOptionType.kDouble: float,
    HighsOptionType.kString: str,
}
_OF_THE_LOG = ("output_flag", "log_to_console", "log_file")  # what the package's own options say
_MOST_SEMI = 1e5  # upper bound that HiGHS takes from a semi-continuous variable
_FEASIBLE = 2  # of HiGHS's solution statuses
_ITERATIONS = (
    "simplex_iteration_count",
    "ipm_iteration_count",
    "crossover_iteration_count",
    "pdlp_iteration_count",
    "qp_iteration_count",
)
# What is tried where a status is open, one after the other.
_ATTEMPTS: tuple[dict[str, Any], ...] = (
    {"presolve": "choose"},
    {"presolve": "off"},
    {"presolve": "off", "simplex_strategy": PRIMAL_SIMPLEX},
)
_IMPROVING = cb.HighsCallbackType.kCallbackMipImprovingSolution
_LOGGING = cb.HighsCallbackType.kCallbackLogging
_INTERRUPTS = (
    cb.HighsCallbackType.kCallbackSimplexInterrupt,
    cb.HighsCallbackType.kCallbackIpmInterrupt,
    cb.HighsCallbackType.kCallbackMipInterrupt,
)
# A linear model of so many columns, rows and coefficients is solved before anybody could interrupt,
# and asking at each iteration would take a third of the time.
_BRIEF = 10_000
_scheduled = threading.local()  # the number of threads that HiGHS has for this one
# Quadratic programs: errors as `QuadraticProgram.error` measures them, and what is tried where one
# is larger: steps and HiGHS's regularization, None for its own.
_SMALL_ERROR, _TOLERABLE_ERROR = 5e-7, 1e-5
_TRIES = ((1.0, None), (1e-3, None), (1.0, 0.0), (1e-6, None), (1e-3, 0.0), (1.0, 1e-5))
_QUADRATIC_LIMIT = "qp_iteration_limit"
# Nothing stops HiGHS's quadratic solver, and it starts anew each time. In this process a program
# may take so many seconds, about what a process costs; one of more coefficients than these doesn't
# begin here, since the solver would take longer before it first looks at its clock.
_PATIENCE = 0.75
_LONG = 1_000_000


class HighsEngine(LiveHighs):
    """HiGHS as the engine of a model: what it can take, its options, its answers."""

    title = "HiGHS"

    def __init__(self, patience: float = _PATIENCE) -> None:
        super().__init__()
        self.patience = patience  # seconds that nothing can interrupt
        self._applied: object = None  # what the options were last set from

    @classmethod
    def refuses(cls, view: View, final: bool) -> str:
        """Why HiGHS can't take the model, as part of a sentence; empty where it can.

        Whether a quadratic objective is convex takes a while to find out: unless the answer is
        to be `final`, one that isn't known yet is taken for convex.
        """
        if view.quadratic_count:
            return f"'{view.quadratic_name(0)}' is a quadratic constraint"
        if view.nonlinear_objective is not None:
            return "its objective is nonlinear"
        if view.general_count:
            return f"'{view.general_name(0)}' is a general constraint"
        semi = view.columns().semi if view.is_semi.any() else None
        if semi is not None:
            bad = (semi.lower < 0.0) | (semi.upper > _MOST_SEMI)
            if bad.any():
                name = view.column_name(int(semi.at[bad.argmax()]))
                return (
                    f"the semi-continuous variable '{name}' has bounds beyond [0, {_MOST_SEMI:g}]"
                )
        if view.quadratic_objective is None:
            return ""
        if view.has_integers:
            return f"its objective is quadratic and {view.first_integer()}"
        return "" if is_convex(view, final) else "its quadratic objective is not convex"

    # Options

    @classmethod
    def option_names(cls) -> list[str]:
        """The names of HiGHS's options."""
        return _option_names()

    @classmethod
    def checked_option(cls, name: str, value: object) -> object:
        """`value` as the type of an option, ValueError where it doesn't fit."""
        highs = new_highs()
        converted = as_type(_OPTION_TYPES[highs.getOptionType(name)[1]], value)
        try:
            words = words_of(highs, highs.setOptionValue, name, converted)
        except TypeError:  # an integer that is too large
            words = "no number of so many digits"
        if words is not None:
            raise ValueError(f"what HiGHS allows (it says: {words})")
        return converted

    def _apply(self, highs: Any, run: Run, seconds: float) -> None:
        """Set the options of the next run, which is to end after so many seconds."""
        _start_scheduler(run)
        # The quadratic solver cycles on some models: there shall be an end.
        limit = None if self._hessian is None else 10_000 + 50 * (self._columns + self._rows)
        key = (run.version, limit)
        is_own = highs is self._highs
        if is_own and key == self._applied and seconds == np.inf:
            return
        reset_options(highs)
        wanted = {**run.options} if limit is None else {_QUADRATIC_LIMIT: limit, **run.options}
        for name, value in (
            ("mip_rel_gap", run.gap),
            ("threads", _threads(run)),
            ("random_seed", run.seed),
        ):
            if value is not None:
                wanted[name] = value
        seconds = min(seconds, wanted.pop("time_limit", np.inf))
        if seconds < np.inf:
            wanted["time_limit"] = highs.getRunTime() + seconds  # its clock never restarts
        for name, value in wanted.items():
            if highs.setOptionValue(name, value) != HighsStatus.kOk:
                raise TaviroError(
                    TVO.Error.ERROR_INVALID_ARGUMENT,
                    f"HiGHS doesn't take {value!r} for its option '{name}'",
                )
        if is_own:
            self._applied = key if seconds == np.inf else None

    # Solving

    def solve(self, view: View, run: Run) -> Answer:
        """Solve what is loaded."""
        if view.quadratic_objective is not None:
            return self._solve_quadratic(view, run)
        self._apply(self._highs, run, run.time_limit)
        self._pass_start(view)
        deadline = perf_counter() + run.time_limit
        _run(self._highs, run, has_integers=view.has_integers)
        return self._answer(view, run, self._settled(view, run, deadline))

    def _pass_start(self, view: View) -> None:
        start = view.start
        if start is None or not view.has_integers:
            return
        at = np.flatnonzero(np.isfinite(start)).astype(np.int32)
        if len(at):
            self._highs.setSolution(len(at), at, start[at])

    def _settled(self, view: View, run: Run, deadline: float) -> int:
        """The status, after further runs where HiGHS leaves it open or its claim doesn't hold.

        From a basis of an earlier run it ends some models with an open status, and its dual simplex
        method some infeasible ones; its presolve has called models infeasible that are unbounded.
        """
        status = self._status()
        if status not in _CLAIMS:
            return status
        claims = self._claims(view, run, deadline)
        for attempt in (*_ATTEMPTS, None):
            if run.stop:
                break
            status = claims.holds(self._status(), deadline)
            if status != TVO.Status.FAILED:
                return status
            seconds = deadline - perf_counter()
            if attempt is None or seconds <= 0.0:
                break
            run.log.line("The status is open: solving again from scratch.")
            self._highs.clearSolver()
            self._applied = None
            self._apply(self._highs, run, seconds)
            for name, value in attempt.items():
                self._highs.setOptionValue(name, value)
            self._applied = None
            _run(self._highs, run, has_integers=view.has_integers)
        return self._status()

    def _claims(self, view: View, run: Run, deadline: float) -> Claims:
        from .highs_claims import Claims

        def run_beside(highs: Any, **options: Any) -> None:
            self._apply(highs, run, max(deadline - perf_counter(), 0.0))
            for name, value in options.items():
                highs.setOptionValue(name, value)
            _run(highs, run, silent=True, has_integers=view.has_integers)

        return Claims(self._highs, view, run_beside)

    def _status(self) -> int:
        return _STATUSES.get(self._highs.getModelStatus(), TVO.Status.FAILED)

    def _answer(self, view: View, run: Run, status: int) -> Answer:
        highs = self._highs
        if run.stop and status == TVO.Status.FAILED:
            status = TVO.Status.INTERRUPTED
        answer = Answer(status, iterations=sum(map(self._count, _ITERATIONS)))
        if view.has_integers:
            answer.nodes = self._count("mip_node_count")
            bound = highs.getInfoValue("mip_dual_bound")[1]
            if np.isfinite(bound):
                answer.bound = bound
            answer.pool = run.found.copy
            text = "a model with integer variables has no dual values"
            answer.missing = dict.fromkeys(("ReducedCost", "Dual"), text)
        empty = highs.getModelStatus() == HighsModelStatus.kModelEmpty
        is_feasible = highs.getInfoValue("primal_solution_status")[1] == _FEASIBLE
        if status not in _WITH_SOLUTION or not (is_feasible or empty):
            return answer
        if not view.has_integers and view.quadratic_objective is None:
            answer.basis = self.basis()
        found = highs.getSolution()  # a copy, which gives lists: they become arrays when asked for
        answer.x = np.array(found.col_value)
        answer.row_values = lambda: np.array(found.row_value)
        if not view.has_integers and found.dual_valid:
            answer.reduced_costs = lambda: np.array(found.col_dual)
            answer.row_duals = lambda: np.array(found.row_dual)
        return answer

    def _count(self, name: str) -> int:
        """A number that HiGHS tells of its last run, which is negative where it knows none."""
        return max(0, int(self._highs.getInfoValue(name)[1]))

    # Quadratic programs

    def _solve_quadratic(self, view: View, run: Run) -> Answer:
        """Solve a model with a quadratic objective; what takes long, where it can be ended."""
        deadline = perf_counter() + min(run.time_limit, run.options.get("time_limit", np.inf))
        end = min(deadline, perf_counter() + self.patience)
        answer = Answer(TVO.Status.TIME_LIMIT)
        if self.patience == np.inf or _size(self._highs) <= _LONG:
            answer = self._quadratic_answer(view, run, end)
            is_over = end == deadline or perf_counter() < end
            if is_over or run.stop or answer.status == TVO.Status.OPTIMAL:
                return answer
        run.log.line("This takes long: solving it in a process that can be interrupted.")
        try:
            found = _apart(view, run, deadline)
        except ProcessLookupError as error:
            run.log.line(f"Solving it here after all, and nothing can interrupt it: {error}.")
            return self._quadratic_answer(view, run, deadline)
        if found is not None:
            return found
        answer.status = TVO.Status.INTERRUPTED if run.stop else TVO.Status.TIME_LIMIT
        return answer

    def _quadratic_answer(self, view: View, run: Run, deadline: float) -> Answer:
        """The answer to a model with a quadratic objective; none is taken on trust."""
        from .certificates import has_ray
        from .highs_quadratic import QuadraticProgram

        self._apply(self._highs, run, max(deadline - perf_counter(), 0.0))
        _run(self._highs, run)
        answer = self._answer(view, run, self._status())
        claims = self._claims(view, run, deadline)
        settled = {TVO.Status.TIME_LIMIT}
        if _QUADRATIC_LIMIT in run.options:
            settled.add(TVO.Status.INTERRUPTED)
        if run.stop or answer.status in settled:
            return answer
        if answer.status == TVO.Status.INFEASIBLE and not claims.has_point:
            return answer
        program = QuadraticProgram(view)
        point = program.answer_of(self._highs) if answer.x is not None else None
        error = program.error(*point) if point else np.inf
        if error <= _SMALL_ERROR:
            answer.status = TVO.Status.OPTIMAL  # whatever made the solver stop
            return answer
        if has_ray(program, deadline - perf_counter()):
            if answer.status in (TVO.Status.OPTIMAL, TVO.Status.UNBOUNDED) or claims.has_point:
                return Answer(TVO.Status.UNBOUNDED)
            known = claims.has_point is False
            return Answer(TVO.Status.INFEASIBLE if known else TVO.Status.INFEASIBLE_OR_UNBOUNDED)
        return self._mended(program, point, error, run, deadline)

    def _mended(
        self,
        program: QuadraticProgram,
        point: Multiplied | None,
        error: float,
        run: Run,
        deadline: float,
    ) -> Answer:
        """The answer that comes from looking at the program from the best point so far."""
        own_regularization = run.options.get("qp_regularization_value")
        status = TVO.Status.FAILED
        for step, regularization in _TRIES:
            if error <= _SMALL_ERROR:
                break
            seconds = deadline - perf_counter()
            if seconds <= 0.0:
                status = TVO.Status.TIME_LIMIT
                break
            run.log.line(f"The answer's error is {error:.1e}: solving again from there.")
            x: Floats = program.within_bounds(point[0] if point else np.zeros(self._columns))
            highs = program.seen_from(x, step)
            self._apply(highs, run, seconds)
            if regularization is not None and own_regularization is None:
                highs.setOptionValue("qp_regularization_value", regularization)
            _run(highs, run)
            found = program.answer_seen_from(x, step, highs)
            new_error = program.error(*found) if found else np.inf
            if new_error < error:
                point, error = found, new_error
            if run.stop:
                status = TVO.Status.INTERRUPTED
                break
        if error <= _TOLERABLE_ERROR:
            status = TVO.Status.OPTIMAL
        if point is None or status == TVO.Status.FAILED:
            return Answer(status)
        return program.answer(*point, status)


def _apart(view: View, run: Run, deadline: float) -> Answer | None:
    """The answer from another process, None where the user or the deadline ended that."""
    choices = run.gap, run.threads, run.seed, dict(run.options)
    outcome = call_apart(_answer_apart, (view, run.log.is_on, deadline, *choices), run, deadline)
    if outcome is None:
        return None
    if outcome.error is not None:
        raise outcome.error
    answer: Answer = outcome.value
    return answer


def _answer_apart(view: View, is_loud: bool, deadline: float, *choices: Any) -> Answer:
    """What the other process does; its answer holds arrays alone."""
    engine = HighsEngine(patience=np.inf)
    engine.load(view, None)
    with Log(is_loud, None) as log:
        answer = engine.solve(view, Run(log, Stop(), deadline - perf_counter(), *choices))
    if answer.row_values is not None:
        answer.row_values = answer.row_values().copy
    for name in ("reduced_costs", "row_duals"):
        values = getattr(answer, name)
        setattr(answer, name, values() if callable(values) else values)
    return answer


@cache
def _option_names() -> list[str]:
    highs = new_highs()
    names = [name for name in dir(HighsOptions()) if name[0] != "_" and name not in _OF_THE_LOG]
    return [name for name in names if highs.getOptionType(name)[0] == HighsStatus.kOk]


def _threads(run: Run) -> int | None:
    """How many threads HiGHS is to use. It starts as many as it is told, and ends the process where
    the system has no more."""
    return None if run.threads is None else min(run.threads, os.cpu_count() or 1)


def _start_scheduler(run: Run) -> None:
    """HiGHS keeps its threads from one run to the next, for each thread that calls it, and refuses
    to run with another number of them."""
    wanted = run.options.get("threads", 0) if run.threads is None else _threads(run)
    if getattr(_scheduled, "threads", wanted) != wanted:
        Highs.resetGlobalScheduler(True)
    _scheduled.threads = wanted


def _news(kind: Any, told: Any) -> News:
    """What HiGHS tells by a callback that asks whether to go on."""
    if kind == cb.HighsCallbackType.kCallbackMipInterrupt:
        best, bound = (
            value if isfinite(value) else None
            for value in (told.mip_primal_bound, told.mip_dual_bound)
        )
        return News(best, bound, told.mip_node_count)
    iterations = max(told.simplex_iteration_count, 0) + max(told.ipm_iteration_count, 0)
    return News(iterations=iterations)


def _size(highs: Any) -> int:
    """How many numbers make up the model."""
    size: int = highs.getNumCol() + highs.getNumRow() + highs.getNumNz() + highs.getHessianNumNz()
    return size


def _run(highs: Any, run: Run, silent: bool = False, has_integers: bool = False) -> None:
    """Run HiGHS, its log going where that of the run goes.

    Mixed-integer models are solved in a thread: HiGHS calls back from its own ones too, and where
    it doesn't call for a while, signals would have to wait for it.
    """
    log, stop = run.log, run.stop
    is_loud = log.is_on and not silent
    if is_loud:
        highs.setOptionValue("output_flag", True)
        highs.setOptionValue("log_to_console", log.is_process_output)
        log.flush()
    columns = highs.getNumCol()  # HiGHS adds some of its own to semi-continuous ones
    raised: list[BaseException] = []  # by a signal handler of the user's own; HiGHS would drop it
    is_over = Stop()

    def answer(kind: Any, text: str, data_out: Any, data_in: Any, user_data: Any) -> None:
        try:
            if kind == _LOGGING:
                log.write(text)
                return
            if kind == _IMPROVING:
                x = np.array(data_out.mip_solution)[:columns]
                value, nodes = data_out.objective_function_value, data_out.mip_node_count
                run.found.append(Found(value, x))
                if run.reporter:
                    run.reporter.tell(News(value, nodes=nodes, x=x))
            elif run.reporter.is_due and not silent:
                run.reporter.tell(_news(kind, data_out))
            if stop or is_over or raised:
                data_in.user_interrupt = True
        except BaseException as error:
            raised.append(error)

    kinds = [_LOGGING] if is_loud and not log.is_process_output else []
    if has_integers or _size(highs) > _BRIEF or highs.getHessianNumNz() or run.reporter:
        kinds.extend(_INTERRUPTS)
    if has_integers and not silent:
        kinds.append(_IMPROVING)
    if kinds:
        highs.setCallback(answer, None)
    for kind in kinds:
        highs.startCallback(kind)
    try:
        if has_integers:
            in_thread(highs.run, stop, is_over.request, run.reporter.pump)
        else:
            highs.run()
    finally:
        if kinds:
            highs.setCallback(None, None)
        if is_loud:
            highs.setOptionValue("output_flag", False)
            highs.setOptionValue("log_to_console", True)
    if raised:
        raise raised[0]
