"""A read-only picture of a model in finished arrays, which is all that an engine is given.

Everything goes by numbers of columns and rows; removed elements are left out. Parts are made when
they are first asked for. A view shows the model as it is after an update, and is of no use once
the model changes.
"""

from __future__ import annotations

from functools import cached_property
from typing import Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

from .._exception import TaviroError
from .._tvo import TVO
from .attributes import BINARY, CONTINUOUS, GREATER, LESS, SEMI
from .elements import Elements
from .model_data import ModelData
from .quadratic import QuadraticTerms, first_ids, packed, second_ids
from .rows import Columns, Rows
from .trees import Trees
from .values import Floats, Ids, cut_binaries, invalid

_ROUNDING = 1e-6  # what an integer's bound may be beyond a whole number and still count as it
_ALL = slice(None)


class SemiColumns(NamedTuple):
    """Columns, by their numbers among some, whose values are zero or between bounds of their own,
    which zero isn't."""

    at: NDArray[np.intp]
    lower: Floats
    upper: Floats


class ColumnData(NamedTuple):
    """Data of columns: bounds are those that hold, for binary and integer columns too.

    Those of semi-continuous and semi-integer columns reach to zero, and ``semi`` says what is
    missing in between; None for nothing.
    """

    costs: Floats
    lower: Floats
    upper: Floats
    is_integer: NDArray[np.bool]
    semi: SemiColumns | None = None

    def own_bounds(self) -> tuple[Floats, Floats]:
        """The bounds, those of semi-continuous and semi-integer columns without the zero."""
        if self.semi is None:
            return self.lower, self.upper
        lower, upper = self.lower.copy(), self.upper.copy()
        lower[self.semi.at], upper[self.semi.at] = self.semi.lower, self.semi.upper
        return lower, upper


class QuadraticRows(NamedTuple):
    """Rows ``lower <= row + pairs <= upper``; `pairs` are packed rows (see `quadratic`)."""

    rows: Rows
    pairs: Rows
    lower: Floats
    upper: Floats

    def terms(self, k: int) -> QuadraticTerms:
        """The quadratic terms of row k, each pair once."""
        part = self.pairs.take(np.array([k]))
        return QuadraticTerms(first_ids(part), second_ids(part), part.data)

    def values(self, x: Floats) -> Floats:
        """The values of the rows at a point."""
        entries = self.pairs.data * x[first_ids(self.pairs)] * x[second_ids(self.pairs)]
        return self.rows.products(x) + self.pairs.sums(entries)


class NonlinearRows(NamedTuple):
    """Rows ``lower <= tree - x[column] <= upper``; a column of -1 is none.

    `places` are the numbers of the rows among all general constraints.
    """

    places: Ids
    trees: Trees
    columns: Ids
    lower: Floats
    upper: Floats

    def values(self, x: Floats) -> Floats:
        """The values of the rows at a point."""
        return self.trees.values(x) - np.where(self.columns < 0, 0.0, x[self.columns])


class Indicators(NamedTuple):
    """Rows ``lower <= row <= upper`` that hold where the column has the value (0 or 1)."""

    places: Ids
    columns: Ids
    values: NDArray[Any]
    rows: Rows
    lower: Floats
    upper: Floats


