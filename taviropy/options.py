"""Options of a solve: the package's own few, and the engines' by their own names."""

from __future__ import annotations

import math
import operator
import os
from collections.abc import Callable
from typing import Any, NamedTuple

from . import engines
from ._exception import TaviroError
from ._tvo import TVO


def _seconds(value: Any) -> float:
    value = float(value)
    if math.isnan(value) or value < 0:
        raise ValueError
    return math.inf if value >= 1e20 else float(value)


def _gap(value: Any) -> float:
    value = float(value)
    if not 0.0 <= value < math.inf:
        raise ValueError
    return float(value)


def _count(value: Any) -> int:
    value = operator.index(value)
    if not 0 <= value < 2**31:
        raise ValueError
    return int(value)


def _switch(value: Any) -> bool:
    if value not in (0, 1):
        raise ValueError
    return bool(value)


def _path(value: Any) -> str | None:
    return None if value is None or value == "" else str(os.fspath(value))


class _Own(NamedTuple):
    default: Any
    converted: Callable[[Any], Any]
    takes: str


_OWN = {
    "timeLimit": _Own(math.inf, _seconds, "a number of seconds, at least 0"),
    "gap": _Own(None, _gap, "a relative gap, a finite number of at least 0"),
    "threads": _Own(None, _count, "a number of threads below 2**31, 0 for the engine's choice"),
    "seed": _Own(None, _count, "an integer from 0 to 2**31 - 1"),
    "log": _Own(True, _switch, "True or False"),
    "logFile": _Own(None, _path, "a path, or None for no file"),
    "raiseInterrupt": _Own(False, _switch, "True or False"),
}


class Options:
    """The options that were set, checked at once, applied before each solve."""

    def __init__(self, wanted: str) -> None:
        self._wanted = wanted
        self._own = {name: own.default for name, own in _OWN.items()}
        self._by_engine: dict[str, dict[str, Any]] = {name: {} for name in engines.ENGINES}
        self.version = 0  # grows when an option is set

    def __getitem__(self, name: str) -> Any:
        """The value of one of the package's own options; None leaves it to the engine."""
        return self._own[name]

    def of_engine(self, name: str) -> dict[str, Any]:
        """The options that were set by an engine's own names."""
        return self._by_engine[name]

    def set(self, name: str, value: Any) -> None:
        """Set an option; TaviroError for an unknown name or a value that doesn't fit."""
        if name in _OWN:
            try:
                converted = _OWN[name].converted(value)
            except (TypeError, ValueError, OverflowError):
                raise _refusal(name, _OWN[name].takes, value) from None
            self.version += 1
            self._own[name] = converted
            return
        checked = {}
        for each, engine in self._engines_with(name):
            try:
                checked[each] = engine.checked_option(name, value)
            except ValueError as error:
                raise _refusal(name, str(error), value) from None
        self.version += 1
        for each, converted in checked.items():
            self._by_engine[each][name] = converted

    def get(self, name: str) -> Any:
        """The value of an option that was set; the package's own have defaults, others None."""
        if name in _OWN:
            return self._own[name]
        for each, _ in self._engines_with(name):
            if name in self._by_engine[each]:
                return self._by_engine[each][name]
        return None

    def state(self) -> dict[str, dict[str, Any]]:
        """What was set, by engine; the package's own options under an empty name."""
        return {"": dict(self._own)} | {each: dict(put) for each, put in self._by_engine.items()}

    def restore(self, state: dict[str, dict[str, Any]]) -> None:
        """Take over what `state` gave."""
        for name, value in state[""].items():
            if name not in _OWN:
                raise KeyError(name)
            self._own[name] = value if value is None else _OWN[name].converted(value)
        for each in self._by_engine:
            self._by_engine[each] = dict(state[each])
        self.version += 1

    def _engines_with(self, name: str) -> list[tuple[str, Any]]:
        """The engines that may be meant and that have the option, at least one."""
        found = []
        for each in engines.ENGINES if self._wanted == "auto" else (self._wanted,):
            try:
                engine = engines.engine_class(each)
            except ImportError:
                continue
            if name in engine.option_names():
                found.append((each, engine))
        if not found:
            raise TaviroError(
                TVO.Error.ERROR_INVALID_ARGUMENT,
                f"There is no option {name!r}: use {', '.join(map(repr, _OWN))} or an option of "
                f"the engine by its own name",
            )
        return found


def _refusal(name: str, takes: str, value: object) -> TaviroError:
    return TaviroError(
        TVO.Error.ERROR_INVALID_ARGUMENT, f"The option '{name}' takes {takes}, not {value!r}"
    )
