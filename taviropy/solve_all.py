"""Many models at once, on the executor that one has: threads, processes, a cluster.

The parent hands out chunks of tasks, never more than the workers can have in hand, and takes in
what comes back. A worker answers for each task by itself, so whatever goes wrong in one stays with
that one; what is lost with a worker is done again once, alone.
"""

from __future__ import annotations

import os
import pickle
import sys
import threading
from collections.abc import Callable, Iterable, Iterator, Mapping, Sequence, Sized
from contextlib import suppress
from queue import Empty, SimpleQueue
from time import perf_counter, sleep
from typing import Any, NamedTuple
from uuid import uuid4

from ._exception import TaviroError
from ._scalars import ModelShell, data_of
from ._tvo import TVO

_CHUNK_SECONDS = 0.1  # what a chunk of small models should take
_MOST_IN_CHUNK = 256
_MOST_HELD = 4  # models that a worker keeps for batches to go on


class SolveResult:
    """
    PURPOSE:
      What came of one model of solveAll.

    NOTES:
      index (int): its place among the models or scenarios. status: one of TVO.Status, None where
      there is an error. objective (float): None without a solution. seconds (float): of the solve.
      error: the exception that making or solving the model ended with, else None.
      result["X"] gives an attribute that was asked for; TaviroError where the model has none.
    """

    __slots__ = ("index", "status", "objective", "seconds", "error", "_values", "_missing")

    def __init__(self, index: int, status: int | None, error: BaseException | None = None) -> None:
        self.index = index
        self.status = status
        self.objective: float | None = None
        self.seconds = 0.0
        self.error = error
        self._values: dict[str, Any] = {}
        self._missing: dict[str, str] = {}  # why there is no value

    def __getitem__(self, key: str) -> Any:
        if key in self._values:
            return self._values[key]
        if self.error is not None:
            raise TaviroError(
                TVO.Error.NO_SOLUTION, f"There is no {key!r} of model {self.index}: {self.error}"
            ) from self.error
        if key in self._missing:
            raise TaviroError(TVO.Error.NO_SOLUTION, f"Model {self.index}: {self._missing[key]}")
        raise KeyError(f"{key!r} was not asked for: list it in the attributes of solveAll")

    def __repr__(self) -> str:
        if self.error is not None:
            return f"<{self.index}: {type(self.error).__name__}: {self.error}>"
        objective = "" if self.objective is None else f", objective {self.objective:.10g}"
        return f"<{self.index}: {self.status}{objective}, {self.seconds:.3g} s>"


