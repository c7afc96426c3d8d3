"""The engine behind a model: what it is told, what it answers, and the attributes in between."""

from __future__ import annotations

from time import perf_counter
from typing import Any

import numpy as np

from ._attrutil import _ATTRIBUTES, CHAR, CHARACTERS, STRING
from ._exception import TaviroError
from ._options import Options
from ._tvo import TVO

_DECODED = {name: np.array(list(text), "U1") for name, text in CHARACTERS.items()}
_STORED = ("LB", "UB", "Obj", "VType", "Start", "RHS", "Sense", "QRHS", "QSense", "GenKind")
_DEFAULTS = {"Start": np.nan}


class Solution:
    """What a solve left behind.

    ``values`` holds an array for each solution attribute that there is, by the elements' index.
    ``missing`` says why the others aren't there.
    """

    def __init__(self, status, objective=None, bound=None, values=None, missing=None):
        self.status = status
        self.objective = objective
        self.bound = bound
        self.values = values or {}
        self.missing = missing or {}
        self.seconds = 0.0

    def keep(self, kind, kept):
        """Follow the removal of elements."""
        for name, array in self.values.items():
            if _ATTRIBUTES[name][1] == kind:
                self.values[name] = array[kept[kept < len(array)]]

    def why_missing(self, attrname):
        """Why there is no value of a solution attribute, and what to do."""
        return self.missing.get(attrname) or _WHY_MISSING.get(
            self.status, "the solve ended without a solution: see Status"
        )


_WHY_MISSING = {
    TVO.Status.LOADED: "the model has not been solved yet: call optimize() first",
    TVO.Status.INFEASIBLE: "the model is infeasible: relax its bounds or constraints",
    TVO.Status.UNBOUNDED: "the model is unbounded: give its variables bounds",
    TVO.Status.INFEASIBLE_OR_UNBOUNDED: "the model is infeasible or unbounded: solve it without "
    "an objective to learn which",
    TVO.Status.TIME_LIMIT: "the time limit came before a solution was found: raise timeLimit",
    TVO.Status.INTERRUPTED: "the solve was interrupted before a solution was found",
}


class _Positions(list):
    """Index arrays of what changed; what repeats is merged from time to time."""

    def __init__(self):
        self._room = 1024

    def append(self, positions):
        self._room -= 1 + len(positions)
        super().append(positions)
        if self._room < 0:
            self[:] = [np.unique(np.concatenate(self))]
            self._room = 1024 + len(self[0])


class Session:
    """The engine of one model, kept in step with it, and the outcome of the last solve."""

    def __init__(self, wanted):
        self.options = Options(wanted)
        self._wanted = wanted
        self._engine: Any = None
        self._changes = {}  # attribute: index arrays of what the engine doesn't know yet
        self._solution = Solution(TVO.Status.LOADED)

    # Engine

    def load(self, model):
        """Bring the engine into step with the model."""
        self._in_step(model, final=False)
        self._solution.status = TVO.Status.LOADED

    def solve(self, model):
        """Load, solve, and keep what comes out."""
        from ._decided import answer, nothing_to_decide

        if nothing_to_decide(model):
            self._solution = answer(model)
            return
        engine = self._in_step(model)
        self._solution = Solution(TVO.Status.FAILED)
        started = perf_counter()
        try:
            self._solution = engine.solve(model, self.options)
        except BaseException:
            self._drop_engine()
            raise
        if self._solution.status == TVO.Status.FAILED:
            self._ask_another_engine(model)
        self._solution.seconds = perf_counter() - started

    def _ask_another_engine(self, model):
        from .engines import second_choice

        other_class = second_choice(self._wanted, type(self._engine))
        if other_class is not None:
            other = other_class()
            try:
                other.load(model, {})
                self._solution = other.solve(model, self.options)
            finally:
                other.close()

    def write(self, model, path):
        """Write the model to a file."""
        self._in_step(model).write(model, str(path))

    def set_option(self, name, value):
        """Check an option and keep it for the solves to come."""
        self.options.set(name, value)

    def close(self):
        """Release the engine."""
        self._drop_engine()

    def _in_step(self, model, final=True):
        """The engine, which has the model; `final` tells that it is going to be used."""
        from .engines import choose

        engine_class = choose(self._wanted, model, final)
        if type(self._engine) is not engine_class:
            self._drop_engine()
            self._engine = engine_class()
        changes, self._changes = self._changes, {}
        try:
            self._engine.load(model, changes)
        except BaseException:
            self._drop_engine()
            raise
        return self._engine

    def _drop_engine(self):
        engine, self._engine = self._engine, None
        self._changes = {}
        if engine is not None:
            engine.close()

    def note_change(self, attrname, positions):
        """Remember that an attribute changed at these indices."""
        if self._engine is not None and len(positions):
            self._changes.setdefault(attrname, _Positions()).append(positions)

    def remove(self, model, kind, kept):
        """Elements leave: `kept` are the old indices that stay. Called before the tables change."""
        self._solution.keep(kind, kept)
        if self._engine is None:
            return
        changes, self._changes = self._changes, {}
        try:
            self._engine.push(model, changes)
            self._engine.remove(kind, kept)
        except Exception:
            # The elements are gone all the same. What the engine refused, it will refuse again
            # when the next load hands it the whole model.
            self._drop_engine()

    # Attributes

    def read(self, model, kind, attrname, positions):
        """Values of an attribute at some indices: an array, or a list of str."""
        datatype, _, _ = _ATTRIBUTES[attrname]
        table = model._tables[kind]
        if datatype == STRING:
            return table.names_of(positions)
        if attrname in _STORED:
            if attrname in _DEFAULTS and not table.has(attrname):
                return np.full(len(positions), _DEFAULTS[attrname])
            values = table[attrname][positions]
            return (
                _DECODED[attrname][values]
                if datatype == CHAR
                else values.tolist()
                if len(positions) == 1
                else values
            )
        return self._read_solution(attrname, positions)

    def _read_solution(self, attrname, positions):
        values = self._solution.values.get(attrname)
        if values is None:
            raise TaviroError(
                TVO.Error.NO_SOLUTION,
                f"There is no '{attrname}': {self._solution.why_missing(attrname)}",
            )
        if len(positions) and positions.max() >= len(values):
            where = int(np.argmax(positions >= len(values)))
            raise TaviroError(
                TVO.Error.NO_SOLUTION,
                f"There is no '{attrname}' for the element at position {where}: it was added "
                f"after the last solve; call optimize() again",
            )
        return values[positions]

    def write_attribute(self, model, kind, attrname, positions, values):
        """Set an attribute at some indices; `values` are converted and checked."""
        table = model._tables[kind]
        if _ATTRIBUTES[attrname][0] == STRING:
            table.rename(positions, values)
            return
        table.need(attrname)[positions] = values
        if attrname == "Sense" and table.has("Low"):
            table["Low"][positions] = -np.inf
        self.note_change(attrname, positions)

    def result(self, attrname):
        """An attribute of the model that a solve determines."""
        solution = self._solution
        if attrname == "Status":
            return solution.status
        if attrname == "SolveTime":
            return solution.seconds
        value = solution.objective if attrname == "Objective" else solution.bound
        if value is None:
            raise TaviroError(
                TVO.Error.NO_SOLUTION,
                f"There is no '{attrname}': {solution.why_missing(attrname)}",
            )
        return value
