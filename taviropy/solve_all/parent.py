"""The parent hands out chunks of tasks, never more than the workers can have in hand, and takes in
what comes back; what is lost with a worker is done again once, alone.
"""

from __future__ import annotations

import os
import sys
from contextlib import suppress
from queue import Empty, SimpleQueue
from time import perf_counter, sleep
from typing import Any

from .._exception import TaviroError
from .._tvo import TVO
from .result import SolveResult
from .worker import Batch, batches

_CHUNK_SECONDS = 0.1  # what a chunk of small models should take
_MOST_IN_CHUNK = 256


class _Chunk:
    """Tasks that are sent together; `first` is the index of the first one, and `error` what the
    first try ended with where this is the second."""

    __slots__ = ("first", "tasks", "error", "future")

    def __init__(self, first: int, tasks: list[Any], error: BaseException | None = None) -> None:
        self.first = first
        self.tasks = tasks
        self.error = error
        self.future: Any = None


class Parent:
    """Hands out the tasks of a batch and takes in the results."""

    def __init__(self, batch: Batch, executor: Any, progress: Any) -> None:
        self._batch = batch
        self._progress = Progress(progress, batch.size)
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
        batches[batch.token] = batch
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
            batches.pop(batch.token, None)
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


class Progress:
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
