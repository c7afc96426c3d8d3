"""What the engines share while they solve: the log, and Ctrl-C as a wish to stop."""

from __future__ import annotations

import signal
import sys
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from types import FrameType, TracebackType
from typing import IO, Any, Self


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
        except (AttributeError, OSError, ValueError):
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
            and signal.getsignal(signal.SIGINT) is signal.default_int_handler
        )
        if not ours:
            yield
            return

        def handle(number: int, frame: FrameType | None) -> None:
            self.request()

        signal.signal(signal.SIGINT, handle)
        try:
            yield
        finally:
            signal.signal(signal.SIGINT, signal.default_int_handler)
