"""What the engines share: a live log, Ctrl-C as a wish to stop, sides that can't hold."""

from __future__ import annotations

import signal
import sys
import threading
from contextlib import contextmanager

import numpy as np
from highspy import cb

from .._exception import TaviroError
from .._tvo import TVO

_LOGGING = cb.HighsCallbackType.kCallbackLogging
_INTERRUPTS = (
    cb.HighsCallbackType.kCallbackSimplexInterrupt,
    cb.HighsCallbackType.kCallbackIpmInterrupt,
    cb.HighsCallbackType.kCallbackMipInterrupt,
)


def run_with_log(highs, log):
    """Run HiGHS; returns whether Ctrl-C was pressed meanwhile.

    The log goes to the process's standard output as it comes, or to ``sys.stdout`` where that
    was exchanged, as notebooks and test runners do.
    """
    exchanged = log and not is_process_output(sys.stdout)
    highs.setOptionValue("output_flag", bool(log))
    highs.setOptionValue("log_to_console", not exchanged)
    if log:
        sys.stdout.flush()
    with interrupts_noted() as pressed:
        output = sys.stdout

        def answer(kind, text, data_out, data_in, user_data):
            if kind == _LOGGING:
                output.write(text)
                output.flush()
            elif pressed:
                data_in.user_interrupt = True

        highs.setCallback(answer, None)
        if exchanged:
            highs.startCallback(_LOGGING)
        for kind in _INTERRUPTS:
            highs.startCallback(kind)
        try:
            highs.run()
        finally:
            highs.setCallback(None, None)
            highs.setOptionValue("output_flag", False)
    return bool(pressed)


def tell(text, log):
    """Add a line to the log."""
    if log:
        sys.stdout.write(text + "\n")
        sys.stdout.flush()


@contextmanager
def interrupts_noted():
    """While this lasts, Ctrl-C adds to the list given out instead of raising KeyboardInterrupt.

    Only in the main thread, where Python handles signals, and only in place of Python's own
    handling: a handler that somebody set stays in charge.
    """
    pressed = []
    ours = (
        threading.current_thread() is threading.main_thread()
        and signal.getsignal(signal.SIGINT) is signal.default_int_handler
    )
    if not ours:
        yield pressed
        return
    signal.signal(signal.SIGINT, lambda number, frame: pressed.append(number))
    try:
        yield pressed
    finally:
        signal.signal(signal.SIGINT, signal.default_int_handler)


def is_process_output(stream):
    """Whether a stream writes to the process's own standard output."""
    try:
        return stream.fileno() == 1
    except (AttributeError, OSError, ValueError):
        return False


def refuse_infinite(table, at, lower, upper, noun):
    """Refuse a lower side of inf and an upper side of -inf, which no value can satisfy.

    `at` are the places of the sides in the table: a slice or an index array.
    """
    for bad, text in ((lower == np.inf, "at least inf"), (upper == -np.inf, "at most -inf")):
        if bad.any():
            where = np.flatnonzero(bad)[:1]
            name = table.names_of(where + at.start if isinstance(at, slice) else at[where])[0]
            raise TaviroError(
                TVO.Error.ERROR_INVALID_ARGUMENT,
                f"The {noun} '{name}' is to be {text}, which no value can satisfy: make it finite",
            )
