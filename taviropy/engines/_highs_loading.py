"""A live HiGHS instance that holds a model and follows its changes."""

from __future__ import annotations

import numpy as np
from highspy import HessianFormat, Highs, HighsHessian, HighsStatus, MatrixFormat, ObjSense

from .._attrutil import CHARACTERS, LINEAR, VARIABLE
from .._exception import TaviroError
from .._linear import rows_by_column
from .._quadratic import column_numbers
from .._tvo import TVO
from ._run import refuse_infinite

CONTINUOUS, _BINARY = CHARACTERS["VType"].index("C"), CHARACTERS["VType"].index("B")
_LESS, _EQUAL, _GREATER = range(3)
_NO_INDEX, _NO_VALUE = np.empty(0, np.int32), np.empty(0)
_LARGE = 50_000  # coefficients


class LiveHighs:
    """HiGHS in step with a model.

    Changed bounds, costs, types and right-hand sides, new columns and rows, and removals are
    handed over as such, and HiGHS keeps its basis. Only the first load passes a whole model.
    """

    def __init__(self):
        self._highs = new_highs()
        self._columns = 0  # how many of the model's columns and rows HiGHS has
        self._rows = 0
        self._loaded = False
        self._objective = None  # (sense, offset) that HiGHS has
        self._hessian = None  # the version of the quadratic objective that HiGHS has

    def close(self):
        """Release the solver's memory."""
        self._highs.clear()
        self._highs = None

    def load(self, model, changes):
        """Bring HiGHS into step with the model."""
        if self._loaded:
            self.push(model, changes)
            self._add_columns(model)
            self._add_rows(model)
        else:
            self._pass_whole(model)
        self._push_objective(model)

    def push(self, model, changes):
        """Hand over changed attributes of columns and rows that HiGHS has."""
        columns = {
            name: _merged(changes[name], self._columns)
            for name in ("LB", "UB", "Obj", "VType")
            if name in changes
        }
        rows = [each for name in ("RHS", "Sense") for each in changes.get(name, ())]
        if "VType" in columns:
            at = columns["VType"]
            types = (model._tables[VARIABLE]["VType"][at] != CONTINUOUS).astype(np.uint8)
            self._do(self._highs.changeColsIntegrality, len(at), at, types)
        bounds = [columns[name] for name in ("LB", "UB", "VType") if name in columns]
        if bounds:
            at = _merged(bounds, self._columns)
            lower, upper = column_bounds(model, at)
            self._do(self._highs.changeColsBounds, len(at), at, lower, upper)
        if "Obj" in columns:
            at = columns["Obj"]
            costs = model._tables[VARIABLE]["Obj"][at]
            self._do(self._highs.changeColsCost, len(at), at, costs)
        if rows:
            at = _merged(rows, self._rows)
            lower, upper = row_bounds(model, at)
            self._do(self._highs.changeRowsBounds, len(at), at, lower, upper)

    def remove(self, kind, kept):
        """Delete columns or rows that left the model."""
        if kind not in (VARIABLE, LINEAR):
            return
        count = self._columns if kind == VARIABLE else self._rows
        gone = np.ones(count, bool)
        kept = kept[kept < count]
        gone[kept] = False
        at = np.flatnonzero(gone).astype(np.int32)
        if kind == LINEAR:
            self._rows = len(kept)
            delete = self._highs.deleteRows
        else:
            self._columns = len(kept)
            delete = self._highs.deleteCols
        if len(at):
            self._do(delete, len(at), at)

    def _pass_whole(self, model):
        variables, linear = model._tables[VARIABLE], model._tables[LINEAR]
        columns = slice(0, variables.placed)
        lower, upper = column_bounds(model, columns)
        row_lower, row_upper = row_bounds(model, slice(0, linear.placed))
        layout, *arrays = self._matrix(model)
        self._do(
            self._highs.passModel,
            variables.placed,
            linear.placed,
            len(arrays[2]),
            int(layout),
            model._objective.sense,
            model._objective.offset,
            variables["Obj"][columns],
            lower,
            upper,
            row_lower,
            row_upper,
            *arrays,
            (variables["VType"][columns] != CONTINUOUS).astype(np.int32),
        )
        self._columns, self._rows = variables.placed, linear.placed
        if (variables["VType"][columns] == CONTINUOUS).all():
            forget_types(self._highs)
        self._objective = (model._objective.sense, model._objective.offset)
        self._loaded = True

    @staticmethod
    def _matrix(model):
        """(layout, starts, indices, coefficients) of all rows.

        HiGHS keeps its matrix by column. A large one is turned here, and the model keeps it that
        way too: HiGHS would hold both while it turns it, and the model a third.
        """
        rows = rows_from(model, 0)
        if rows.nnz < _LARGE:
            return MatrixFormat.kRowwise, rows.indptr, rows.ids, rows.data
        columns = rows.by_column(model._tables[VARIABLE].placed)
        if model._all_in_place(VARIABLE) and model._all_in_place(LINEAR):
            model._linear_rows.keep_by_column(columns)
        return MatrixFormat.kColwise, columns.indptr, columns.rows, columns.data

    def _add_columns(self, model):
        variables = model._tables[VARIABLE]
        count = variables.placed - self._columns
        if not count:
            return
        at = slice(self._columns, variables.placed)
        lower, upper = column_bounds(model, at)
        self._do(
            self._highs.addCols,
            count,
            variables["Obj"][at],
            lower,
            upper,
            0,
            _NO_INDEX,
            _NO_INDEX,
            _NO_VALUE,
        )
        integers = np.flatnonzero(variables["VType"][at] != CONTINUOUS) + self._columns
        if len(integers):
            self._do(
                self._highs.changeColsIntegrality,
                len(integers),
                integers.astype(np.int32),
                np.ones(len(integers), np.uint8),
            )
        self._columns = variables.placed

    def _add_rows(self, model):
        first, end = self._rows, model._tables[LINEAR].placed
        if first == end:
            return
        rows = rows_from(model, first)
        lower, upper = row_bounds(model, slice(first, end))
        self._do(
            self._highs.addRows,
            rows.count,
            lower,
            upper,
            rows.nnz,
            rows.indptr[:-1],
            rows.ids,
            rows.data,
        )
        self._rows = end

    def _push_objective(self, model):
        objective = model._objective
        sense, offset = objective.sense, objective.offset
        if (sense, offset) != self._objective:
            self._do(
                self._highs.changeObjectiveSense,
                ObjSense.kMinimize if sense == TVO.MINIMIZE else ObjSense.kMaximize,
            )
            self._do(self._highs.changeObjectiveOffset, offset)
            self._objective = (sense, offset)
        if objective.quadratic is None:
            if self._hessian is not None:
                self._drop_hessian()
        elif self._hessian != objective.version:
            self._pass_hessian(model)
            self._hessian = objective.version

    def _pass_hessian(self, model):
        """Hand over the quadratic terms: half of x' H x, H by its lower triangle."""
        terms = model._objective.quadratic.by_column(column_numbers(model))
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

    def _drop_hessian(self):
        self._do(self._highs.passHessian, HighsHessian())
        self._hessian = None

    def _do(self, call, *args):
        """Call HiGHS; where it refuses, ask again for its words and raise them."""
        if call(*args) != HighsStatus.kError:
            return
        words = []
        self._highs.setOptionValue("output_flag", True)
        self._highs.setOptionValue("log_to_console", False)
        self._highs.setCallback(lambda kind, text, *rest: words.append(text), None)
        self._highs.startCallbackInt(0)
        call(*args)
        self._highs.setCallback(None, None)
        text = " ".join(" ".join(words).split())
        raise TaviroError(
            TVO.Error.ENGINE_FAILED,
            f"HiGHS refused the model's data in {call.__name__}: {text or 'no reason given'}",
        )