class View:
    """The picture of a model."""

    def __init__(self, data: ModelData) -> None:
        self._data = data
        self.name = data.name
        self.sense = data.objective.sense
        self.offset = data.objective.offset
        self.column_count = data.variables.placed
        self.row_count = data.linear.placed

    def __reduce__(self) -> tuple[Any, ...]:
        """A view travels with the model's data, without the engine and the public Model."""
        from .travel import packed

        return _view_of, (packed(self._data),)

    # Columns

    def columns(self, at: Any = _ALL) -> ColumnData:
        """Data of all columns, or of those at a slice or index array."""
        variables = self._data.variables
        types = variables.placed_part("VType")[at]
        lower, upper = variables.placed_part("LB")[at], variables.placed_part("UB")[at]
        is_integer, semi = types != CONTINUOUS, None
        if is_integer.any():
            is_integer &= types != SEMI
            lower, upper = cut_binaries(lower, upper, types)
            may_be_zero = (types >= SEMI) & (lower <= upper)
            lower = np.where(is_integer, np.ceil(lower - _ROUNDING), lower)
            upper = np.where(is_integer, np.floor(upper + _ROUNDING), upper)
            only_zero = may_be_zero & (lower > upper)  # no whole number lies in between
            lower[only_zero] = upper[only_zero] = 0.0
            semi = _semi_columns(types, lower, upper)
        _refuse_infinite(variables, at, lower, upper, "variable")
        if semi is not None:
            lower[semi.at] = np.minimum(semi.lower, 0.0)
            upper[semi.at] = np.maximum(semi.upper, 0.0)
        return ColumnData(variables.placed_part("Obj")[at], lower, upper, is_integer, semi)

    @property
    def has_crossed_bounds(self) -> bool:
        """Whether the bounds of a column cross; what is infinite on the wrong side is refused."""
        if self.has_integers:
            columns = self.columns()
            return bool((columns.lower > columns.upper).any())
        variables = self._data.variables
        lower, upper = variables.placed_part("LB"), variables.placed_part("UB")
        _refuse_infinite(variables, _ALL, lower, upper, "variable")
        return bool((lower > upper).any())

    @property
    def has_crossed_sides(self) -> bool:
        """The same of the sides of the linear rows."""
        linear = self._data.linear
        if not linear.has("Low") and np.isfinite(linear.placed_part("RHS")).all():
            return False  # a row has one side, or twice the same
        lower, upper = self.sides()
        return bool((lower > upper).any())

    def costs(self, at: Any) -> Floats:
        """The costs of the columns at a slice or index array."""
        costs: Floats = self._data.variables.placed_part("Obj")[at]
        return costs

    @cached_property
    def has_integers(self) -> bool:
        """Whether a column is binary, integer, or may not take values between zero and others."""
        types = self._data.variables.placed_part("VType")
        if not types.any():  # CONTINUOUS is 0
            return False
        columns = self.columns()
        return bool(columns.is_integer.any()) or columns.semi is not None

    @property
    def is_binary(self) -> NDArray[np.bool]:
        """Which columns are binary."""
        is_binary: NDArray[np.bool] = self._data.variables.placed_part("VType") == BINARY
        return is_binary

    @property
    def is_semi(self) -> NDArray[np.bool]:
        """Which columns are semi-continuous or semi-integer by their type."""
        is_semi: NDArray[np.bool] = self._data.variables.placed_part("VType") >= SEMI
        return is_semi

    def first_integer(self) -> str:
        """What the first column that isn't continuous is, as part of a sentence."""
        columns = self.columns()
        is_discrete = columns.is_integer.copy()
        if columns.semi is not None:
            is_discrete[columns.semi.at] = True
        first = int(np.argmax(is_discrete))
        kind = "integer" if columns.is_integer[first] else "semi-continuous"
        return f"the variable '{self._data.variables.name_of(first)}' is {kind}"

    @property
    def start(self) -> Floats | None:
        """The user's start, NaN where there is none."""
        variables = self._data.variables
        return variables.placed_part("Start") if variables.has("Start") else None

    def column_names(self) -> list[str]:
        """The names of all columns."""
        return self._data.variables.all_names()

    def column_name(self, column: int) -> str:
        """The name of a column."""
        return self._data.variables.name_of(column)

    # Linear rows

    def sides(self, at: Any = _ALL) -> tuple[Floats, Floats]:
        """Lower and upper sides of all rows, or of those at a slice or index array."""
        linear = self._data.linear
        below = linear.placed_part("Low")[at] if linear.has("Low") else None
        lower, upper = _sides(linear.placed_part("RHS")[at], linear.placed_part("Sense")[at], below)
        _refuse_infinite(linear, at, lower, upper, "constraint")
        return lower, upper

    @cached_property
    def rows(self) -> Rows:
        """All rows, each column once a row."""
        return self._data.linear_matrix()

    def rows_from(self, first: int) -> Rows:
        """The rows from number `first` on."""
        return self._data.linear_matrix(first) if first else self.rows

    def rows_by_column(self) -> Columns:
        """All rows by column. The model keeps them that way, so that it has them but once."""
        data = self._data
        rows = self.__dict__.pop("rows", None) or data.linear_matrix()
        columns: Columns = rows.by_column(self.column_count)
        if data.variables.numbering.all_in_place() and data.linear.numbering.all_in_place():
            data.linear_rows.replace(columns)  # type: ignore[arg-type]
        return columns

    @property
    def rhs(self) -> Floats:
        """The right-hand sides as the user gave them, a copy."""
        rhs: Floats = self._data.linear.placed_part("RHS").copy()
        return rhs

    def row_names(self) -> list[str]:
        """The names of all rows."""
        return self._data.linear.all_names()

    def row_name(self, row: int) -> str:
        """The name of a row."""
        return self._data.linear.name_of(row)

    # Quadratic objective

    @cached_property
    def quadratic_objective(self) -> QuadraticTerms | None:
        """The quadratic terms of the objective, an upper triangle by rows; None without one."""
        terms = self._data.objective.quadratic
        if terms is None or self._data.variables.numbering.all_in_place():
            return terms
        ids1, ids2 = map(self._data.column_numbers, (terms.ids1, terms.ids2))
        stays = (ids1 >= 0) & (ids2 >= 0)
        if not stays.any():
            return None
        return QuadraticTerms(ids1[stays], ids2[stays], terms.data[stays])

    @cached_property
    def nonlinear_objective(self) -> Trees | None:
        """Trees that are part of the objective, None without any."""
        trees = self._data.objective.nonlinear
        if trees is None:
            return None
        at = trees.variables()
        numbers = self._data.column_numbers(trees.first[at])
        if (numbers < 0).any():
            raise TaviroError(
                TVO.Error.NOT_IN_MODEL,
                "The nonlinear objective uses a variable that isn't in the model any more: set "
                "another objective",
            )
        return trees.renumbered(at, numbers)

    @property
    def quadratic_version(self) -> object:
        """Something that differs where `quadratic_objective` or `nonlinear_objective` does."""
        data = self._data
        return data.objective.version, data.variables.numbering.next_id(), self.column_count

    def recall(self, what: str, stamp: object) -> Any:
        """What an engine found out about the model when the stamp was the same, else None."""
        known, answer = self._data.memory.get(what, (None, None))
        return answer if known == stamp else None

    def remember(self, what: str, stamp: object, answer: object) -> None:
        """Keep something for `recall`; one thing under each name."""
        self._data.memory[what] = (stamp, answer)

    # Quadratic rows

    @property
    def quadratic_count(self) -> int:
        """How many quadratic constraints there are."""
        return self._data.quadratic.placed

    @property
    def quadratic_stamp(self) -> object:
        """Something that differs where the quadratic constraints do."""
        quadratic, variables = self._data.quadratic, self._data.variables
        counts = [(e.numbering.next_id(), e.placed) for e in (quadratic, variables)]
        data = [quadratic.placed_part(name).tobytes() for name in ("QRHS", "QSense")]
        return (*counts, *data)

    @property
    def quadratic_rhs(self) -> Floats:
        """The right-hand sides of the quadratic constraints, a copy."""
        rhs: Floats = self._data.quadratic.placed_part("QRHS").copy()
        return rhs

    @cached_property
    def quadratic_rows(self) -> QuadraticRows | None:
        """The quadratic constraints, None without any."""
        data, count = self._data, self._data.quadratic.placed
        if not count:
            return None
        rows = data.by_column_number(data.quadratic_rows.select(0, count))
        pairs = data.quadratic_pairs.select(0, count)
        rhs = data.quadratic.placed_part("QRHS")
        lower, upper = _sides(rhs, data.quadratic.placed_part("QSense"))
        _refuse_infinite(data.quadratic, _ALL, lower, upper, "constraint")
        return QuadraticRows(rows, self._summed_pairs(pairs), lower, upper)

    def _summed_pairs(self, pairs: Rows) -> Rows:
        """Packed rows of column numbers, the smaller one of a pair first, each pair once a row."""
        first = self._data.column_numbers(first_ids(pairs))
        second = self._data.column_numbers(second_ids(pairs))
        numbers = packed(np.minimum(first, second), np.maximum(first, second))
        numbers[(first < 0) | (second < 0)] = -1
        pairs = pairs.renumbered(numbers)
        row = pairs.row_numbers()
        order = np.lexsort((pairs.ids, row))
        row, ids = row[order], pairs.ids[order]
        is_new = np.ones(len(ids), bool)
        is_new[1:] = (ids[1:] != ids[:-1]) | (row[1:] != row[:-1])
        starts = np.flatnonzero(is_new)
        sums = np.add.reduceat(pairs.data[order], starts) if len(starts) else np.empty(0)
        indptr = np.searchsorted(row[starts], np.arange(pairs.count + 1))
        return Rows(indptr, ids[starts], sums, finite=True, rising=True)

    def quadratic_name(self, row: int) -> str:
        """The name of a quadratic constraint."""
        return self._data.quadratic.name_of(row)

    # General constraints

    @cached_property
    def nonlinear(self) -> NonlinearRows | None:
        """The nonlinear constraints, None without any."""
        data = self._data
        places = self._general_places(int(TVO.GenKind.NONLINEAR))
        if not len(places):
            return None
        trees = data.trees.select(0, data.general.placed).take(places)
        at = trees.variables()
        numbers = data.column_numbers(trees.first[at])
        self._refuse_removed(places[trees.tree_of(at)], numbers)
        given = data.general.placed_part("variable")[places]
        columns = np.full(len(given), -1, np.int32)
        columns[given >= 0] = data.column_numbers(given[given >= 0])
        self._refuse_removed(places[given >= 0], columns[given >= 0])
        sides = self._general_sides(places)
        return NonlinearRows(places, trees.renumbered(at, numbers), columns, *sides)

    @cached_property
    def indicators(self) -> Indicators | None:
        """The indicator constraints, None without any."""
        data = self._data
        places = self._general_places(int(TVO.GenKind.INDICATOR))
        if not len(places):
            return None
        columns = data.column_numbers(data.general.placed_part("variable")[places])
        self._refuse_removed(places, columns)
        rows = data.indicator_rows.select(0, data.general.placed).take(places)
        if len(rows.ids):
            rows = rows.without_repeats(int(rows.ids.max()) + 1)
        used = rows.data != 0.0  # `v <= v + w` holds without v
        numbers = data.column_numbers(rows.ids[used])
        self._refuse_removed(places[rows.row_numbers()[used]], numbers)
        values = data.general.placed_part("value")[places]
        sides = self._general_sides(places)
        return Indicators(places, columns, values, data.by_column_number(rows), *sides)

    def _general_places(self, kind: int) -> NDArray[np.intp]:
        return np.flatnonzero(self._data.general.placed_part("GenKind") == kind)

    def _general_sides(self, places: NDArray[Any]) -> tuple[Floats, Floats]:
        general = self._data.general
        rhs, sense = general.placed_part("rhs")[places], general.placed_part("sense")[places]
        lower, upper = _sides(rhs, sense)
        _refuse_infinite(general, places, lower, upper, "constraint")
        return lower, upper

    def _refuse_removed(self, places: NDArray[Any], columns: Ids) -> None:
        """Refuse general constraints, at these places, with a variable that was removed."""
        if (columns < 0).any():
            name = self.general_name(int(places[np.argmax(columns < 0)]))
            raise TaviroError(
                TVO.Error.NOT_IN_MODEL,
                f"The general constraint '{name}' uses a variable that was removed: remove "
                f"the constraint as well",
            )

    def general_name(self, place: int) -> str:
        """The name of a general constraint."""
        return self._data.general.name_of(place)

    @property
    def general_count(self) -> int:
        """How many general constraints there are."""
        return self._data.general.placed

    # Values

    def objective_at(self, x: Floats) -> float:
        """The objective at a point."""
        value = float(self._data.variables.placed_part("Obj") @ x) + self.offset
        if self.quadratic_objective is not None:
            value += self.quadratic_objective.value(x)
        if self.nonlinear_objective is not None:
            value += float(self.nonlinear_objective.values(x).sum())
        return value


