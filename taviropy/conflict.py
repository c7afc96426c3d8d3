"""Why a model is infeasible: constraints and bounds that can't hold together, none of them idle.

The search halves what is left again and again and asks an engine each time, so that a conflict of k
members among n takes some 2 k log2(n / k) solves: U. Junker, QuickXplain: Preferred explanations
and relaxations for over-constrained problems, AAAI 2004.
"""

from __future__ import annotations

import os
from dataclasses import dataclass
from itertools import groupby
from time import monotonic
from typing import Any

import numpy as np

from ._exception import TaviroError
from ._tvo import TVO
from .data.attributes import GENERAL, LINEAR, QUADRATIC, VARIABLE
from .data.locks import SOLVING
from .data.model_data import ModelData
from .data.part import Part
from .data.view import View
from .engines import choose, engine_class, own_errors
from .engines.decided import decided
from .engines.protocol import Engine, Run
from .engines.running import Log, Stop
from .options import Options
from .showing.rowtext import row_texts

_LOWER, _UPPER = -1, -2  # the kinds of members that are bounds
_ORDER = (_LOWER, _UPPER, GENERAL, QUADRATIC, LINEAR)  # what is kept last comes first
_LARGEST_WHOLE = 2.0**53
_ROUNDING = 1e-6  # what an equation may be missed by, relative to its side where that is above one
_INFEASIBLE = {TVO.Status.INFEASIBLE, TVO.Status.INFEASIBLE_OR_UNBOUNDED}
_FEASIBLE = {TVO.Status.OPTIMAL, TVO.Status.UNBOUNDED}
Member = tuple[int, int]  # kind and number


@dataclass(frozen=True)
class Conflict:
    """What `Model.conflict` found: members that can't hold together.

    ``constrs`` are the constraints, handles of any kind; ``bounds`` pairs of a Var and "LB" or
    "UB". ``is_minimal`` tells that without any one of them the rest can hold; it is false where a
    time limit, Ctrl-C or an engine's failure left that open.
    """

    constrs: list[Any]
    bounds: list[tuple[Any, str]]
    is_minimal: bool
    _lines: list[str]
    _part: Part

    def __len__(self) -> int:
        return len(self.constrs) + len(self.bounds)

    def __str__(self) -> str:
        verdict = "can't hold together"
        if self.is_minimal:
            verdict += ", and without any one of them the rest can"
        return "\n".join([f"These {len(self)} {verdict}:", *(f"  {line}" for line in self._lines)])

    def write(self, path: str | os.PathLike[str]) -> None:
        """Write the conflict as a model of its own, as `Model.write` does; before the model itself
        changes."""
        from .files import write_model

        write_model(self._part, path)


def find_conflict(data: ModelData, wanted: str, options: Options) -> Conflict:
    """The conflict of a model; TaviroError where it has none, or where none can be told."""
    data.update()
    data.lock = SOLVING
    stop = Stop()
    try:
        with Log(options["log"], options["logFile"]) as log, stop.on_interrupt():
            search = _Search(data, wanted, options, log, stop)
            try:
                return search.result()
            finally:
                search.close()
    finally:
        data.lock = ""


