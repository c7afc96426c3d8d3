"""A live HiGHS instance that holds a model and follows its changes."""

from __future__ import annotations

import os
from collections.abc import Callable
from typing import Any

import numpy as np
from highspy import (
    HessianFormat,
    Highs,
    HighsBasis,
    HighsBasisStatus,
    HighsHessian,
    HighsStatus,
    MatrixFormat,
    ObjSense,
)
from numpy.typing import NDArray

from .._exception import TaviroError
from .._tvo import TVO
from ..data.basis import AT_LOWER, AT_UPPER, BASIC, FREE, Basis
from ..data.changes import Changes
from ..data.entries import Entries
from ..data.view import ColumnData, View
from .reach import of_entries, of_rows, warn_of_small
from .running import silent

PRIMAL_SIMPLEX = 4  # as a value of HiGHS's option simplex_strategy
_TITLE = "HiGHS"
_LARGE = 50_000  # coefficients
_MANY_CHANGES = 1_000  # of coefficients, at once
# HiGHS leaves out what is smaller than its threshold and takes for infinite what is larger.
_SMALLEST = 1e-12  # the lowest threshold that it allows
_THRESHOLDS = {
    "small_matrix_value": _SMALLEST,
    "large_matrix_value": np.inf,
    "infinite_bound": np.inf,
    "infinite_cost": np.inf,
}
_BASIS_STATUSES = {
    AT_LOWER: HighsBasisStatus.kLower,
    BASIC: HighsBasisStatus.kBasic,
    AT_UPPER: HighsBasisStatus.kUpper,
    FREE: HighsBasisStatus.kZero,
}
_BASIS_CHARACTERS = np.array(list(_BASIS_STATUSES))  # by HiGHS's numbers