def solveAll(
    models: Any,
    changes: Mapping[str, Any] | None = None,
    attributes: Sequence[str] | Mapping[str, Any] = (),
    executor: Any = None,
    progress: bool | Callable[[int, int | None], object] = False,
) -> list[SolveResult]:
    """
    ROUTINE:
      solveAll(models, changes=None, attributes=(), executor=None, progress=False)

    PURPOSE:
      Solve many models, or one model with many sets of data, several at a time.

    ARGUMENTS:
      models: Models, or functions without arguments that make one each, in any iterable, which is
        read as workers become free; or a single Model that `changes` belong to.
      changes (dict): for each attribute that changes the elements and their values by scenario,
        {"RHS": (rows, values), "UB": (x, values)}; values have the shape of the elements with the
        scenarios as a further first axis. Several blocks of one attribute stand in a list.
      attributes: names of attributes to bring back, such as ["X", "Dual", "Bound"]: of all
        variables or constraints in the model's order. With `changes` also a dict
        {"flow": (x, "X")}, which takes them of some elements, in their shape.
      executor: an executor of concurrent.futures, a Client of Dask, or anything else with its
        submit(). None stands for threads, one a processor; the engines solve without Python's lock.
      progress: True prints a line on stderr now and then; a function is called with the number of
        tasks that are done and that of all, None where that isn't known.

    RETURN VALUE:
      A list of SolveResult, in the order of the models or scenarios: status, objective, seconds,
      the attributes, or the error that one of them ended with, which leaves the others alone.

    EXAMPLE:
      results = tv.solveAll(m, {"RHS": (demand, scenarios)}, attributes=["X"])
      costs = [result.objective for result in results]

    NOTES:
      The given models are left as they are: workers solve copies, without a log. A worker gets the
      model of `changes` once and goes on from its last basis, so that of several optima another
      one may come out. Small models travel in chunks. Ctrl-C cancels what waits and ends what is
      being solved, as in optimize(): those have the status INTERRUPTED; a second one raises
      KeyboardInterrupt. What is lost with a worker is done again once, by itself, then the error
      is reported; a broken ProcessPoolExecutor is replaced by one of its kind for that, and stays
      with its owner. For processes models and functions must be picklable.
      An error that ends all, such as one of the iterable's own or a closed executor, holds what was
      done in its attribute `results`. ValueError, TypeError and TaviroError for changes and
      attributes that don't fit the model, before anything is solved.
    """
    if changes is not None:
        if not isinstance(models, ModelShell):
            raise TypeError(
                f"changes belong to a single Model, not to {type(models).__name__}: give one model"
            )
        batch = _Batch(*_scenarios(data_of(models), changes, attributes))
    else:
        if isinstance(models, ModelShell):
            models = [models]
        if not isinstance(models, Iterable):
            raise TypeError(f"solveAll takes models, not {type(models).__name__}: give a list")
        size = len(models) if isinstance(models, Sized) else None
        batch = _Batch(_checked(models), size, _named(attributes))
    return _Parent(batch, executor, progress).run()


# What is asked for


class _Wanted(NamedTuple):
    """An attribute to bring back; of all elements where there are no positions."""

    key: str
    attrname: str
    positions: Any = None
    shape: Any = None


class _Change(NamedTuple):
    """An attribute that changes, at some positions: a row of values a scenario."""

    attrname: str
    positions: Any
    values: Any

    def part(self, first: int, end: int) -> _Change:
        return self._replace(values=self.values[first:end])


def _checked(models: Iterable[Any]) -> Iterator[Any]:
    for index, model in enumerate(models):
        if not (isinstance(model, ModelShell) or callable(model)):
            raise TypeError(
                f"solveAll takes models and functions that make one, but number {index} is of type "
                f"{type(model).__name__}"
            )
        yield model


def _named(attributes: Any) -> list[_Wanted]:
    if isinstance(attributes, Mapping):
        raise ValueError(
            "attributes of single elements need one model with changes: name those of whole models"
        )
    return [_Wanted(name, _known(name)) for name in attributes]


def _known(name: Any) -> str:
    from .data.attributes import ATTRIBUTES

    if not isinstance(name, str) or name not in ATTRIBUTES:
        raise ValueError(f"There is no attribute {name!r}: known are {', '.join(ATTRIBUTES)}")
    return name


def _scenarios(
    data: Any, changes: Mapping[str, Any], attributes: Any
) -> tuple[Iterator[Any], int, list[_Wanted], Any, list[_Change]]:
    """Everything of a batch with changes, checked against the model."""
    from .travel import copied

    base = copied(data)
    base.update()
    table: list[_Change] = []
    for name, blocks in changes.items():
        for block in blocks if isinstance(blocks, list) else [blocks]:
            table.append(_change(data, base, _known(name), block))
    if not table:
        raise ValueError("changes are empty: give elements and values, {'RHS': (rows, values)}")
    sizes = {len(change.values) for change in table}
    if len(sizes) > 1:
        listed = ", ".join(f"{len(change.values)} of {change.attrname}" for change in table)
        raise ValueError(f"changes of different numbers of scenarios: {listed}")
    if isinstance(attributes, Mapping):
        wanted = []
        for key, (elements, name) in attributes.items():
            positions, shape = _positions(data, base, _known(name), elements)
            wanted.append(_Wanted(key, name, positions, shape))
    else:
        wanted = _named(attributes)
    size = sizes.pop()
    return iter(range(size)), size, wanted, base, table


