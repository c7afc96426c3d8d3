"""What a reader finds in a file, and how it becomes a model's data."""

from __future__ import annotations

from typing import Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

from ..data.attributes import BINARY, EQUAL, GREATER, LESS, WHOLE
from ..data.model_data import ModelData
from ..data.quadratic import QuadraticTerms, packed
from ..data.rows import Rows
from ..data.values import Codes, Floats, Ids
from .names import Table
from .sheet import INFINITE


class Columns(NamedTuple):
    """The columns; types are codes of data.attributes."""

    names: list[str]
    costs: Floats
    lower: Floats
    upper: Floats
    types: Codes


class Lines(NamedTuple):
    """All rows of the file ``lower <= row <= upper``, in its order, linear ones and others."""

    names: list[str]
    rows: Rows
    lower: Floats
    upper: Floats

    def take(self, which: NDArray[Any]) -> Lines:
        """The rows with the numbers `which`."""
        names = [self.names[k] for k in which.tolist()]
        return Lines(names, self.rows.take(which), self.lower[which], self.upper[which])

    def one_sided(self) -> tuple[NDArray[np.intp], Floats, Codes]:
        """Numbers of rows, right-hand sides and senses; a row with two sides comes twice."""
        both = np.flatnonzero(_is_range(self.lower, self.upper))
        number = np.concatenate([np.arange(len(self.lower)), both])
        lower, upper = self.lower.copy(), self.upper
        lower[both] = -np.inf
        lower = np.concatenate([lower, self.lower[both]])
        upper = np.concatenate([upper, np.full(len(both), np.inf)])
        order = np.argsort(number, kind="stable")
        return number[order], *_right_sides(lower[order], upper[order])


class Terms(NamedTuple):
    """Quadratic terms ``data * x[first] * x[second]`` of rows; a row of -1 is the objective."""

    rows: Ids
    first: Ids
    second: Ids
    data: Floats

    @classmethod
    def of(cls, found: list[tuple[int, int, int, float]]) -> Terms:
        """Terms given one by one; those of 0 are left out."""
        found = [term for term in found if term[3]]
        rows, first, second, values = zip(*found, strict=True) if found else ((), (), (), ())
        return cls(
            np.array(rows, np.int32),
            np.array(first, np.int32),
            np.array(second, np.int32),
            np.array(values, np.float64),
        )

    def take(self, which: NDArray[Any]) -> Terms:
        """The terms with the numbers `which`, or those for which it is true."""
        return Terms(self.rows[which], self.first[which], self.second[which], self.data[which])


class Contents(NamedTuple):
    """A model as the file has it."""

    name: str
    sense: int
    offset: float
    columns: Columns
    lines: Lines
    terms: Terms
    quadratic: set[int]  # the numbers of the quadratic rows
    indicators: dict[int, tuple[int, int]]  # by number of row: the column, and its value 0 or 1
    table: Table

    def enter(self, data: ModelData) -> None:
        """Put everything into the data of a new model."""
        names, costs, lower, upper, types = self.columns
        for column, _ in self.indicators.values():
            if types[column] == WHOLE and lower[column] >= 0 and upper[column] <= 1:
                types[column] = BINARY
        values = {"LB": lower, "UB": upper, "Obj": costs, "VType": types}
        names = self.table.originals("column", names)
        data.variables.make(data, (len(names),), names, values)
        of_objective = self.terms.rows < 0
        quadratic = None
        if of_objective.any():
            _, first, second, products = self.terms.take(of_objective)
            quadratic = QuadraticTerms.summed([(first, second, products)], len(names))
        data.objective.replace(self.sense, self.offset, quadratic)
        is_linear = np.ones(len(self.lines.names), bool)
        is_linear[[*self.quadratic, *self.indicators]] = False
        lines = self.lines._replace(names=self.table.originals("row", self.lines.names))
        self._enter_linear(data, lines, is_linear)
        if self.quadratic:
            self._enter_quadratic(data, lines)
        if self.indicators:
            self._enter_indicators(data, lines)

    def _enter_linear(self, data: ModelData, lines: Lines, is_linear: NDArray[np.bool]) -> None:
        if self.table.lower:
            _join_lower_sides(self.lines, self.table.lower, is_linear)
        if not is_linear.all():
            lines = lines.take(np.flatnonzero(is_linear))
        lower, upper = lines.lower, lines.upper
        rhs, sense = _right_sides(lower, upper)
        data.make_linear((len(rhs),), lines.names, lines.rows, rhs, sense)
        ranged = _is_range(lower, upper)
        if ranged.any():
            data.linear.need("Low")[ranged] = lower[ranged]

    def _enter_quadratic(self, data: ModelData, lines: Lines) -> None:
        at = np.array(sorted(self.quadratic))
        lines = lines.take(at)
        order = np.argsort(self.terms.rows, kind="stable")
        rows, first, second, values = self.terms.take(order)
        starts = np.searchsorted(rows, np.arange(len(self.lines.names) + 1))
        ids = packed(np.minimum(first, second), np.maximum(first, second))
        pairs = Rows(starts, ids, values, finite=True).take(at)
        number, rhs, sense = lines.one_sided()
        twice = lines.take(number)
        data.make_quadratic((len(rhs),), twice.names, twice.rows, pairs.take(number), rhs, sense)

    def _enter_indicators(self, data: ModelData, lines: Lines) -> None:
        at = np.array(sorted(self.indicators))
        columns, values = np.array([self.indicators[k] for k in at.tolist()], np.int32).T
        lines = lines.take(at)
        number, rhs, sense = lines.one_sided()
        twice = lines.take(number)
        data.make_indicator(
            (len(rhs),), twice.names, columns[number], values[number], twice.rows, rhs, sense
        )