class _Search:
    """The members of a model, and an engine that tells which of them can hold together."""

    def __init__(
        self, data: ModelData, wanted: str, options: Options, log: Log, stop: Stop
    ) -> None:
        self._data, self._wanted, self._options = data, wanted, options
        self._log, self._stop = log, stop
        self._deadline = monotonic() + options["timeLimit"]
        self._engines: dict[str, Engine] = {}
        self._is_open = False  # whether an answer was missing
        self._solves = 0

    def close(self) -> None:
        """Release the engines."""
        for engine in self._engines.values():
            engine.close()

    def result(self) -> Conflict:
        """The conflict."""
        members = self._members()
        if not self._is_infeasible(members):
            raise TaviroError(
                TVO.Error.NO_SOLUTION,
                "Whether the model is infeasible could not be found out: give it more time"
                if self._is_open
                else "There is no conflict: the model's constraints and bounds can hold together",
            )
        # Few bounds take part as a rule: without them all, one solve may leave the rows alone.
        found = members
        for kinds in ((LINEAR, QUADRATIC, GENERAL), (_LOWER, _UPPER)):
            some = [member for member in members if member[0] in kinds]
            if len(some) < len(members) and self._is_infeasible(some):
                found = some
                break
        found = self._explain([], False, found)
        part = self._part(found)
        data, log = self._data, self._log
        log.line(f"A conflict of {len(found)} members after {self._solves} solves.")
        constrs, bounds = [], []
        found.sort(key=_place_in_text)
        for kind, number in found:
            if kind < 0:
                variable = _handle(data, VARIABLE, number)
                bounds.append((variable, "LB" if kind == _LOWER else "UB"))
            else:
                constrs.append(_handle(data, kind, number))
        lines = _lines(View(data), found)
        return Conflict(constrs, bounds, not self._is_open, lines, part)

    def _members(self) -> list[Member]:
        """All that may take part, what is the least interesting to be told of first."""
        given, least = View(self._data).columns(), self._part([]).columns()
        found: dict[int, Any] = {
            _LOWER: np.flatnonzero(given.lower > least.lower),
            _UPPER: np.flatnonzero(given.upper < least.upper),
        }
        for kind in (LINEAR, QUADRATIC, GENERAL):
            found[kind] = range(self._data.elements_of(kind).placed)
        return [(kind, int(number)) for kind in _ORDER for number in found[kind]]

    def _explain(
        self, background: list[Member], is_new: bool, members: list[Member]
    ) -> list[Member]:
        """The members that are needed beside the background, which with all of them is infeasible.

        `is_new` tells that the background grew since it was last known to be feasible.
        """
        if is_new and self._is_infeasible(background):
            return []
        if len(members) <= 1:
            return members
        middle = len(members) // 2
        first, second = members[:middle], members[middle:]
        from_first = self._explain(background + second, bool(second), first)
        from_second = self._explain(background + from_first, bool(from_first), second)
        return from_first + from_second

    def _part(self, members: list[Member]) -> Part:
        numbers = {
            kind: np.array([n for _, n in group], np.intp)
            for kind, group in groupby(sorted(members), key=lambda member: member[0])
        }
        empty = np.empty(0, np.intp)
        masks = []
        for kind in (_LOWER, _UPPER):
            mask = np.zeros(self._data.variables.placed, bool)
            mask[numbers.get(kind, empty)] = True
            masks.append(mask)
        kept = {kind: numbers.get(kind, empty) for kind in (LINEAR, QUADRATIC, GENERAL)}
        return Part(self._data, kept, *masks)

    def _is_infeasible(self, members: list[Member]) -> bool:
        """Whether these are known not to hold together."""
        left = self._deadline - monotonic()
        if self._stop or left <= 0:
            self._is_open = True
            return False
        self._solves += 1
        part = self._part(members)
        if _has_odd_row(part):
            return True
        answer = decided(part)
        if answer is None:
            name = choose(self._wanted, part)
            engine = self._engines.get(name)
            if engine is None:
                engine = self._engines[name] = engine_class(name)()
            with own_errors(name):
                engine.load(part, None)
            options = self._options
            own = options.of_engine(name)
            quiet = Log(False, None)
            run = Run(quiet, self._stop, left, None, options["threads"], options["seed"], own)
            with own_errors(name):
                answer = engine.solve(part, run)
        if answer.status in _INFEASIBLE:
            return True
        if answer.status not in _FEASIBLE and answer.x is None:
            self._is_open = True
        return False


def _has_odd_row(view: View) -> bool:
    """Whether there is an equation of integers alone whose coefficients have a common divisor that
    its right-hand side has not. Without bounds no search would come to an end there."""
    if not view.has_integers or not view.row_count:
        return False
    rows, is_integer = view.rows, view.columns().is_integer
    lower, upper = view.sides()
    is_foreign = ~is_integer[rows.ids] | (rows.data % 1.0 != 0.0)
    fits = (rows.sums(is_foreign.astype(np.float64)) == 0.0) & (lower == upper)
    fits &= (abs(lower) + rows.sums(abs(rows.data)) < _LARGEST_WHOLE) & (np.diff(rows.indptr) > 0)
    at = np.flatnonzero(fits)
    if not len(at):
        return False
    some, sides = rows.take(at), lower[at]
    divisors = np.gcd.reduceat(some.data.astype(np.int64), some.indptr[:-1])
    rest = sides % np.maximum(divisors, 1)
    slack = _ROUNDING * np.maximum(1.0, abs(sides))
    return bool(((rest > slack) & (divisors - rest > slack)).any())


def _handle(data: ModelData, kind: int, number: int) -> Any:
    return data.elements(kind, data.elements_of(kind).ids()[[number]])[0]


def _place_in_text(member: Member) -> tuple[int, int]:
    """Constraints come first, and the two bounds of a variable together."""
    kind, number = member
    return (-1, number) if kind < 0 else (_ORDER[::-1].index(kind) - len(_ORDER), number)


def _lines(view: View, members: list[Member]) -> list[str]:
    """A line on each member."""
    columns = view.columns()
    names = {LINEAR: view.row_name, QUADRATIC: view.quadratic_name, GENERAL: view.general_name}
    lines = []
    for kind, k in members:
        if kind == _LOWER:
            lines.append(f"{view.column_name(k)} >= {columns.lower[k]:.15g} (its LB)")
        elif kind == _UPPER:
            lines.append(f"{view.column_name(k)} <= {columns.upper[k]:.15g} (its UB)")
        else:
            [text] = row_texts(view, kind, [k])
            lines.append(f"{names[kind](k)}: {text}")
    return lines
