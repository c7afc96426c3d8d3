"""What comes back of one model."""

from __future__ import annotations

from typing import Any

from .._exception import TaviroError
from .._tvo import TVO


class SolveResult:
    """
    PURPOSE:
      What came of one model of solveAll.

    NOTES:
      index (int): its place among the models or scenarios. status: one of TVO.Status, None where
      there is an error. objective (float): None without a solution. seconds (float): of the solve.
      error: the exception that making or solving the model ended with, else None.
      result["X"] gives an attribute that was asked for; TaviroError where the model has none.
    """

    __slots__ = ("index", "status", "objective", "seconds", "error", "_values", "_missing")

    def __init__(self, index: int, status: int | None, error: BaseException | None = None) -> None:
        self.index = index
        self.status = status
        self.objective: float | None = None
        self.seconds = 0.0
        self.error = error
        self._values: dict[str, Any] = {}
        self._missing: dict[str, str] = {}  # why there is no value

    def __getitem__(self, key: str) -> Any:
        if key in self._values:
            return self._values[key]
        if self.error is not None:
            raise TaviroError(
                TVO.Error.NO_SOLUTION, f"There is no {key!r} of model {self.index}: {self.error}"
            ) from self.error
        if key in self._missing:
            raise TaviroError(TVO.Error.NO_SOLUTION, f"Model {self.index}: {self._missing[key]}")
        raise KeyError(f"{key!r} was not asked for: list it in the attributes of solveAll")

    def __repr__(self) -> str:
        if self.error is not None:
            return f"<{self.index}: {type(self.error).__name__}: {self.error}>"
        objective = "" if self.objective is None else f", objective {self.objective:.10g}"
        return f"<{self.index}: {self.status}{objective}, {self.seconds:.3g} s>"