def _positions(data: Any, base: Any, name: str, elements: Any) -> tuple[Any, tuple[int, ...]]:
    """Places in the base and shape of elements, which are those of the user's model."""
    import numpy as np

    from .data.attributes import ATTRIBUTES, KIND_NAMES, MODEL
    from .data.handles import HANDLES

    kind, handles = ATTRIBUTES[name].kind, elements
    for each, scalar, matrix, field in HANDLES:
        if each == kind and isinstance(elements, scalar | matrix):
            handles = handles if isinstance(elements, scalar) else getattr(elements, field)
            break
    else:
        noun = (
            "the model itself" if kind == MODEL else f"a {KIND_NAMES[kind]} or M{KIND_NAMES[kind]}"
        )
        raise TypeError(f"'{name}' is an attribute of {noun}, not of {type(elements).__name__}")
    try:
        ids = data.ids(kind, handles)
    except TaviroError as error:
        raise TaviroError(error.code, f"changes or attributes, '{name}': {error.message}") from None
    numbers = base.numbering(kind).numbers(ids).astype(np.int64)
    if len(numbers) and numbers.min() < 0:
        where = int(np.argmax(numbers < 0))
        raise TaviroError(
            TVO.Error.NOT_IN_MODEL,
            f"changes or attributes, '{name}': element {where} was removed from the model: "
            f"leave it out",
        )
    return numbers, np.shape(handles)


def _change(data: Any, base: Any, name: str, block: Any) -> _Change:
    import numpy as np

    from .data.attributes import ATTRIBUTES, STRING
    from .data.values import convert

    if not ATTRIBUTES[name].settable or ATTRIBUTES[name].datatype == STRING:
        raise ValueError(f"changes can't set '{name}': they take data such as RHS, LB, UB, Obj")
    if not isinstance(block, tuple) or len(block) != 2:
        raise ValueError(f"changes of '{name}' are a pair (elements, values), not {block!r:.80}")
    positions, shape = _positions(data, base, name, block[0])
    values = np.asarray(block[1])
    if values.ndim == 0 or values.shape[1:] != shape:
        raise ValueError(
            f"changes of '{name}' have the shape {values.shape}: the elements have {shape}, so "
            f"values need (scenarios, *{shape})"
        )
    values = values.reshape(len(values), -1)
    convert(name, values.reshape(-1))
    return _Change(name, positions, values)


# Workers


class _Batch:
    """The tasks of a call: models, or numbers of scenarios of one model's data."""

    def __init__(
        self,
        tasks: Iterator[Any],
        size: int | None,
        wanted: list[_Wanted],
        base: Any = None,
        table: list[_Change] | None = None,
    ) -> None:
        from .engines.running import Stop

        self.tasks = tasks
        self.size = size
        self.wanted = wanted
        self.base = base
        self.table = table or []
        self.token = uuid4().hex
        self.stop = Stop()
        self.process = os.getpid()
        self.lock = threading.Lock()  # a model is copied by one thread at a time
        self.was_sent = False  # from another process
        self.spare: list[Any] = []  # data of models that wait for their next scenario

    def call(self, tasks: list[Any], base: Any) -> tuple[Any, ...]:
        """The function and arguments that do some tasks, in a worker."""
        if self.base is None:
            return _solve_models, self.token, tasks, self.wanted
        first, end = tasks[0], tasks[-1] + 1
        parts = [change.part(first, end) for change in self.table]
        return _solve_scenarios, self.token, base, end - first, parts, self.wanted

    def packed_base(self) -> bytes:
        """The model of all scenarios, for workers in other processes."""
        from .travel import packed

        return pickle.dumps(packed(self.base), protocol=5)

    def copy(self, data: Any) -> Any:
        """A worker's own copy of a model's data."""
        from .travel import copied

        with self.lock:
            return copied(data)

    def instance(self) -> Any:
        """A model for a scenario: one that solved another before, or a new one."""
        try:
            return self.spare.pop()
        except IndexError:
            return self.copy(self.base)


