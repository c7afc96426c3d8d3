"""The engine behind a model: chosen, kept in step with the data, asked, and its answer kept."""

from __future__ import annotations

import os
from collections import deque
from collections.abc import Callable, Iterable
from time import perf_counter
from typing import Any, cast

import numpy as np

from ._exception import TaviroError
from ._tvo import TVO
from .data.basis import Basis, checked_basis, no_basis
from .data.changes import Changes
from .data.locks import SOLVING
from .data.model_data import ModelData
from .data.solution import Solution
from .data.values import Floats
from .data.view import View
from .engines import check_name, choose, engine_class, own_errors
from .engines.decided import decided
from .engines.pool import pooled, room_for
from .engines.protocol import Answer, Engine, Found, Run, WithBasis
from .engines.running import Log, Reporter, Row, Stop
from .options import Options
from .progress import Guard, Point, Progress, Watch, check_callable, lazy_rows


class Session:
    """The engine of one model and its options."""

    def __init__(self, wanted: str) -> None:
        check_name(wanted)
        self.options = Options(wanted)
        self.wanted = wanted
        self._name = ""  # of the engine
        self._engine: Engine | None = None
        # Of the solve that runs: who hears of it, and who adds rows to it.
        self._reporter = Reporter()
        self._lazy: Callable[[Floats], list[Row]] | None = None

    # Options

    def set_option(self, data: ModelData, name: str, value: object) -> None:
        """Check an option and keep it for the solves to come."""
        if data.lock:
            data.refuse_locked()
        self.options.set(name, value)

    # Loading and solving

    def load(self, data: ModelData) -> None:
        """Bring the engine into step with the model, without a solve."""
        data.update()
        self._in_step(data, View(data), final=False)
        data.solution.status = TVO.Status.LOADED

    def solve(
        self,
        data: ModelData,
        callback: Callable[[Progress], object] | None = None,
        lazy: Callable[[Point], Any] | None = None,
        progress: bool | None = None,
        stop: Stop | None = None,
    ) -> None:
        """Solve the model and keep what comes out; the arguments are those of Model.optimize, and
        `stop` ends the solve from another thread."""
        check_callable("callback", callback)
        check_callable("lazy", lazy)
        data.update()
        data.lock = SOLVING
        stop = Stop() if stop is None else stop
        guard = Guard(stop)
        watch = Watch(data, stop, callback, progress, not self.options["log"], guard)
        self._reporter = Reporter(watch.hear if watch else None)
        self._lazy = None if lazy is None else lazy_rows(data, lazy, guard)
        try:
            self._solve(data, stop)
        finally:
            data.lock = ""
            self._reporter, self._lazy = Reporter(), None
            watch.close()
        if guard.error is not None:
            data.solution = Solution(TVO.Status.INTERRUPTED)
            raise guard.error
        if stop.count > 1 or (stop and self.options["raiseInterrupt"]):
            raise KeyboardInterrupt

    def _solve(self, data: ModelData, stop: Stop) -> None:
        started = perf_counter()
        view = View(data)
        answer, name = None if self._lazy else decided(view), ""
        if answer is None:
            self._in_step(data, view)
            data.solution = Solution(TVO.Status.FAILED)
            with Log(self.options["log"], self.options["logFile"]) as log, stop.on_interrupt():
                answer, name = self._ask(data, view, log, stop)
        data.solution = _solution_of(answer, view)
        data.solution.engine = name
        data.solution.seconds = perf_counter() - started

    def _ask(self, data: ModelData, view: View, log: Log, stop: Stop) -> tuple[Answer, str]:
        """The answer, and the name of who gave it: the engine, or where it comes to no end one of
        those that come after it."""
        assert self._engine is not None
        try:
            with own_errors(self._name):
                answer = self._engine.solve(
                    view, self._run(self._name, view.column_count, log, stop)
                )
        except BaseException:
            self._drop_engine(data)
            raise
        asked = [self._name]
        while answer.status == TVO.Status.FAILED and not stop:
            try:
                name = choose(self.wanted, view, but=asked, ability=self._ability)
            except TaviroError:
                break
            log.line(f"The engine '{asked[-1]}' came to no end: asking '{name}'.")
            asked.append(name)
            other = engine_class(name)()
            try:
                with own_errors(name):
                    other.load(view, None)
                    answer = other.solve(view, self._run(name, view.column_count, log, stop))
            finally:
                other.close()
        return answer, asked[-1]

    @property
    def _ability(self) -> str:
        """What the engine must be able to do, beyond solving the model."""
        return "lazy" if self._lazy else ""

    def _run(self, name: str, columns: int, log: Log, stop: Stop) -> Run:
        options = self.options
        return Run(
            log,
            stop,
            options["timeLimit"],
            options["gap"],
            options["threads"],
            options["seed"],
            options.of_engine(name),
            options.version,
            self._reporter,
            self._lazy,
            deque(maxlen=room_for(columns)),
        )

    def _in_step(
        self, data: ModelData, view: View, final: bool = True, ability: str = ""
    ) -> Engine:
        """The engine, which has the model; `final` tells that it is going to be used, `ability`
        what it must be able to do beyond solving the model."""
        name = choose(self.wanted, view, final, ability=ability or self._ability)
        changes: Changes | None = data.changes_since_load()
        if self._engine is None or name != self._name:
            self._drop_engine(data)
            self._name, self._engine, changes = name, engine_class(name)(), None
        try:
            with own_errors(name):
                self._engine.load(view, changes)
        except BaseException:
            self._drop_engine(data)
            raise
        data.changes.start(view.column_count, view.row_count)
        return self._engine

    def find(self, data: ModelData, attrname: str) -> None:
        """Find out an attribute of the last solution that is left until somebody asks."""
        from .afterwards import find

        data.lock = SOLVING
        try:
            find(data, attrname)
        finally:
            data.lock = ""

    # Bases

    def basis(self, data: ModelData) -> Basis:
        """The basis of the last solve."""
        solution = data.solution
        if solution.basis is not None:
            return solution.basis
        if solution.status == TVO.Status.LOADED:
            raise no_basis("the model has not been solved yet: call optimize() first")
        engine = f"'{solution.engine}'" if solution.engine else "no engine"
        raise no_basis(
            f"{engine} answered, and bases come from the simplex method of engine='highs' for "
            f"linear models without integers that have a point"
        )

    def set_basis(self, data: ModelData, basis: Any) -> None:
        """Let the next solve begin from a basis."""
        data.update()
        view = View(data)
        checked = checked_basis(basis, view.column_count, view.row_count)
        if view.has_integers or view.quadratic_objective is not None:
            what = "a quadratic objective" if not view.has_integers else "integer variables"
            raise TaviroError(
                TVO.Error.NOT_SUPPORTED,
                f"A basis helps with linear models, and this one has {what}: set Start instead",
            )
        engine = cast(WithBasis, self._in_step(data, view, ability="basis"))
        with own_errors(self._name):
            engine.set_basis(checked)

    def _drop_engine(self, data: ModelData) -> None:
        engine, self._engine = self._engine, None
        data.changes.stop()
        if engine is not None:
            engine.close()

    def close(self, data: ModelData) -> None:
        """Release the engine."""
        self._drop_engine(data)

    # Files

    def write(self, data: ModelData, path: str | os.PathLike[str]) -> None:
        """Write the model to a file."""
        from .files import write_model

        data.update()
        write_model(View(data), path)


