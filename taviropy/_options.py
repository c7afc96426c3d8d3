"""Options of a solve: the package's own few, and the engine's by their own names."""

from __future__ import annotations

import math
import operator

from ._exception import TaviroError
from ._tvo import TVO


def _seconds(value):
    value = float(value)
    if math.isnan(value) or value < 0:
        raise ValueError
    return value


def _count(value):
    value = operator.index(value)
    if value < 0:
        raise ValueError
    return value


def _switch(value):
    if value not in (0, 1):
        raise ValueError
    return bool(value)


# name: (default, conversion, what it takes)
_OWN = {
    "timeLimit": (math.inf, _seconds, "a number of seconds, at least 0"),
    "gap": (None, _seconds, "a relative gap, at least 0"),
    "threads": (None, _count, "a number of threads, 0 for the engine's choice"),
    "seed": (None, _count, "an integer, at least 0"),
    "log": (True, _switch, "True or False"),
}


class Options:
    """The options that were set, checked at once, applied before each solve."""

    def __init__(self, wanted):
        self._wanted = wanted
        self._own = {name: default for name, (default, _, _) in _OWN.items()}
        self.by_engine = {"highs": {}, "scip": {}}

    def __getitem__(self, name):
        """The value of one of the package's own options; None leaves it to the engine."""
        return self._own[name]

    def set(self, name, value):
        """Set an option; TaviroError for an unknown name or a value that doesn't fit."""
        if name in _OWN:
            _, converted, takes = _OWN[name]
            try:
                self._own[name] = converted(value)
            except (TypeError, ValueError):
                raise TaviroError(
                    TVO.Error.ERROR_INVALID_ARGUMENT,
                    f"The option '{name}' takes {takes}, not {value!r}",
                ) from None
            return
        from . import engines

        candidates = ("highs", "scip") if self._wanted == "auto" else (self._wanted,)
        known = [each for each in candidates if engines.knows_option(each, name)]
        if not known:
            raise TaviroError(
                TVO.Error.ERROR_INVALID_ARGUMENT,
                f"There is no option {name!r}: use {', '.join(map(repr, _OWN))} or an option of "
                f"the engine by its own name",
            )
        for each in known:
            self.by_engine[each][name] = engines.checked_option(each, name, value)
