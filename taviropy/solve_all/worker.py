"""What a worker does: it answers for each task by itself, whatever goes wrong in one."""

from __future__ import annotations

import os
import pickle
import threading
from collections.abc import Iterator
from contextlib import suppress
from time import perf_counter
from typing import Any

from .._exception import TaviroError
from .._scalars import ModelShell, data_of
from .request import Change, Wanted
from .result import SolveResult

_MOST_HELD = 4  # models that a worker keeps for batches to go on


class Batch:
    """The tasks of a call: models, or numbers of scenarios of one model's data."""

    def __init__(
        self,
        tasks: Iterator[Any],
        size: int | None,
        wanted: list[Wanted],
        base: Any = None,
        table: list[Change] | None = None,
    ) -> None:
        from ..engines.running import Stop

        self.tasks = tasks
        self.size = size
        self.wanted = wanted
        self.base = base
        self.table = table or []
        self.token = os.urandom(16).hex()
        self.stop = Stop()
        self.process = os.getpid()
        self.lock = threading.Lock()  # a model is copied by one thread at a time
        self.was_sent = False  # from another process
        self.spare: list[Any] = []  # data of models that wait for their next scenario

    def call(self, tasks: list[Any], base: Any) -> tuple[Any, ...]:
        """The function and arguments that do some tasks, in a worker."""
        if self.base is None:
            return solve_models, self.token, tasks, self.wanted
        first, end = tasks[0], tasks[-1] + 1
        parts = [change.part(first, end) for change in self.table]
        return solve_scenarios, self.token, base, end - first, parts, self.wanted

    def packed_base(self) -> bytes:
        """The model of all scenarios, for workers in other processes."""
        from ..data.travel import packed

        return pickle.dumps(packed(self.base), protocol=5)

    def copy(self, data: Any) -> Any:
        """A worker's own copy of a model's data."""
        from ..data.travel import copied

        with self.lock:
            return copied(data)

    def instance(self) -> Any:
        """A model for a scenario: one that solved another before, or a new one."""
        try:
            return self.spare.pop()
        except IndexError:
            return self.copy(self.base)


# What this process works on, by token: batches of its own, and those it was sent the model of.
batches: dict[str, Batch] = {}
_batches_lock = threading.Lock()


def solve_models(token: str, models: list[Any], wanted: list[Wanted]) -> tuple[Any, float]:
    """Results of models and of functions that make one, and the seconds for all."""
    started = perf_counter()
    batch = batches.get(token)
    is_here = batch is not None and batch.process == os.getpid()
    results = []
    for model in models:
        try:
            if not isinstance(model, ModelShell):
                model = model()
                if not isinstance(model, ModelShell):
                    raise TypeError(f"the function gave a {type(model).__name__}, not a Model")
                data = data_of(model)
            elif batch is not None and is_here:
                data = batch.copy(data_of(model))
            else:
                data = data_of(model)
            results.append(_solved(data, wanted, batch.stop if batch and is_here else None))
        except Exception as error:
            results.append(SolveResult(0, None, _portable(error)))
    return results, perf_counter() - started


def solve_scenarios(
    token: str, base: bytes | None, count: int, table: list[Change], wanted: list[Wanted]
) -> tuple[Any, float]:
    """Results of scenarios, and the seconds for all; None where the model has to be sent along."""
    started = perf_counter()
    batch = _held_batch(token, base)
    if batch is None:
        return None, 0.0
    data = batch.instance()
    results = []
    for k in range(count):
        try:
            for attrname, positions, values in table:
                data.write(attrname, positions, values[k])
            results.append(_solved(data, wanted, batch.stop))
        except Exception as error:
            results.append(SolveResult(0, None, _portable(error)))
            data = batch.instance()
    batch.spare.append(data)
    return results, perf_counter() - started


def _held_batch(token: str, base: bytes | None) -> Batch | None:
    with _batches_lock:
        batch = batches.get(token)
        if batch is None and base is not None:
            from ..data.travel import unpacked
            from ..session import Session

            batch = Batch(iter(()), 0, [], unpacked(pickle.loads(base), Session))
            batch.token, batch.was_sent = token, True
            held = [other for other in batches.values() if other.was_sent]
            for old in held[: max(0, len(held) + 1 - _MOST_HELD)]:
                del batches[old.token]
            batches[token] = batch
        return batch


def _solved(data: Any, wanted: list[Wanted], stop: Any) -> SolveResult:
    """Solve a model without a log, and take of it what is wanted."""
    import numpy as np

    from ..data.attributes import ATTRIBUTES, MODEL

    options = data.session.options
    loud = options["log"]
    options.set("log", False)
    try:
        with suppress(KeyboardInterrupt):  # which the status tells
            data.session.solve(data, progress=False, stop=stop)
    finally:
        options.set("log", loud)
    result = SolveResult(0, data.solution.status)
    result.seconds = data.solution.seconds
    result.objective = data.solution.objective
    for key, attrname, positions, shape in wanted:
        kind = ATTRIBUTES[attrname].kind
        try:
            if kind == MODEL:
                result._values[key] = data.read_own(attrname)
                continue
            if positions is None:
                positions = np.arange(data.elements_of(kind).placed)
            values = np.asarray(data.read(attrname, positions))
            if shape is not None:  # what has several values an element has an axis in front
                values = values.reshape((*values.shape[:-1], *shape))[()]
            result._values[key] = values
        except TaviroError as error:
            result._missing[key] = error.message
    return result


def _portable(error: Exception) -> Exception:
    """An error that can be sent, with its traceback as a note."""
    import traceback

    lines = traceback.format_tb(error.__traceback__)
    error.__traceback__ = None
    error.add_note("In solveAll's worker:\n" + "".join(lines).rstrip())
    try:
        pickle.loads(pickle.dumps(error))
    except Exception:
        return RuntimeError(f"{type(error).__name__}: {error}")
    return error
