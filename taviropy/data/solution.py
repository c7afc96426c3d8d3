"""What a solve left behind, and the attributes that are read from it."""

from __future__ import annotations

from collections.abc import Callable, Mapping
from functools import partial
from typing import Any

import numpy as np
from numpy.typing import NDArray

from .._exception import TaviroError
from .._tvo import TVO
from .attributes import ATTRIBUTES, KIND_NAMES, ON_DEMAND
from .basis import Basis
from .elements import Elements
from .values import Floats

# An array of values by the elements' index, or what gives it when it is first asked for.
Values = Floats | Callable[[], Floats]

_WHY_MISSING: dict[int, str] = {
    TVO.Status.LOADED: "the model has not been solved yet: call optimize() first",
    TVO.Status.INFEASIBLE: "the model is infeasible: relax its bounds or constraints",
    TVO.Status.LOCALLY_INFEASIBLE: "no feasible point was found from where the search began: set "
    "Start near one, or ask engine='scip', which searches everywhere",
    TVO.Status.UNBOUNDED: "the model is unbounded: give its variables bounds",
    TVO.Status.INFEASIBLE_OR_UNBOUNDED: "the model is infeasible or unbounded: solve it without "
    "an objective to learn which",
    TVO.Status.TIME_LIMIT: "the time limit came before a solution was found: raise timeLimit",
    TVO.Status.INTERRUPTED: "the solve was interrupted before a solution was found",
}


class Solution:
    """The outcome of a solve, or that there was none yet.

    ``values`` holds an array for each solution attribute that there is. ``missing`` says why
    others aren't there.
    """

    def __init__(
        self,
        status: int,
        objective: float | None = None,
        bound: float | None = None,
        values: dict[str, Values] | None = None,
        missing: Mapping[str, str] | None = None,
    ) -> None:
        self.status = status
        self.objective = objective
        self.bound = bound
        self.values = values or {}
        self.missing = missing or {}
        self.seconds = 0.0
        self.engine = ""  # who answered
        self.nodes = self.iterations = 0  # what that took
        self._basis: Basis | Callable[[], Basis] | None = None

    def array(self, attrname: str) -> Floats | None:
        """The values of a solution attribute, None where there are none."""
        values = self.values.get(attrname)
        if callable(values):
            values = self.values[attrname] = values()
        return values

    @property
    def basis(self) -> Basis | None:
        """The basis that the solve ended with, None where there is none."""
        if callable(self._basis):
            self._basis = self._basis()
        return self._basis

    @basis.setter
    def basis(self, basis: Basis | Callable[[], Basis] | None) -> None:
        self._basis = basis

    @property
    def known_basis(self) -> Basis | None:
        """The basis, where somebody has asked for it: HiGHS takes its time to tell it."""
        return None if callable(self._basis) else self._basis

    def share(self, other: Solution) -> None:
        """Take over from another what is left until somebody asks."""
        self._basis = other._basis
        for name in ON_DEMAND & other.values.keys():
            self.values[name] = other.values[name]

    def keep(self, kind: int, kept: NDArray[Any]) -> None:
        """Follow the removal of elements: `kept` are the old indices that stay."""
        for name in list(self.values):
            if ATTRIBUTES[name].kind == kind:
                values = self.values[name]
                late = callable(values)
                self.values[name] = partial(_kept, values, kept) if late else _kept(values, kept)

    def read(self, attrname: str, positions: NDArray[Any], elements: Elements) -> Floats:
        """Values of an attribute at some indices; TaviroError where one of them has none."""
        array = self.array(attrname)
        if array is None:
            raise self._no_value(attrname)
        if len(positions) and positions.max() >= len(array):
            where = int(positions[np.argmax(positions >= len(array))])
            noun = KIND_NAMES[ATTRIBUTES[attrname].kind]
            raise TaviroError(
                TVO.Error.NO_SOLUTION,
                f"There is no '{attrname}' of {noun} '{elements.name_of(where)}': it was added "
                f"after the last solve; call optimize() again",
            )
        values: Floats = array[positions].T  # several values an element have an axis in front
        return values

    def result(self, attrname: str) -> Any:
        """An attribute of the model that a solve determines."""
        if attrname == "Status":
            return self.status
        if attrname == "SolveTime":
            return self.seconds
        if attrname == "Engine":
            return self.engine
        if attrname == "NumSolutions":
            pool = self.array("Pool")
            return int("X" in self.values) if pool is None else pool.shape[1]
        if attrname == "Nodes":
            return self.nodes
        if attrname == "Iterations":
            return self.iterations
        value = self.bound if attrname == "Bound" else self.objective
        if value is None or (attrname == "Gap" and self.bound is None):
            raise self._no_value(attrname)
        return _gap(value, self.bound) if attrname == "Gap" else value

    def _no_value(self, attrname: str) -> TaviroError:
        why = self.missing.get(attrname)
        if why is None and "X" in self.values:
            why = "the engine tells none for this model"
        elif why is None:
            why = _WHY_MISSING.get(self.status, "the solve ended without a solution: see Status")
        return TaviroError(TVO.Error.NO_SOLUTION, f"There is no '{attrname}': {why}")


def _kept(values: Values, kept: NDArray[Any]) -> Floats:
    array = values() if callable(values) else values
    part: Floats = array[kept[: np.searchsorted(kept, len(array))]]
    return part


def _gap(objective: float, bound: float | None) -> float:
    """How far the bound is from the objective, relative to the latter."""
    if bound is None or objective == bound:
        return 0.0
    return abs(objective - bound) / max(abs(objective), 1e-10)