class LiveHighs:
    """HiGHS in step with a model.

    Changed bounds, costs, types and sides, new columns and rows, and removals are handed over as
    such, and HiGHS keeps its basis. Only the first load passes a whole model.
    """

    def __init__(self) -> None:
        self._highs: Any = new_highs()
        self._columns = 0  # how many columns and rows HiGHS has
        self._rows = 0
        self._objective: tuple[int, float] | None = None  # (sense, offset) that HiGHS has
        self._hessian: object = None  # the version of the quadratic terms that HiGHS has

    def close(self) -> None:
        """Release the solver's memory."""
        self._highs.clear()
        self._highs = None

    def load(self, view: View, changes: Changes | None) -> None:
        """Bring HiGHS into step with the model."""
        if changes is None:
            self._pass_whole(view)
        else:
            self._remove(changes)
            self._push(view, changes)
            entries = changes.entries
            if len(entries.values):
                is_new = entries.variables >= self._columns
                self._change_coefficients(view, entries.take(~is_new))
                entries = entries.take(is_new)
            self._add_columns(view, entries)
            self._add_rows(view)
        self._push_objective(view)

    def _remove(self, changes: Changes) -> None:
        if changes.kept_columns is not None:
            self._columns = self._delete(
                self._highs.deleteCols, changes.kept_columns, self._columns
            )
        if changes.kept_rows is not None:
            self._rows = self._delete(self._highs.deleteRows, changes.kept_rows, self._rows)

    def _delete(self, delete: Callable[..., Any], kept: NDArray[Any], count: int) -> int:
        gone = np.ones(count, bool)
        gone[kept] = False
        at = np.flatnonzero(gone).astype(np.int32)
        self._do(delete, len(at), at)
        return len(kept)

    def _push(self, view: View, changes: Changes) -> None:
        """Hand over changed data of columns and rows that HiGHS has."""
        # Whether zero lies apart from the others depends on the bounds.
        at = changes.bounds if view.is_semi.any() else changes.types
        if len(at):
            self._do(self._highs.changeColsIntegrality, len(at), at, _types(view.columns(at)))
        if len(changes.bounds):
            at, columns = changes.bounds, view.columns(changes.bounds)
            self._do(self._highs.changeColsBounds, len(at), at, *columns.own_bounds())
        if len(changes.costs):
            at = changes.costs
            self._do(self._highs.changeColsCost, len(at), at, view.costs(at))
        if len(changes.sides):
            at = changes.sides
            self._do(self._highs.changeRowsBounds, len(at), at, *view.sides(at))

    def _pass_whole(self, view: View) -> None:
        columns = view.columns()
        layout, *arrays = self._matrix(view)
        self._do(
            self._highs.passModel,
            view.column_count,
            view.row_count,
            len(arrays[2]),
            int(layout),
            view.sense,
            view.offset,
            columns.costs,
            *columns.own_bounds(),
            *view.sides(),
            *arrays,
            _types(columns).astype(np.int32),
        )
        self._columns, self._rows = view.column_count, view.row_count
        if not view.has_integers:
            forget_types(self._highs)
        self._objective, self._hessian = (view.sense, view.offset), None

    @staticmethod
    def _matrix(view: View) -> tuple[Any, ...]:
        """(layout, starts, indices, coefficients) of all rows.

        HiGHS keeps its matrix by column. A large one is turned here, and the model keeps it that
        way too: HiGHS would hold both while it turns it, and the model a third.
        """
        rows = view.rows
        warn_of_small(_TITLE, _SMALLEST, [of_rows(view, rows, view.row_name)])
        if rows.nnz < _LARGE:
            return MatrixFormat.kRowwise, rows.indptr, rows.ids, rows.data
        del rows
        columns = view.rows_by_column()
        return MatrixFormat.kColwise, columns.indptr, columns.rows, columns.data

    def _change_coefficients(self, view: View, entries: Entries) -> None:
        """Set coefficients of columns and rows that HiGHS has; those of new rows come with them."""
        entries = entries.take(entries.rows < self._rows)
        warn_of_small(_TITLE, _SMALLEST, [of_entries(view, entries)])
        if len(entries.values) <= _MANY_CHANGES:
            for row, column, value in zip(*(array.tolist() for array in entries), strict=True):
                self._do(self._highs.changeCoeff, row, column, value)
            return
        # Each of them moves what stands behind it: many are better passed with all others.
        basis = self._highs.getBasis()
        first_columns, first_rows = self._columns, self._rows
        self._pass_whole(view)
        if (first_columns, first_rows) == (self._columns, self._rows) and basis.valid:
            self._do(self._highs.setBasis, basis)

    def _add_columns(self, view: View, entries: Entries) -> None:
        count = view.column_count - self._columns
        if not count:
            return
        columns = view.columns(slice(self._columns, None))
        entries = entries.take(np.argsort(entries.variables, kind="stable"))
        entries = entries.take((entries.rows < self._rows) & (entries.values != 0.0))
        warn_of_small(_TITLE, _SMALLEST, [of_entries(view, entries)])
        starts = np.searchsorted(entries.variables, np.arange(self._columns, view.column_count))
        arrays = len(entries.values), starts.astype(np.int32), entries.rows, entries.values
        self._do(self._highs.addCols, count, columns.costs, *columns.own_bounds(), *arrays)
        types = _types(columns)
        at = np.flatnonzero(types)
        if len(at):
            numbers = (at + self._columns).astype(np.int32)
            self._do(self._highs.changeColsIntegrality, len(at), numbers, types[at])
        self._columns = view.column_count

    def _add_rows(self, view: View) -> None:
        first, end = self._rows, view.row_count
        if first == end:
            return
        rows = view.rows_from(first)
        warn_of_small(_TITLE, _SMALLEST, [of_rows(view, rows, view.row_name, first)])
        lower, upper = view.sides(slice(first, None))
        arrays = (rows.indptr[:-1], rows.ids, rows.data)
        self._do(self._highs.addRows, rows.count, lower, upper, rows.nnz, *arrays)
        self._rows = end

    def _push_objective(self, view: View) -> None:
        sense, offset = view.sense, view.offset
        if (sense, offset) != self._objective:
            minimizes = sense == TVO.MINIMIZE
            self._do(
                self._highs.changeObjectiveSense,
                ObjSense.kMinimize if minimizes else ObjSense.kMaximize,
            )
            self._do(self._highs.changeObjectiveOffset, offset)
            self._objective = (sense, offset)
        if view.quadratic_objective is None:
            if self._hessian is not None:
                self._do(self._highs.passHessian, HighsHessian())
                self._hessian = None
        elif self._hessian != view.quadratic_version:
            self._pass_hessian(view)
            self._hessian = view.quadratic_version

    def _pass_hessian(self, view: View) -> None:
        """Hand over the quadratic terms: half of x' H x, H by its lower triangle."""
        terms = view.quadratic_objective
        assert terms is not None
        starts = np.zeros(self._columns + 1, np.int32)
        np.cumsum(np.bincount(terms.ids1, minlength=self._columns), out=starts[1:])
        values = terms.data.copy()
        values[terms.ids1 == terms.ids2] *= 2.0
        self._do(
            self._highs.passHessian,
            self._columns,
            len(values),
            int(HessianFormat.kTriangular),
            starts,
            terms.ids2,
            values,
        )

    def basis(self) -> Callable[[], Basis] | None:
        """What gives the basis that HiGHS has now, None where it has none."""
        found = self._highs.getBasis()  # a copy
        if not found.valid:
            return None
        return lambda: Basis(_characters(found.col_status), _characters(found.row_status))

    def set_basis(self, basis: Basis) -> None:
        """Give HiGHS a basis to begin from; it mends one that is singular."""
        given = HighsBasis()
        given.col_status, given.row_status = map(_basis_statuses, basis)
        given.valid = given.alien = True
        self._do(self._highs.setBasis, given)

    def _do(self, call: Callable[..., Any], *args: Any) -> None:
        """Call HiGHS; where it refuses, ask again for its words and raise them."""
        if call(*args) == HighsStatus.kError:
            words = words_of(self._highs, call, *args) or "no reason given"
            raise TaviroError(
                TVO.Error.ENGINE_FAILED,
                f"HiGHS refused the model's data in {call.__name__}: {words}",
            )