def new_highs():
    """An instance of HiGHS that prints nothing."""
    highs = Highs()
    # The instance made itself its own callback's data, a cycle that nothing would ever free.
    highs.setCallback(None, None)
    highs.setOptionValue("output_flag", False)
    return highs


def forget_types(highs):
    """Drop a list of types that are all continuous, which HiGHS would warn of in each log."""
    if highs.getNumCol():
        highs.changeColsIntegrality(1, np.zeros(1, np.int32), np.zeros(1, np.uint8))


def rows_from(model, first):
    """Rows of column numbers of the constraints from number `first` on."""
    return rows_by_column(model, model._linear_rows.select(model._tables[LINEAR], first))


def _merged(parts, count):
    """Index arrays as one rising array without repeats, of entries below `count`."""
    at = np.unique(np.concatenate(parts)) if len(parts) > 1 else np.unique(parts[0])
    return at[at < count].astype(np.int32)


def column_bounds(model, at):
    """Bounds of columns as HiGHS takes them; `at` is a slice or an index array."""
    variables = model._tables[VARIABLE]
    lower, upper = variables["LB"][at], variables["UB"][at]
    binary = variables["VType"][at] == _BINARY
    if binary.any():
        lower = np.where(binary, np.maximum(lower, 0.0), lower)
        upper = np.where(binary, np.minimum(upper, 1.0), upper)
    refuse_infinite(variables, at, lower, upper, "variable")
    return lower, upper


def row_bounds(model, at):
    """Both sides of rows."""
    table = model._tables[LINEAR]
    rhs, sense = table["RHS"][at], table["Sense"][at]
    if not table.has("Low") and len(sense) and (sense == sense[0]).all():
        lower = np.full(len(rhs), -np.inf) if sense[0] == _LESS else rhs
        upper = np.full(len(rhs), np.inf) if sense[0] == _GREATER else rhs
    else:
        below = table["Low"][at] if table.has("Low") else -np.inf
        lower = np.where(sense == _LESS, below, rhs)
        upper = np.where(sense == _GREATER, np.inf, rhs)
    refuse_infinite(table, at, lower, upper, "constraint")
    return lower, upper