# What this process works on, by token: batches of its own, and those it was sent the model of.
_batches: dict[str, _Batch] = {}
_batches_lock = threading.Lock()


def _solve_models(token: str, models: list[Any], wanted: list[_Wanted]) -> tuple[Any, float]:
    """Results of models and of functions that make one, and the seconds for all."""
    started = perf_counter()
    batch = _batches.get(token)
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


def _solve_scenarios(
    token: str, base: bytes | None, count: int, table: list[_Change], wanted: list[_Wanted]
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


def _held_batch(token: str, base: bytes | None) -> _Batch | None:
    with _batches_lock:
        batch = _batches.get(token)
        if batch is None and base is not None:
            from .travel import unpacked

            batch = _Batch(iter(()), 0, [], unpacked(pickle.loads(base)))
            batch.token, batch.was_sent = token, True
            held = [other for other in _batches.values() if other.was_sent]
            for old in held[: max(0, len(held) + 1 - _MOST_HELD)]:
                del _batches[old.token]
            _batches[token] = batch
        return batch


def _solved(data: Any, wanted: list[_Wanted], stop: Any) -> SolveResult:
    """Solve a model without a log, and take of it what is wanted."""
    import numpy as np

    from .data.attributes import ATTRIBUTES, MODEL

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
            result._values[key] = values if shape is None else values.reshape(shape)[()]
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


# The parent


class _Chunk:
    """Tasks that are sent together; `first` is the index of the first one, and `error` what the
    first try ended with where this is the second."""

    __slots__ = ("first", "tasks", "error", "future")

    def __init__(self, first: int, tasks: list[Any], error: BaseException | None = None) -> None:
        self.first = first
        self.tasks = tasks
        self.error = error
        self.future: Any = None


class _Parent:
    """Hands out the tasks of a batch and takes in the results."""

    def __init__(self, batch: _Batch, executor: Any, progress: Any) -> None:
        self._batch = batch
        self._progress = _Progress(progress, batch.size)
        self._own_executor: Any = None
        if executor is None:
            from concurrent.futures import ThreadPoolExecutor

            executor = self._own_executor = ThreadPoolExecutor(
                len(os.sched_getaffinity(0)), thread_name_prefix="taviropy-solveAll"
            )
        if not callable(getattr(executor, "submit", None)):
            raise TypeError(
                f"executor has no submit(), it is of type {type(executor).__name__}: give one of "
                f"concurrent.futures, or a Client of Dask"
            )
        self._executor = executor
        self._is_dask = type(executor).__module__.partition(".")[0] == "distributed"
        self._workers = _worker_count(executor)
        self._base: Any = None  # of scenarios: what stands for the model in other processes
        self._bases_to_send = 0
        self._results: dict[int, SolveResult] = {}
        self._taken = 0
        self._seconds = 0.0  # a task takes, of late
        self._done: SimpleQueue[_Chunk] = SimpleQueue()
        self._waiting: set[_Chunk] = set()
        self._again: list[_Chunk] = []
        self._end: BaseException | None = None  # what stopped the tasks before their end

    def run(self) -> list[SolveResult]:
        """All results, in order."""
        batch = self._batch
        _batches[batch.token] = batch
        try:
            try:
                self._prepare_base()
                self._work()
            except KeyboardInterrupt:
                self._cancel()
        except BaseException as error:
            self._end = error
            batch.stop.request()
            for chunk in self._waiting:
                chunk.future.cancel()
        finally:
            _batches.pop(batch.token, None)
            self._close_own()
            self._progress.end(len(self._results))
        results = self._ordered()
        if self._end is not None:
            self._end.results = results  # type: ignore[attr-defined]
            self._end.add_note(
                f"solveAll had {len(self._results)} results by then: the attribute 'results' of "
                f"this error holds them."
            )
            raise self._end
        return results

    def _ordered(self) -> list[SolveResult]:
        found = self._results
        count = max(found, default=-1) + 1 if self._end is not None else self._taken
        if self._end is None and self._batch.stop and self._batch.size is not None:
            count = max(count, self._batch.size)
        interrupted = TVO.Status.INTERRUPTED
        return [found[k] if k in found else SolveResult(k, interrupted) for k in range(count)]

    def _work(self) -> None:
        more = True
        while more or self._waiting:
            while more and len(self._waiting) < 2 * self._workers:
                chunk = self._next_chunk()
                if chunk is not None:
                    self._submit(chunk)
                more = chunk is not None and self._end is None
            if self._waiting:
                self._take(self._next_done())
        if self._again and self._is_dask:
            self._prepare_base()  # what was scattered may have been lost
        for chunk in self._again:  # each alone, so that none takes others with it
            if self._end is None:
                self._submit(chunk)
            elif chunk.error is not None:
                self._report(chunk, chunk.error)
            while self._waiting:
                self._take(self._next_done())
        if self._end is not None:
            raise self._end

    def _next_done(self) -> _Chunk:
        """The next chunk that came back. A Ctrl-C that another thread got is seen in a while."""
        while True:
            with suppress(Empty):
                return self._done.get(timeout=1.0)

    def _next_chunk(self) -> _Chunk | None:
        """The next tasks: as many as make up for their transport, without idle workers."""
        room = int(_CHUNK_SECONDS / self._seconds) if self._seconds else 1
        if self._batch.size is not None:
            room = min(room, (self._batch.size - self._taken) // (2 * self._workers))
        chunk = _Chunk(self._taken, [])
        for _ in range(max(1, min(room, _MOST_IN_CHUNK))):
            try:
                chunk.tasks.append(next(self._batch.tasks))
            except StopIteration:
                break
            except Exception as error:
                self._end = error
                break
        self._taken += len(chunk.tasks)
        return chunk if chunk.tasks else None

    def _submit(self, chunk: _Chunk) -> None:
        base = self._base
        if base is not None and not self._is_dask:
            is_needed = self._bases_to_send > 0 or chunk.error is not None
            self._bases_to_send -= 1
            base = base if is_needed else None
        call = self._batch.call(chunk.tasks, base)
        keywords = {"pure": False} if self._is_dask else {}
        try:
            chunk.future = self._executor.submit(*call, **keywords)
        except Exception as error:
            if not self._renew(error):
                self._end = TaviroError(
                    TVO.Error.ERROR_INVALID_ARGUMENT,
                    f"The executor takes no tasks: {type(error).__name__}: {error}; give an open "
                    f"one",
                )
                self._end.__cause__ = error
                if chunk.error is not None:
                    self._report(chunk, chunk.error)
                return
            chunk.future = self._executor.submit(*call, **keywords)
        self._waiting.add(chunk)
        chunk.future.add_done_callback(lambda future: self._done.put(chunk))

    def _take(self, chunk: _Chunk) -> None:
        """Take in what came of a chunk."""
        if chunk not in self._waiting:
            return
        results, seconds = None, 0.0
        error: BaseException | None
        try:
            error = chunk.future.exception()  # also where that is an interrupt of the worker's own
            if error is None:
                results, seconds = chunk.future.result()
        except KeyboardInterrupt:
            raise
        except BaseException as raised:
            error = raised
        self._waiting.discard(chunk)
        chunk.future = None
        if error is not None:
            self._lose(chunk, error)
            return
        if results is None:  # the worker hasn't got the model yet
            self._bases_to_send = max(self._bases_to_send, 1)
            if not self._batch.stop:
                self._submit(chunk)
            return
        for k, result in enumerate(results, chunk.first):
            result.index = k
            self._results[k] = result
        each = seconds / len(results)
        self._seconds = each if not self._seconds else 0.5 * (self._seconds + each)
        self._progress.tell(len(self._results))

    def _lose(self, chunk: _Chunk, error: BaseException) -> None:
        """No answer came for a chunk: its tasks are tried again, or reported."""
        if self._batch.stop:
            return
        if chunk.error is not None:
            self._report(chunk, error)
            return
        for k, task in enumerate(chunk.tasks):
            self._again.append(_Chunk(chunk.first + k, [task], error))

    def _report(self, chunk: _Chunk, error: BaseException) -> None:
        """Give up a chunk of one task."""
        report = TaviroError(
            TVO.Error.ENGINE_FAILED,
            f"No worker gave an answer, also at a second try: {type(error).__name__}: {error}",
        )
        report.__cause__ = error
        self._results[chunk.first] = SolveResult(chunk.first, None, report)

    def _renew(self, error: BaseException) -> bool:
        """Another pool of processes in place of a broken one; whether that could be done."""
        from concurrent.futures import BrokenExecutor, ProcessPoolExecutor

        old = self._executor
        if not isinstance(error, BrokenExecutor) or type(old) is not ProcessPoolExecutor:
            return False
        self._close_own()
        self._executor = self._own_executor = ProcessPoolExecutor(
            self._workers,
            mp_context=getattr(old, "_mp_context", None),
            initializer=getattr(old, "_initializer", None),
            initargs=getattr(old, "_initargs", ()),
        )
        self._bases_to_send = self._workers
        return True

    def _prepare_base(self) -> None:
        """Make the model of all scenarios ready for other processes."""
        from concurrent.futures import ThreadPoolExecutor

        if self._batch.base is None or isinstance(self._executor, ThreadPoolExecutor):
            return
        self._base = self._batch.packed_base()
        self._bases_to_send = self._workers
        if self._is_dask:
            self._base = self._executor.scatter(self._base, broadcast=True, hash=False)

    def _cancel(self) -> None:
        """Cancel what waits, end what is being solved here, and wait for the rest."""
        self._batch.stop.request()
        for chunk in list(self._waiting):
            if chunk.future.cancel():
                self._waiting.discard(chunk)
        while self._waiting:  # the queue may have lost a chunk to the interrupt
            for chunk in list(self._waiting):
                if chunk.future.done():
                    self._take(chunk)
            sleep(0.01)

    def _close_own(self) -> None:
        if self._own_executor is not None:
            self._own_executor.shutdown(wait=self._end is None, cancel_futures=True)
            self._own_executor = None


def _worker_count(executor: Any) -> int:
    """How many tasks an executor works on at a time."""
    found = getattr(executor, "_max_workers", None)
    if found is None and callable(getattr(executor, "nthreads", None)):
        found = sum(executor.nthreads().values())
    return found if isinstance(found, int) and found > 0 else os.cpu_count() or 1


class _Progress:
    """Tells how far the tasks are."""

    def __init__(self, wanted: Any, size: int | None) -> None:
        self._wanted = wanted
        self._size = size
        self._started = self._last = perf_counter()

    def tell(self, done: int) -> None:
        now = perf_counter()
        if callable(self._wanted):
            self._wanted(done, self._size)
        elif self._wanted and now - self._last > 1.0:
            self._last = now
            self._print(done)

    def end(self, done: int) -> None:
        if self._wanted and not callable(self._wanted):
            self._print(done)

    def _print(self, done: int) -> None:
        of = "" if self._size is None else f" of {self._size}"
        seconds = perf_counter() - self._started
        print(f"solveAll: {done}{of} done, {seconds:.1f} s", file=sys.stderr, flush=True)