def _view_of(state: object) -> View:
    from .travel import unpacked

    return View(unpacked(state))


def _semi_columns(types: NDArray[Any], lower: Floats, upper: Floats) -> SemiColumns | None:
    is_apart = (types >= SEMI) & ((lower > 0.0) | (upper < 0.0)) & (lower <= upper)
    at = np.flatnonzero(is_apart)
    return SemiColumns(at, lower[at], upper[at]) if len(at) else None


def _sides(rhs: Floats, sense: NDArray[Any], below: Floats | None = None) -> tuple[Floats, Floats]:
    """Both sides of rows; `below` are the lower sides of those with the sense "<"."""
    if below is None and len(sense) and (sense == sense[0]).all():
        lower = np.full(len(rhs), -np.inf) if sense[0] == LESS else rhs
        return lower, np.full(len(rhs), np.inf) if sense[0] == GREATER else rhs
    lower = np.where(sense == LESS, -np.inf if below is None else below, rhs)
    return lower, np.where(sense == GREATER, np.inf, rhs)


def _refuse_infinite(elements: Elements, at: Any, lower: Floats, upper: Floats, noun: str) -> None:
    """Refuse a lower side of inf and an upper side of -inf, which no value can satisfy.

    `at` are the places of the sides among the elements: a slice or an index array.
    """
    if not len(lower) or (lower.max() < np.inf and upper.min() > -np.inf):
        return
    for bad, text in ((lower == np.inf, "at least inf"), (upper == -np.inf, "at most -inf")):
        if bad.any():
            where = int(np.argmax(bad))
            place = where + (at.start or 0) if isinstance(at, slice) else int(at[where])
            raise invalid(
                f"The {noun} '{elements.name_of(place)}' is to be {text}, which no value can "
                f"satisfy: make it finite"
            )
