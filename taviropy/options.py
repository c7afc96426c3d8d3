"""Options of a solve: the package's own few, and the engines' by their own names."""

from __future__ import annotations

import math
import operator
import os
from collections.abc import Callable
from typing import Any, NamedTuple

import numpy as np

from . import engines
from ._exception import TaviroError
from ._tvo import TVO
from .data.values import shortened
from .suggestions import did_you_mean


def _number(value: Any) -> float:
    """A real number as float; ValueError for NaN, a truth value, and text."""
    if isinstance(value, bool | np.bool | str | bytes | bytearray):
        raise ValueError
    value = float(value)
    if math.isnan(value):
        raise ValueError
    return float(value)


def _seconds(value: Any) -> float:
    value = math.inf if value is None else _number(value)
    if value < 0:
        raise ValueError
    return math.inf if value >= 1e20 else float(value)


def _gap(value: Any) -> float | None:
    if value is None:
        return None
    value = _number(value)
    if not 0.0 <= value < math.inf:
        raise ValueError
    return float(value)


def _count(value: Any) -> int | None:
    if value is None:
        return None
    if isinstance(value, bool | np.bool):
        raise ValueError
    value = operator.index(value)
    if not 0 <= value < 2**31:
        raise ValueError
    return int(value)


def _switch(value: Any) -> bool:
    if isinstance(value, str) or value not in (0, 1):
        raise ValueError
    return bool(value)


def _path(value: Any) -> str | None:
    """The whole path of a file that can be written to, which is made where there is none."""
    if value is None or value == "":
        return None
    path = os.path.abspath(os.fsdecode(value))
    with open(path, "a", encoding="utf-8"):
        return path


class _Own(NamedTuple):
    default: Any
    converted: Callable[[Any], Any]
    takes: str


_OWN = {
    "timeLimit": _Own(math.inf, _seconds, "a number of seconds, at least 0, None for no limit"),
    "gap": _Own(
        None, _gap, "a relative gap, a finite number of at least 0, None for the engine's own"
    ),
    "threads": _Own(
        None, _count, "a number of threads below 2**31, 0 or None for the engine's choice"
    ),
    "seed": _Own(None, _count, "an integer from 0 to 2**31 - 1, None for the engine's own"),
    "log": _Own(True, _switch, "True or False"),
    "logFile": _Own(None, _path, "the path of a file that can be written to, or None for no file"),
    "raiseInterrupt": _Own(False, _switch, "True or False"),
}


# What others call them, as `suggestions.meant` takes it.
_WORDS = {
    "maxtime": "timeLimit",
    "reltol": "gap",
    "quiet": "log",
    "randomseed": "seed",
    "relativegap": "gap",
    "timeout": "timeLimit",
    "tol": "gap",
    "verbose": "log",
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
        """Set an option; TaviroError for an unknown name or a value that doesn't fit.

        None takes back what was set by an engine's own name.
        """
        if _is_own(name):
            try:
                converted = _OWN[name].converted(value)
            except OSError as error:
                raise _refusal(name, f"{_OWN[name].takes} ({error.strerror})", value) from None
            except (TypeError, ValueError, OverflowError):
                raise _refusal(name, _OWN[name].takes, value) from None
            self.version += 1
            self._own[name] = converted
            return
        checked: dict[str, object] = {}
        for each, engine in self._engines_with(name):
            if value is None:
                checked[each] = None
                continue
            try:
                checked[each] = engine.checked_option(name, value)
            except ValueError as error:
                raise _refusal(name, str(error), value) from None
        self.version += 1
        for each, converted in checked.items():
            if converted is None:
                self._by_engine[each].pop(name, None)
            else:
                self._by_engine[each][name] = converted

    def get(self, name: str) -> Any:
        """The value of an option that was set; the package's own have defaults, others None."""
        if _is_own(name):
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
        found: list[tuple[str, Any]] = []
        known = list(_OWN)
        for each in engines.ENGINES if self._wanted == "auto" else (self._wanted,):
            try:
                engine = engines.engine_class(each)
            except ImportError:
                continue
            names = engine.option_names()
            if isinstance(name, str) and name in names:
                found.append((each, engine))
            known += names
        if not found:
            raise _unknown(name, known)
        return found


def _is_own(name: object) -> bool:
    return isinstance(name, str) and name in _OWN


def _unknown(name: object, known: list[str]) -> TaviroError:
    """The error for an option that neither the package nor an engine has."""
    near = did_you_mean(name, known, _WORDS)
    return TaviroError(
        TVO.Error.ERROR_INVALID_ARGUMENT,
        f"There is no option {shortened(name)}: {near + ' Otherwise ' if near else ''}use "
        f"{', '.join(map(repr, _OWN))} or an option of the engine by its own name",
    )


def _refusal(name: str, takes: str, value: object) -> TaviroError:
    return TaviroError(
        TVO.Error.ERROR_INVALID_ARGUMENT,
        f"The option '{name}' takes {takes}, not {shortened(value)}",
    )
