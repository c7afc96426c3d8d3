"""Solves in a process of their own, for solvers that nothing but its end can stop.

The process is a new interpreter, never a fork: this one may have threads. It gets the search path,
the function and its arguments as pickles, and sends pickles back: texts for the log as they come,
and at last an `Outcome`.
"""

from __future__ import annotations

import io
import os
import pickle
import subprocess
import sys
import threading
from collections.abc import Callable
from contextlib import suppress
from multiprocessing.spawn import get_executable
from time import perf_counter
from typing import IO, Any, NamedTuple

from .running import News, in_thread

TYPE_CHECKING = False
if TYPE_CHECKING:
    from .protocol import Run

_GRACE = 0.5  # seconds that a solver may need to end after its time limit
_PROGRAM = (
    "import pickle, sys; sys.path[:] = pickle.load(sys.stdin.buffer); "
    "from taviropy.engines.apart import serve; serve()"
)
# Ctrl-C is for the process that asks.
_FLAGS = getattr(subprocess, "CREATE_NEW_PROCESS_GROUP", 0) | getattr(
    subprocess, "CREATE_NO_WINDOW", 0
)


class Outcome(NamedTuple):
    """How a call ended: `value` is what it returned, unless it raised an error."""

    value: Any
    error: BaseException | None = None


def call_apart(
    function: Callable[..., object], arguments: tuple[object, ...], run: Run, until: float
) -> Outcome | None:
    """What a function gives in a new process; what it prints goes to the run's log.

    The process ends when the user wants the solve to end, and soon after `until`: None then. That
    is a time by perf_counter(), which all processes have in common. ProcessLookupError where there
    is no such process, RuntimeError where it died in the middle of the call.
    """
    child = _started()
    assert child.stdin is not None and child.stdout is not None
    to_child, from_child = child.stdin, child.stdout
    heard: list[str | Outcome] = []

    def talk() -> None:
        with suppress(OSError, EOFError, pickle.UnpicklingError):  # it was ended
            pickle.dump(sys.path, to_child, protocol=5)
            pickle.dump((function, arguments), to_child, protocol=5)
            to_child.flush()
            while not heard or isinstance(heard[-1], str):
                heard[:] = [pickle.load(from_child)]
                if isinstance(heard[0], str):
                    run.log.write(heard[0])

    def tick() -> None:
        if perf_counter() > until + _GRACE:
            child.kill()
        if run.reporter.is_due:
            run.reporter.tell(News())  # a listener may want it to end

    try:
        in_thread(talk, run.stop, child.kill, tick)
    finally:
        child.kill()
        code = child.wait()
        from_child.close()
        with suppress(OSError):  # what it hadn't read
            to_child.close()
    if heard and isinstance(heard[0], Outcome):
        return heard[0]
    if run.stop or perf_counter() > until:
        return None
    if not heard:
        raise ProcessLookupError(f"no process came to solve the model: it ended with {code}")
    raise RuntimeError(f"the process that solved the model ended with {code}")


def _started() -> subprocess.Popen[bytes]:
    executable = get_executable()
    if not executable or getattr(sys, "frozen", False):
        raise ProcessLookupError("no interpreter is known")
    try:
        return subprocess.Popen(
            [executable, "-P", "-c", _PROGRAM],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            start_new_session=True,
            creationflags=_FLAGS,
        )
    except OSError as error:
        raise ProcessLookupError(str(error)) from error


class _Channel(io.TextIOBase):
    """The way back to the process that asks, for what is printed too."""

    def __init__(self, stream: IO[bytes]) -> None:
        self._stream = stream

    def write(self, text: str) -> int:
        self.send(text)
        return len(text)

    def send(self, message: str | Outcome) -> None:
        pickle.dump(message, self._stream, protocol=5)
        self._stream.flush()


def serve() -> None:
    """Answer one call: the new process's side. It ends with the process that asked."""
    sys.stdout = channel = _Channel(os.fdopen(os.dup(1), "wb"))
    os.dup2(os.open(os.devnull, os.O_WRONLY), 1)  # what a solver would write itself
    function, arguments = pickle.load(sys.stdin.buffer)
    channel.write("")  # it is here

    def wait_for_the_end() -> None:
        sys.stdin.buffer.read()
        os._exit(1)

    threading.Thread(target=wait_for_the_end, daemon=True).start()
    try:
        outcome = Outcome(function(*arguments))
    except BaseException as error:
        outcome = Outcome(None, error)
    channel.send(outcome)
    os._exit(0)