def _is_range(lower: Floats, upper: Floats) -> NDArray[np.bool]:
    is_range: NDArray[np.bool] = (lower > -np.inf) & (upper < np.inf) & (lower != upper)
    return is_range


def _right_sides(lower: Floats, upper: Floats) -> tuple[Floats, Codes]:
    """Right-hand sides and senses of rows; of those with two sides the upper one."""
    sense = np.full(len(lower), LESS, np.uint8)
    sense[(upper == np.inf) & (lower > -np.inf)] = GREATER
    sense[lower == upper] = EQUAL
    return np.where(sense == GREATER, lower, upper), sense


def _join_lower_sides(lines: Lines, lower_of: dict[str, str], is_linear: NDArray[np.bool]) -> None:
    """Give rows their lower sides back, which stand in rows of their own: those go.

    Rows that differ by now, after the file was edited, stay two.
    """
    numbers = {name: k for k, name in enumerate(lines.names)}
    pairs = [(numbers.get(low, -1), numbers.get(name, -1)) for low, name in lower_of.items()]
    low, row = np.array(pairs).T
    fits = (low >= 0) & (row >= 0) & (low != row)
    fits[fits] &= is_linear[low[fits]] & is_linear[row[fits]]
    fits[fits] &= (lines.upper[low[fits]] == np.inf) & (lines.lower[row[fits]] == -np.inf)
    low, row = low[fits], row[fits]
    lengths = np.diff(lines.rows.indptr)
    fits = lengths[low] == lengths[row]
    low, row = low[fits], row[fits]
    a, b = lines.rows.take(low), lines.rows.take(row)
    differs = (a.ids != b.ids) | (a.data != b.data)
    fits = a.sums(differs.astype(np.float64)) == 0
    lines.lower[row[fits]] = lines.lower[low[fits]]
    is_linear[low[fits]] = False


def infinite(values: Floats) -> Floats:
    """Bounds and sides, those beyond what files take for infinite made so."""
    far = np.abs(values) >= INFINITE
    return np.where(far, np.copysign(np.inf, values), values) if far.any() else values


def rows_of(
    count: int, columns: int, row: NDArray[Any], column: NDArray[Any], data: Floats
) -> Rows:
    """Rows of single entries; equal ones are added up, zeros left out."""
    import scipy.sparse as sp

    entries = (data, (row.astype(np.int32), column.astype(np.int32)))
    matrix = sp.coo_matrix(entries, shape=(count, columns)).tocsr()
    matrix.eliminate_zeros()
    matrix.sort_indices()
    return Rows(matrix.indptr, matrix.indices, matrix.data, finite=True, rising=True)
