"""A model at a glance: its sizes, the ranges of its data, and what may give trouble."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

from .._exception import TaviroError
from .._tvo import TVO
from ..data.attributes import CHARACTERS, GENERAL, KIND_NAMES, QUADRATIC
from ..data.locks import CLOSED
from ..data.model_data import ModelData
from ..data.rows import Rows
from ..data.values import Floats
from ..data.view import View

# Beyond these an answer's digits are at risk: engines work with tolerances of some 1e-7, and leave
# out coefficients below 1e-9.
_SPAN = 1e9  # largest by smallest coefficient
_LARGE = 1e8  # a bound or side that is hardly meant
_NAMED = 3  # elements that a warning names


class Range(NamedTuple):
    """The smallest and the largest absolute value, and the places of both; zeros and infinite
    values are left out."""

    low: float
    high: float
    low_at: str
    high_at: str

    def __str__(self) -> str:
        return f"{self.low:.3g}" + (f" to {self.high:.3g}" if self.high != self.low else "")


@dataclass(frozen=True)
class Summary:
    """What `Model.summary` found.

    ``counts`` has the numbers of variables and constraints of each kind, without those that are
    zero; ``ranges`` a Range for each of "coefficients", "costs", "bounds" and "right-hand sides"
    that has values; ``warnings`` are texts that name elements. ``engine`` is who answered, or who
    would be asked. Printed, it is a table; in a notebook too.
    """

    name: str
    sense: str
    engine: str
    status: str
    counts: dict[str, int]
    nonzeros: int
    ranges: dict[str, Range]
    warnings: tuple[str, ...]

    def lines(self) -> list[tuple[str, str]]:
        """The lines of the table: what, and how much of it."""
        counts = [(noun, f"{count:,}") for noun, count in self.counts.items()]
        size = [("nonzeros", f"{self.nonzeros:,}")] if self.nonzeros else []
        ranges = [(noun, str(found)) for noun, found in self.ranges.items()]
        return [*counts, *size, *ranges, ("engine", self.engine), ("status", self.status)]

    @property
    def title(self) -> str:
        """The first line."""
        return f"Model '{self.name}', to be {self.sense}" if self.name else f"To be {self.sense}"

    def __str__(self) -> str:
        return "\n".join(
            [
                self.title,
                *(f"  {noun:<23}{text}" for noun, text in self.lines()),
                *(f"  ! {warning}" for warning in self.warnings),
            ]
        )

    __repr__ = __str__

    def _repr_html_(self) -> str:
        from .html import table

        warnings = [f"! {warning}" for warning in self.warnings]
        return table(self.title, [], [list(line) for line in self.lines()], warnings)


def summary_of(data: ModelData) -> Summary:
    """The summary of a model as of its last update."""
    view = View(data)
    finder = _Finder(data, view)
    engine, status = _engine_and_status(data, view, finder.warnings)
    return Summary(
        data.name,
        "minimized" if view.sense == TVO.MINIMIZE else "maximized",
        engine,
        status,
        _counts(data),
        view.rows.nnz,
        finder.ranges(),
        tuple(finder.warnings),
    )


def _counts(data: ModelData) -> dict[str, int]:
    types = np.bincount(data.variables.placed_part("VType"), minlength=3)
    kinds = data.general.placed_part("GenKind")
    counts = {"variables": data.variables.placed}
    for code, noun in enumerate(("continuous", "binary", "integer")):
        counts[f"  {noun}"] = int(types[code])
    counts["linear constraints"] = data.linear.placed
    senses = np.bincount(data.linear.placed_part("Sense"), minlength=3)
    for code, sense in enumerate(CHARACTERS["Sense"]):
        counts[f"  of sense '{sense}'"] = int(senses[code])
    counts["quadratic constraints"] = data.quadratic.placed
    counts["nonlinear constraints"] = int((kinds == TVO.GenKind.NONLINEAR).sum())
    counts["indicators"] = int((kinds == TVO.GenKind.INDICATOR).sum())
    return {noun: count for noun, count in counts.items() if count or noun == "variables"}


def _engine_and_status(data: ModelData, view: View, warnings: list[str]) -> tuple[str, str]:
    from ..engines import choose

    solution, wanted = data.solution, data.session.wanted
    status = str(solution.status) if solution.status != TVO.Status.LOADED else "not solved"
    if "X" in solution.values:
        status += f", objective {solution.objective:.10g}"
    if solution.engine:
        return solution.engine, f"{status}, {solution.seconds:.2g} seconds"
    try:
        name = choose(wanted, view, final=False)
    except TaviroError as error:
        warnings.append(error.message)
        return wanted, status
    return f"{name} (by 'auto')" if wanted == "auto" else name, status


class _Finder:
    """The ranges of a model's data, and warnings on the way."""

    def __init__(self, data: ModelData, view: View) -> None:
        self._data, self._view = data, view
        self.warnings: list[str] = []
        counts = {kind: data.numbering(kind) for kind in KIND_NAMES}
        waiting = sum(each.size() - each.count() for each in counts.values())
        removed = sum(len(each.discarded_ids()) for each in counts.values())
        if waiting or removed:
            self.warnings.append(
                f"{waiting} added and {removed} removed elements wait for an update and don't "
                f"show here: call m.update() first"
            )

    def ranges(self) -> dict[str, Range]:
        """The ranges of all data that have one."""
        view, rows = self._view, self._view.rows
        found = {
            "coefficients": self._range(rows.data, self._coefficient_name),
            "costs": self._range(view.costs(slice(None)), view.column_name),
            "bounds": self._bounds(),
            "right-hand sides": self._range(view.rhs, view.row_name),
        }
        ranges = {noun: each for noun, each in found.items() if each is not None}
        for noun in ("coefficients", "costs"):
            if noun in ranges and ranges[noun].high > _SPAN * ranges[noun].low:
                low, high, low_at, high_at = ranges[noun]
                self.warnings.append(
                    f"{noun} go from {low:.3g} (at {low_at}) to {high:.3g} (at {high_at}): choose "
                    f"units in which they are closer together"
                )
        for noun in ("bounds", "right-hand sides"):
            if noun in ranges and ranges[noun].high >= _LARGE:
                self.warnings.append(
                    f"{noun} go up to {ranges[noun].high:.3g} (at {ranges[noun].high_at}): where "
                    f"no limit is meant use float('inf'), otherwise larger units"
                )
        self._look_for_empty(rows)
        return ranges

    def _range(self, values: Floats, name: Any) -> Range | None:
        sizes = np.abs(values)
        counted = np.flatnonzero((sizes > 0.0) & (sizes < np.inf))
        if not len(counted):
            return None
        sizes = sizes[counted]
        low, high = int(sizes.argmin()), int(sizes.argmax())
        places = (name(int(counted[low])), name(int(counted[high])))
        return Range(float(sizes[low]), float(sizes[high]), *places)

    def _bounds(self) -> Range | None:
        variables = self._data.variables
        lower, upper = variables.placed_part("LB"), variables.placed_part("UB")
        self._warn_of(lower > upper, "variables have bounds that cross", "no value fits them")
        both = np.concatenate([lower, upper])
        return self._range(both, lambda k: self._view.column_name(k % len(lower)))

    def _coefficient_name(self, k: int) -> str:
        rows = self._view.rows
        row = int(np.searchsorted(rows.indptr, k, side="right")) - 1
        return f"{self._view.row_name(row)}, {self._view.column_name(int(rows.ids[k]))}"

    def _look_for_empty(self, rows: Rows) -> None:
        counts = rows.data != 0.0
        empty = rows.sums(counts.astype(np.float64)) == 0.0
        names = self._view.row_name
        self._warn_of(empty, "linear constraints hold no variable", "the data may be empty", names)
        data, costs = self._data, self._view.costs(slice(None))
        if data.elements_of(QUADRATIC).placed or data.elements_of(GENERAL).placed:
            return
        idle = np.ones(data.variables.placed, bool)
        idle[rows.ids[counts]] = False
        if self._view.quadratic_objective is None:
            text = "variables stand in no constraint and have no cost"
            self._warn_of(idle & (costs == 0.0), text, "any value within their bounds will do")

    def _warn_of(self, which: NDArray[np.bool], what: str, so: str, name: Any = None) -> None:
        places = np.flatnonzero(which)
        if not len(places):
            return
        names = [(name or self._view.column_name)(int(k)) for k in places[:_NAMED]]
        more = ", ..." if len(places) > _NAMED else ""
        self.warnings.append(f"{len(places)} {what} ({', '.join(names)}{more}): {so}")


def short_text(data: ModelData) -> str:
    """The model in a line: the counts that aren't zero, what waits, and the last answer."""
    if data.lock is CLOSED:
        return "<taviropy.Model (closed)>"
    counts = ((data.numbering(kind).count(), noun) for kind, noun in KIND_NAMES.items())
    parts = [f"{count} {noun}{'s' * (count != 1)}" for count, noun in counts if count]
    waiting = sum(n.size() - n.count() for n in map(data.numbering, KIND_NAMES))
    if waiting:
        parts.append(f"{waiting} awaiting update")
    if data.solution.status != TVO.Status.LOADED:
        parts.append(str(data.solution.status))
    return f"<taviropy.Model {data.name!r}: {', '.join(parts) or 'empty'}>"
