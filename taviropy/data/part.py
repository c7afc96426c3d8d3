"""A view of a part of a model: some of its constraints and bounds, and no objective."""

from __future__ import annotations

from functools import cached_property
from typing import Any

import numpy as np
from numpy.typing import NDArray

from .attributes import BINARY, GENERAL, LINEAR, QUADRATIC, SEMI
from .model_data import ModelData
from .quadratic import QuadraticTerms
from .rows import Columns, Rows
from .trees import Trees
from .values import Floats
from .view import ColumnData, Indicators, NonlinearRows, QuadraticRows, View

Numbers = NDArray[np.intp]


class Part(View):
    """The model as if it had only the constraints ``kept`` (numbers by kind, rising), and only
    those bounds that the masks ``has_lower`` and ``has_upper`` leave. Types stay, and with them
    the bounds 0 and 1 of binary variables and all of semi-continuous ones."""

    def __init__(
        self,
        data: ModelData,
        kept: dict[int, Numbers],
        has_lower: NDArray[np.bool],
        has_upper: NDArray[np.bool],
    ) -> None:
        super().__init__(data)
        self.sense, self.offset = 1, 0.0
        self._kept = kept
        self._has_lower, self._has_upper = has_lower, has_upper
        self.row_count = len(kept[LINEAR])

    # Columns

    def columns(self, at: Any = slice(None)) -> ColumnData:
        """Data of columns, without costs."""
        columns = super().columns(at)
        types = self._data.variables.placed_part("VType")[at]
        is_binary, is_semi = types == BINARY, types >= SEMI
        has_lower, has_upper = self._has_lower[at] | is_semi, self._has_upper[at] | is_semi
        return ColumnData(
            np.zeros(len(columns.costs)),
            np.where(has_lower, columns.lower, np.where(is_binary, 0.0, -np.inf)),
            np.where(has_upper, columns.upper, np.where(is_binary, 1.0, np.inf)),
            columns.is_integer,
            columns.semi,
        )

    def costs(self, at: Any) -> Floats:
        """Zeros."""
        return np.zeros(len(self._has_lower[at]))

    def objective_at(self, x: Floats) -> float:
        """Zero, whatever the point."""
        return 0.0

    @property
    def start(self) -> Floats | None:
        """None: what the user thinks of the whole model says nothing of a part."""
        return None

    # Linear rows

    def sides(self, at: Any = slice(None)) -> tuple[Floats, Floats]:
        """Lower and upper sides of the rows that are kept."""
        return super().sides(self._kept[LINEAR][at])

    @cached_property
    def rows(self) -> Rows:
        """The rows that are kept."""
        return self._data.linear_matrix().take(self._kept[LINEAR])

    def rows_from(self, first: int) -> Rows:
        """The rows from number `first` on."""
        return self.rows.take(np.arange(first, self.row_count))

    def rows_by_column(self) -> Columns:
        """The rows that are kept, by column."""
        return self.rows.by_column(self.column_count)

    @property
    def rhs(self) -> Floats:
        """The right-hand sides of the rows that are kept."""
        return super().rhs[self._kept[LINEAR]]

    def row_names(self) -> list[str]:
        """The names of the rows that are kept."""
        return self._data.linear.names_of(self._kept[LINEAR])

    def row_name(self, row: int) -> str:
        """The name of a row."""
        return super().row_name(int(self._kept[LINEAR][row]))

    # All that is quadratic

    @property
    def quadratic_objective(self) -> QuadraticTerms | None:
        """None."""
        return None

    @property
    def nonlinear_objective(self) -> Trees | None:
        """None."""
        return None

    @property
    def quadratic_count(self) -> int:
        """How many quadratic constraints are kept."""
        return len(self._kept[QUADRATIC])

    @property
    def quadratic_rhs(self) -> Floats:
        """The right-hand sides of the quadratic constraints that are kept."""
        return super().quadratic_rhs[self._kept[QUADRATIC]]

    @cached_property
    def quadratic_rows(self) -> QuadraticRows | None:
        """The quadratic constraints that are kept, None without any."""
        whole, kept = super().quadratic_rows, self._kept[QUADRATIC]
        if whole is None or not len(kept):
            return None
        return QuadraticRows(
            whole.rows.take(kept), whole.pairs.take(kept), whole.lower[kept], whole.upper[kept]
        )

    def quadratic_name(self, row: int) -> str:
        """The name of a quadratic constraint."""
        return super().quadratic_name(int(self._kept[QUADRATIC][row]))

    def recall(self, what: str, stamp: object) -> Any:
        """Nothing: what is known is known of the whole model."""
        return None

    def remember(self, what: str, stamp: object, answer: object) -> None:
        """Keep nothing."""

    # General constraints

    @property
    def general_count(self) -> int:
        """How many general constraints are kept."""
        return len(self._kept[GENERAL])

    @cached_property
    def nonlinear(self) -> NonlinearRows | None:
        """The nonlinear constraints that are kept, None without any."""
        whole = super().nonlinear
        if whole is None:
            return None
        at = np.flatnonzero(np.isin(whole.places, self._kept[GENERAL]))
        if not len(at):
            return None
        trees, sides = whole.trees.take(at), (whole.lower[at], whole.upper[at])
        return NonlinearRows(whole.places[at], trees, whole.columns[at], *sides)

    @cached_property
    def indicators(self) -> Indicators | None:
        """The indicator constraints that are kept, None without any."""
        whole = super().indicators
        if whole is None:
            return None
        at = np.flatnonzero(np.isin(whole.places, self._kept[GENERAL]))
        if not len(at):
            return None
        rows, sides = whole.rows.take(at), (whole.lower[at], whole.upper[at])
        return Indicators(whole.places[at], whole.columns[at], whole.values[at], rows, *sides)
