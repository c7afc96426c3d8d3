"""What a user learns of a solve while it runs: records for a callback, and a line that moves."""

from __future__ import annotations

import sys
from collections.abc import Callable
from time import perf_counter
from typing import Any

import numpy as np

from ._exception import TaviroError
from ._tvo import TVO
from .data.constraints import linear_rows
from .data.model_data import ModelData
from .data.sides import linear_side
from .data.values import Floats
from .engines.running import News, Row, Stop

_PATIENCE = 2.0  # seconds after which a line appears by itself


class Guard:
    """Calls a user's functions. The first error ends the solve, and is kept until after it."""

    def __init__(self, stop: Stop) -> None:
        self._stop = stop
        self.error: BaseException | None = None

    def call(self, function: Callable[[Any], Any], argument: Any) -> Any:
        """What the function returns; None where it fails, or one has failed before."""
        if self.error is not None:
            return None
        try:
            return function(argument)
        except BaseException as error:
            self.error = error
            end(self._stop)
            return None


def end(stop: Stop) -> None:
    """Let a solve end; a second request would count as impatience."""
    if not stop:
        stop.request()


class Point:
    """Values of all variables, in the middle of a solve."""

    def __init__(self, data: ModelData, x: Floats | None) -> None:
        self._data = data
        self._x = x

    def value(self, of: Any) -> Any:
        """The value of a variable or linear expression, an array of its shape; float for a scalar.

        TaviroError where no point is known yet, TypeError for what isn't linear.
        """
        if self._x is None:
            raise TaviroError(
                TVO.Error.NO_SOLUTION,
                "No point is known yet: ask once `incumbent` is not None any more",
            )
        side = linear_side(self._data, of)
        if side is None:
            raise TypeError(
                f"value takes variables and linear expressions, not {type(of).__name__}: compute "
                f"from the values of its variables"
            )
        values = np.asarray(side.constant, np.float64)
        if side.rows is not None:
            numbers = self._data.column_numbers(side.rows.ids)
            entries = side.rows.data * self._x[numbers]
            values = values + side.rows.sums(entries).reshape(side.shape)
        return np.asarray(values) if side.is_matrix else float(values)


class Progress(Point):
    """A moment of a solve, as a callback of `Model.optimize` gets it.

    ``seconds`` since the solve began; ``incumbent`` (the best objective so far) and ``bound``,
    None as long as there is none; ``gap`` between them, relative to the incumbent; ``nodes`` and
    ``iterations`` so far; ``is_new``: whether a better point was just found. ``value(x)`` gives
    the values of variables and linear expressions at the best point; ``stop()`` ends the solve.
    """

    def __init__(self, data: ModelData, stop: Stop, seconds: float) -> None:
        super().__init__(data, None)
        self._stop = stop
        self.seconds = seconds
        self.incumbent: float | None = None
        self.bound: float | None = None
        self.nodes = 0
        self.iterations = 0
        self.is_new = False

    @property
    def gap(self) -> float | None:
        """How far the bound is from the incumbent, relative to the latter."""
        if self.incumbent is None or self.bound is None:
            return None
        return abs(self.incumbent - self.bound) / max(abs(self.incumbent), 1e-10)

    def stop(self) -> None:
        """End the solve with the best point so far; its status will be INTERRUPTED."""
        end(self._stop)

    def __str__(self) -> str:
        parts = [f"{self.seconds:.1f} s"]
        for name, value in (("incumbent", self.incumbent), ("bound", self.bound)):
            if value is not None:
                parts.append(f"{name} {value:.8g}")
        if self.gap is not None:
            parts.append(f"gap {100 * self.gap:.2f} %")
        for name, count in (("nodes", self.nodes), ("iterations", self.iterations)):
            if count:
                parts.append(f"{count:,} {name}")
        return "  ".join(parts)


class Watch:
    """Listens to an engine's news, and tells a callback and a terminal."""

    def __init__(
        self,
        data: ModelData,
        stop: Stop,
        callback: Callable[[Progress], object] | None,
        shows_line: bool | None,
        is_quiet: bool,
        guard: Guard,
    ) -> None:
        self._data, self._stop, self._callback, self._guard = data, stop, callback, guard
        self._started = perf_counter()
        self._patience = 0.0 if shows_line else _PATIENCE
        self._shows_line = shows_line or (shows_line is None and is_quiet and _is_terminal())
        self._width = 0
        self._last = Progress(data, stop, 0.0)

    def __bool__(self) -> bool:
        """Whether there is anybody to tell."""
        return self._callback is not None or self._shows_line

    def hear(self, news: News) -> None:
        """Take news."""
        last, now = self._last, Progress(self._data, self._stop, perf_counter() - self._started)
        now.incumbent = last.incumbent if news.incumbent is None else news.incumbent
        now.bound = last.bound if news.bound is None else news.bound
        now.nodes, now.iterations = news.nodes or last.nodes, news.iterations or last.iterations
        now._x, now.is_new = last._x if news.x is None else news.x, news.x is not None
        self._last = now
        if self._shows_line and now.seconds >= self._patience:
            self._show(str(now))
        if self._callback is not None:
            self._guard.call(self._callback, now)

    def _show(self, text: str) -> None:
        try:
            sys.stderr.write("\r" + text.ljust(self._width))
            sys.stderr.flush()
            self._width = len(text)
        except Exception:  # whatever a stream of the user's own may raise
            self._shows_line = False

    def close(self) -> None:
        """Take the line away."""
        if self._width:
            self._show("")
            self._show("")


def _is_terminal() -> bool:
    try:
        return sys.stderr.isatty() or "ipykernel" in sys.modules
    except Exception:  # closed, or None
        return False


def check_callable(name: str, given: object) -> None:
    """Refuse what can't be called."""
    if given is not None and not callable(given):
        raise TypeError(f"'{name}' takes a function, not {type(given).__name__}")


def lazy_rows(
    data: ModelData, function: Callable[[Point], Any], guard: Guard
) -> Callable[[Floats], list[Row]]:
    """What an engine asks at a point: the rows that the user's function wants to hold."""

    def rows_at(point: Point) -> list[Row]:
        wanted = function(point)
        if wanted is None:
            return []
        found = []
        for constr in wanted if isinstance(wanted, list | tuple) else [wanted]:
            rows, lower, upper = linear_rows(data, constr)
            for k in range(rows.count):
                part = slice(rows.indptr[k], rows.indptr[k + 1])
                found.append(Row(rows.ids[part], rows.data[part], float(lower[k]), float(upper[k])))
        return found

    def ask(x: Floats) -> list[Row]:
        return guard.call(rows_at, Point(data, x)) or []

    return ask
