"""A view of a model whose constraints may give: what they give is all that counts."""

from __future__ import annotations

from functools import cached_property
from typing import Any

import numpy as np
from numpy.typing import NDArray

from .model_data import ModelData
from .quadratic import QuadraticTerms
from .rows import Columns, Rows
from .trees import Trees
from .values import Floats
from .view import ColumnData, SemiColumns, View

Numbers = NDArray[np.intp]


class Elastic(View):
    """The model with variables more: one for each side of the rows ``elastic`` and for each bound
    of the columns ``loose`` that is finite, which says by how much it gives. Their sum, each times
    its weight, is the objective, to be minimized.

    Rows are those of the model, then one for each loose bound.
    """

    def __init__(
        self,
        data: ModelData,
        elastic: Numbers,
        weights: Floats,
        loose: Numbers,
        bound_weights: Floats,
    ) -> None:
        super().__init__(data)
        self.sense, self.offset = 1, 0.0
        self._columns, self._rows = self.column_count, self.row_count
        lower, upper = super().sides(elastic)
        bounds = super().columns(loose)
        self._loose = loose
        groups = []  # (rows of the new matrix, sign, weights)
        for side, sign in ((lower, 1.0), (upper, -1.0)):
            has_side = np.isfinite(side)
            groups.append((elastic[has_side], sign, weights[has_side]))
        self._bounds = []  # (columns, side) of the rows that stand for bounds
        first = self._rows
        for side, sign in ((bounds.lower, 1.0), (bounds.upper, -1.0)):
            has_side = np.isfinite(side)
            count = int(np.count_nonzero(has_side))
            groups.append((np.arange(first, first + count), sign, bound_weights[has_side]))
            self._bounds.append((loose[has_side], side[has_side]))
            first += count
        self._at, signs, costs = zip(*groups, strict=True)
        self._signs = np.repeat(signs, [len(at) for at in self._at])
        self._costs = np.concatenate(costs)
        self.column_count += len(self._costs)
        self.row_count = first

    def given(self, x: Floats) -> tuple[Floats, Floats, Floats]:
        """By how much each row gives at a point, each lower and each upper bound."""
        parts = np.split(x[self._columns :], np.cumsum([len(at) for at in self._at])[:-1])
        rows = np.zeros(self._rows)
        for at, part in zip(self._at[:2], parts[:2], strict=True):
            rows[at] += part
        found = [rows]
        for (columns, _), part in zip(self._bounds, parts[2:], strict=True):
            amounts = np.zeros(self._columns)
            amounts[columns] = part
            found.append(amounts)
        return found[0], found[1], found[2]

    # Columns

    @cached_property
    def _all_columns(self) -> ColumnData:
        given, count = super().columns(), len(self._costs)
        lower, upper = given.lower.copy(), given.upper.copy()
        lower[self._loose], upper[self._loose] = -np.inf, np.inf
        return ColumnData(
            np.concatenate([np.zeros(self._columns), self._costs]),
            np.concatenate([lower, np.zeros(count)]),
            np.concatenate([upper, np.full(count, np.inf)]),
            np.concatenate([given.is_integer, np.zeros(count, bool)]),
            given.semi,
        )

    def columns(self, at: Any = slice(None)) -> ColumnData:
        """Data of columns; what gives comes last."""
        whole = self._all_columns
        semi, arrays = whole.semi, (whole.costs, whole.lower, whole.upper, whole.is_integer)
        if semi is not None:
            numbers = np.full(self.column_count, -1)
            numbers[semi.at] = np.arange(len(semi.at))
            place = np.flatnonzero(numbers[at] >= 0)
            which = numbers[at][place]
            semi = SemiColumns(place, semi.lower[which], semi.upper[which])
        costs, lower, upper, is_integer = (array[at] for array in arrays)
        return ColumnData(costs, lower, upper, is_integer, semi)

    def costs(self, at: Any) -> Floats:
        """The weights of what gives, zeros before them."""
        costs: Floats = self._all_columns.costs[at]
        return costs

    def objective_at(self, x: Floats) -> float:
        """What all that gives comes to."""
        return float(self._costs @ x[self._columns :])

    @property
    def start(self) -> Floats | None:
        """The user's start, for the model's own variables."""
        start = super().start
        return None if start is None else np.append(start, np.full(len(self._costs), np.nan))

    def column_names(self) -> list[str]:
        """The names of all columns."""
        return super().column_names() + [f"give{k}" for k in range(len(self._costs))]

    def column_name(self, column: int) -> str:
        """The name of a column."""
        if column < self._columns:
            return super().column_name(column)
        return f"give{column - self._columns}"

    # Rows

    def sides(self, at: Any = slice(None)) -> tuple[Floats, Floats]:
        """Both sides of rows."""
        lower, upper = super().sides()
        below, above = (side for _, side in self._bounds)
        open_below, open_above = np.full(len(above), -np.inf), np.full(len(below), np.inf)
        lower = np.concatenate([lower, below, open_below])
        upper = np.concatenate([upper, open_above, above])
        return lower[at], upper[at]

    @cached_property
    def rows(self) -> Rows:
        """All rows, with what gives."""
        own = self._data.linear_matrix()
        columns = np.concatenate([columns for columns, _ in self._bounds])
        numbers = [own.row_numbers(), np.arange(self._rows, self.row_count), *self._at]
        ids = [own.ids, columns, np.arange(self._columns, self.column_count)]
        data = [own.data, np.ones(len(columns)), self._signs]
        at = np.concatenate(numbers)
        order = np.argsort(at, kind="stable")
        counts = np.bincount(at, minlength=self.row_count)
        indptr = np.concatenate([[0], np.cumsum(counts)]).astype(np.int32)
        arrays = np.concatenate(ids)[order].astype(np.int32), np.concatenate(data)[order]
        return Rows(indptr, *arrays, finite=True)

    def rows_from(self, first: int) -> Rows:
        """The rows from number `first` on."""
        return self.rows.take(np.arange(first, self.row_count))

    def rows_by_column(self) -> Columns:
        """All rows by column."""
        return self.rows.by_column(self.column_count)

    @property
    def rhs(self) -> Floats:
        """One side of each row."""
        lower, upper = self.sides()
        return np.where(np.isfinite(upper), upper, lower)

    def row_names(self) -> list[str]:
        """The names of all rows."""
        return [self.row_name(k) for k in range(self.row_count)]

    def row_name(self, row: int) -> str:
        """The name of a row."""
        return super().row_name(row) if row < self._rows else f"bound{row - self._rows}"

    # The objective has no quadratic terms

    @property
    def quadratic_objective(self) -> QuadraticTerms | None:
        """None."""
        return None

    @property
    def nonlinear_objective(self) -> Trees | None:
        """None."""
        return None

    def recall(self, what: str, stamp: object) -> Any:
        """Nothing: what is known is known of the model itself."""
        return None

    def remember(self, what: str, stamp: object, answer: object) -> None:
        """Keep nothing."""
