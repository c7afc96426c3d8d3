"""What the engines share: types of options, the log, news of a solve, and Ctrl-C as a wish to stop.

It imports no solver.
"""

from __future__ import annotations

import _signal  # type: ignore[import-not-found]  # `signal` makes enums of all, at each call
import os
import signal
import sys
import threading
from collections import deque
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager, suppress
from functools import cache
from time import monotonic
from types import FrameType, TracebackType
from typing import IO, Any, NamedTuple, Self

import numpy as np
from numpy.typing import NDArray

_TICK = 0.05  # seconds
_SIGINT = int(signal.SIGINT)
_MOST_KEPT = 32  # threads: those beyond wait


def as_type(kind: type, value: Any) -> Any:
    """The value of an option as bool, int, float or str; ValueError, which says what is taken,
    where it doesn't fit."""
    is_truth = isinstance(value, bool | np.bool)
    try:
        if kind is bool:
            fits = is_truth or (not isinstance(value, str) and value in (0, 1))
        elif kind is str:
            fits = isinstance(value, str)
        else:
            wanted = "__index__" if kind is int else "__float__"
            fits = not is_truth and hasattr(value, wanted)
        converted = kind(value) if fits else None
    except (TypeError, ValueError, OverflowError):
        converted = None
    if converted is None or converted != converted:
        raise ValueError(f"a value of type {kind.__name__}")
    return converted


def in_thread(
    call: Callable[[], object],
    stop: Stop,
    interrupt: Callable[[], object],
    tick: Callable[[], object] = lambda: None,
    in_kept: bool = False,
) -> None:
    """Call something that takes long in a thread of its own, and wait for it.

    Signals reach Python meanwhile. `interrupt` is called once the user wants it to end, and again
    until it does; `tick` now and then, and at the end. `in_kept` takes one of a few threads that
    are kept, for a solver that has room for so many threads in the life of a process.
    """
    errors: list[BaseException] = []
    done = threading.Event()

    def work() -> None:
        try:
            call()
        except BaseException as error:
            errors.append(error)
        finally:
            done.set()

    if in_kept:
        _kept_threads().submit(work)
    else:
        threading.Thread(target=work, name="taviropy-solve").start()
    raised: BaseException | None = None
    while not done.is_set():
        try:
            if not done.wait(_TICK):
                tick()
            if stop or raised is not None:
                interrupt()
        except BaseException as error:  # of a signal handler that the user has set
            raised = raised or error
    tick()
    if raised is not None:
        raise raised
    if errors:
        raise errors[0]


@cache
def _kept_threads() -> ThreadPoolExecutor:
    return ThreadPoolExecutor(_MOST_KEPT, "taviropy-solve")


if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_kept_threads.cache_clear)  # a child has no threads yet


_SILENCE = threading.RLock()  # the descriptors are the process's: one at a time exchanges them


@contextmanager
def silent(descriptor: int) -> Iterator[None]:
    """Drop what a solver itself writes to the process's standard output, 1, or error output, 2."""
    with _SILENCE:
        try:
            kept = os.dup(descriptor)
        except OSError:  # there is none
            yield
            return
        nowhere = os.open(os.devnull, os.O_WRONLY)
        try:
            os.dup2(nowhere, descriptor)
            yield
        finally:
            os.dup2(kept, descriptor)
            os.close(kept)
            os.close(nowhere)


class Log:
    """Where the log of a solve goes: standard output, a file, both or nowhere.

    A stream that fails is given up, and the solve goes on.
    """

    def __init__(self, to_stdout: bool, path: str | None) -> None:
        self._streams: list[Any] = [sys.stdout] if to_stdout and sys.stdout is not None else []
        self._path = path
        self._file: IO[str] | None = None

    def __enter__(self) -> Self:
        if self._path is not None:
            self._file = open(self._path, "a", encoding="utf-8")  # noqa: SIM115
            self._streams.append(self._file)
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        self.flush()
        if self._file is not None:
            with suppress(OSError):  # a full disk
                self._file.close()

    @property
    def is_on(self) -> bool:
        """Whether anybody listens."""
        return bool(self._streams)

    @property
    def is_process_output(self) -> bool:
        """Whether all of it goes to the process's own standard output, where a solver can write it
        itself. ``sys.stdout`` is another stream in notebooks and under test runners."""
        if len(self._streams) != 1:
            return False
        try:
            return bool(self._streams[0].fileno() == 1)
        except Exception:  # whatever a stream of the user's own may raise
            return False

    def write(self, text: str) -> None:
        """Add text."""
        for stream in self._streams[:]:
            try:
                stream.write(text)
                stream.flush()
            except Exception:
                self._streams.remove(stream)

    def flush(self) -> None:
        """Let what was written so far be seen before what a solver writes itself."""
        self.write("")

    def line(self, text: str) -> None:
        """Add a line."""
        self.write(text + "\n")


class News(NamedTuple):
    """What an engine knows in the middle of a solve; None is what it doesn't.

    Values are the model's own, with its sense and offset. `x` is a new best point.
    """

    incumbent: float | None = None
    bound: float | None = None
    nodes: int = 0
    iterations: int = 0
    x: NDArray[np.float64] | None = None


class Row(NamedTuple):
    """A linear row that an engine is given in the middle of a solve."""

    columns: NDArray[np.int32]
    coefficients: NDArray[np.float64]
    lower: float
    upper: float

    def is_broken_at(self, x: NDArray[np.float64]) -> bool:
        """Whether a point misses a side by more than a millionth of it."""
        value = float(self.coefficients @ x[self.columns])
        slack = 1e-6 * max(1.0, abs(value))
        return not self.lower - slack <= value <= self.upper + slack


class Reporter:
    """Takes news from an engine, in whichever thread it works, to a listener in the thread that
    made this: at once where it is the same, else when that thread calls `pump`."""

    def __init__(self, listener: Callable[[News], object] | None = None) -> None:
        self._listener = listener
        self._waiting: deque[News] = deque()
        self._owner = threading.get_ident()
        self._due = 0.0

    def __bool__(self) -> bool:
        """Whether anybody listens."""
        return self._listener is not None

    @property
    def is_due(self) -> bool:
        """Whether somebody listens, and it is some time since the last news without a point."""
        if self._listener is None or monotonic() < self._due:
            return False
        self._due = monotonic() + _TICK
        return True

    def tell(self, news: News) -> None:
        """Hand over news: where they have no point, after a look at `is_due`."""
        self._waiting.append(news)
        if threading.get_ident() == self._owner:
            self.pump()

    def pump(self) -> None:
        """Let the listener have what waits."""
        while self._waiting and self._listener is not None:
            self._listener(self._waiting.popleft())


class Stop:
    """Whether the user wants a solve to end, and how often he said so."""

    def __init__(self) -> None:
        self.count = 0

    def __bool__(self) -> bool:
        return self.count > 0

    def request(self) -> None:
        """Say so once more."""
        self.count += 1

    @contextmanager
    def on_interrupt(self) -> Iterator[None]:
        """While this lasts, Ctrl-C requests a stop instead of raising KeyboardInterrupt.

        Only in the main thread, where Python handles signals, and only in place of Python's own
        handling: a handler that somebody set stays in charge.
        """
        ours = (
            threading.current_thread() is threading.main_thread()
            and _signal.getsignal(_SIGINT) is signal.default_int_handler
        )
        if not ours:
            yield
            return

        def handle(number: int, frame: FrameType | None) -> None:
            self.request()

        _signal.signal(_SIGINT, handle)
        try:
            yield
        finally:
            _signal.signal(_SIGINT, signal.default_int_handler)
