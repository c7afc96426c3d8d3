"""Single coefficients of linear constraints: read from a user's block, and entered into rows."""

from __future__ import annotations

from typing import Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

from .._matrixapi import MConstr, MVar
from .._scalars import Constr, ModelCore, Var
from .attributes import LINEAR, VARIABLE
from .rows import Rows, offsets
from .values import Floats, Ids, invalid, real_numbers, refuse_masked, rising, shortened


class Entries(NamedTuple):
    """Coefficients of rows at variables, each pair once; of either the ids or the numbers."""

    rows: Ids
    variables: Ids
    values: Floats

    def take(self, which: NDArray[Any]) -> Entries:
        """Those at some places, or where a mask is true."""
        return Entries(self.rows[which], self.variables[which], self.values[which])

    @staticmethod
    def merged(parts: list[Entries]) -> Entries:
        """All of them, by rows and variables; of several for one pair the last counts."""
        if not parts:
            none = np.empty(0, np.int32)
            return Entries(none, none, np.empty(0))
        rows, variables, values = map(np.concatenate, zip(*parts, strict=True))
        order = np.lexsort((variables, rows))  # stable: the last of equals is the newest
        is_last = np.ones(len(order), bool)
        rows, variables = rows[order], variables[order]
        is_last[:-1] = (rows[1:] != rows[:-1]) | (variables[1:] != variables[:-1])
        return Entries(rows[is_last], variables[is_last], values[order][is_last])


def read_entries(core: ModelCore, constrs: Any, variables: Any, coefficients: Any) -> Entries:
    """What is to be set: the ids of rows and variables, and the coefficients that are stored."""
    if isinstance(constrs, Constr):
        constrs = MConstr(np.array([constrs], "O"))
    if isinstance(variables, Var):
        variables = MVar.fromlist([variables])
    for noun, found, wanted in (("constrs", constrs, MConstr), ("variables", variables, MVar)):
        if not isinstance(found, wanted):
            raise TypeError(f"'{noun}' takes {wanted.__name__}, not {type(found).__name__}")
    row_ids = core.ids(LINEAR, constrs._constrarr).reshape(-1)
    ids = core.ids(VARIABLE, variables._vararr).reshape(-1)
    rows, columns, values = _stored(coefficients, variables, (len(row_ids), len(ids)))
    if not np.isfinite(values).all():
        raise invalid(f"A coefficient is {values[np.argmin(np.isfinite(values))]}: make it finite")
    for noun, each in (("constraint", row_ids), ("variable", ids)):
        if len(rising([each])) < len(each):
            raise invalid(f"A {noun} comes twice in the block: its coefficients would be ambiguous")
    return Entries(row_ids[rows], ids[columns], values)


def _stored(coefficients: Any, variables: Any, shape: tuple[int, int]) -> tuple[Any, Any, Floats]:
    """Row, column and value of the coefficients: all of a dense array, the stored ones of a sparse
    matrix, where repeats add up."""
    if hasattr(coefficients, "tocoo"):
        if coefficients.shape != shape:
            raise _unfit(coefficients.shape, shape)
        coefficients @ variables.reshape(-1)  # checks the matrix
        found = coefficients.tocoo(copy=True)
        found.sum_duplicates()
        return found.row, found.col, found.data.astype(np.float64)
    refuse_masked("A block of coefficients", coefficients)
    given = real_numbers(coefficients)
    if given is None:
        raise invalid(
            f"Coefficients are real numbers, not {shortened(coefficients)}: give an array or a "
            f"sparse matrix of them"
        )
    dense = given.astype(np.float64, copy=False)
    if dense.ndim < 2 and dense.size in (1, shape[0] * shape[1]):
        dense = np.broadcast_to(dense, (dense.size,)) if dense.ndim else dense
        dense = np.full(shape, dense) if dense.size == 1 else dense.reshape(shape)
    if dense.shape != shape:
        raise _unfit(dense.shape, shape)
    rows, columns = np.indices(shape).reshape(2, -1)
    return rows, columns, dense.reshape(-1)


def _unfit(given: Any, shape: tuple[int, int]) -> ValueError:
    return ValueError(
        f"The coefficients have shape {given}, but the block has {shape[0]} constraints and "
        f"{shape[1]} variables: give them the shape {shape}"
    )


def patched(rows: Rows, entries: Entries) -> Rows:
    """Rows with some coefficients set, those that become zero left out.

    `entries` go by the numbers of the rows; no id comes twice in a row of `rows`.
    """
    parts = [Entries(rows.row_numbers(), rows.ids, rows.data), entries]
    merged = Entries.merged(parts)
    merged = merged.take(merged.values != 0.0)
    indptr = offsets(np.bincount(merged.rows, minlength=rows.count))
    return Rows(indptr, merged.variables, merged.values, finite=rows.finite, rising=True)