def _solution_of(answer: Answer, view: View) -> Solution:
    """What is kept of an answer; objective and slacks are the model's own at the point."""
    solution = Solution(answer.status, bound=answer.bound, missing=answer.missing)
    solution.nodes, solution.iterations = answer.nodes, answer.iterations
    solution.basis = answer.basis
    if answer.x is None:
        return solution
    x, sense = answer.x, view.sense
    best = Found(view.objective_at(x), x)
    points: Callable[[], Iterable[Found]] = answer.pool or tuple
    solution.objective = best.objective
    if solution.bound is None and answer.status == TVO.Status.OPTIMAL:
        solution.bound = solution.objective
    values: dict[str, Any] = {
        "X": x,
        "ReducedCost": answer.reduced_costs,
        "Dual": answer.row_duals,
        "QDual": answer.quadratic_duals,
        "Pool": lambda: pooled(best, sense, points()),
    }
    rhs, activity = view.rhs, answer.row_values
    if activity is not None:
        values["Slack"] = lambda: rhs - activity()
    else:
        values["Slack"] = rhs - view.rows.products(x)
    quadratic = view.quadratic_rows
    if quadratic is not None:
        values["QSlack"] = view.quadratic_rhs - quadratic.values(x)
    else:
        values["QSlack"] = np.empty(0)
    solution.values = {name: array for name, array in values.items() if array is not None}
    return solution