def _characters(statuses: Any) -> NDArray[np.str_]:
    return _BASIS_CHARACTERS[np.fromiter(map(int, statuses), np.intp, len(statuses))]


def _basis_statuses(characters: NDArray[np.str_]) -> list[HighsBasisStatus]:
    return [_BASIS_STATUSES[character] for character in characters.tolist()]


def words_of(highs: Any, call: Callable[..., Any], *args: Any) -> str | None:
    """What HiGHS says where a call fails; None where it doesn't."""
    words: list[str] = []

    def listen(kind: object, text: str, *rest: object) -> None:
        words.append(text)

    highs.setOptionValue("output_flag", True)
    highs.setOptionValue("log_to_console", False)
    highs.setCallback(listen, None)
    highs.startCallbackInt(0)
    try:
        status = call(*args)
    finally:
        highs.setCallback(None, None)
        highs.setOptionValue("output_flag", False)
        highs.setOptionValue("log_to_console", True)
    return " ".join(" ".join(words).split()) if status == HighsStatus.kError else None


# HiGHS 1.16 prints its version when it is first made, before any option can be set. Here only one
# thread runs.
with silent(1):
    Highs()  # type: ignore[no-untyped-call]

# A child process after a fork has none of the threads that HiGHS's scheduler counts on.
os.register_at_fork(after_in_child=lambda: Highs.resetGlobalScheduler(False))


def new_highs() -> Any:
    """An instance of HiGHS that prints nothing and drops as little as it can."""
    highs: Any = Highs()  # type: ignore[no-untyped-call]
    # The instance made itself its own callback's data, a cycle that nothing would ever free.
    highs.setCallback(None, None)
    reset_options(highs)
    return highs


def reset_options(highs: Any) -> None:
    """HiGHS's own options, but for the log and what it would drop."""
    highs.resetOptions()
    highs.setOptionValue("output_flag", False)
    for name, value in _THRESHOLDS.items():
        highs.setOptionValue(name, value)


def forget_types(highs: Any) -> None:
    """Drop a list of types that are all continuous, which HiGHS would warn of in each log."""
    if highs.getNumCol():
        highs.changeColsIntegrality(1, np.zeros(1, np.int32), np.zeros(1, np.uint8))


def _types(columns: ColumnData) -> NDArray[np.uint8]:
    """HiGHS's numbers: 1 for integer, 2 for semi-continuous, 3 for both."""
    types = columns.is_integer.astype(np.uint8)
    if columns.semi is not None:
        types[columns.semi.at] += 2
    return types
