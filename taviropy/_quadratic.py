"""Quadratic expressions as arrays: a pair of variable ids and a coefficient for each term."""

from __future__ import annotations

import numpy as np

from . import _csr
from ._attrutil import VARIABLE
from ._csr import Rows
from ._linear import Side, broadcast_shape, check_coefficients, linear_side, right_hand_side
from ._matrixapi import MQuadExpr
from ._scalars import QuadExpr, gather_quadratic, sum_pairs


class QuadraticTerms:
    """Terms ``data[k] * x[ids1[k]] * x[ids2[k]]``; the order within a pair has no meaning."""

    __slots__ = ("ids1", "ids2", "data")

    def __init__(self, ids1, ids2, data):
        self.ids1 = ids1
        self.ids2 = ids2
        self.data = data

    def part(self, first, end):
        """The terms from number `first` on, before `end`."""
        part = slice(first, end)
        return QuadraticTerms(self.ids1[part], self.ids2[part], self.data[part])

    def by_column(self, numbers):
        """The terms with ``numbers[id]`` for ids; those of removed variables are left out."""
        if numbers is None:
            return self
        first, second = numbers[self.ids1], numbers[self.ids2]
        stays = (first >= 0) & (second >= 0)
        return QuadraticTerms(first[stays], second[stays], self.data[stays])


class QuadraticSide:
    """One side of a comparison: a linear `Side`, and rows of quadratic terms or None.

    The rows are `Rows` whose ids hold two ids each, so that what rows can do they can do.
    """

    __slots__ = ("linear", "rows")

    def __init__(self, linear, rows):
        self.linear = linear
        self.rows = rows


def pack(ids1, ids2):
    """Two ids in one number."""
    return (ids1.astype(np.int64) << 32) | ids2


def terms_of(rows):
    """All terms of packed rows."""
    return QuadraticTerms(
        (rows.ids >> 32).astype(np.int32), (rows.ids & 0xFFFFFFFF).astype(np.int32), rows.data
    )


def summed_terms(parts, size):
    """The terms of all parts, arrays (ids1, ids2, data): each pair once, in rising order.

    The smaller id of a pair comes first: the terms are the rows of an upper triangle. All ids are
    below `size`.
    """
    return QuadraticTerms(*sum_pairs([tuple(map(_contiguous, part)) for part in parts], size))


def _contiguous(array):
    dtype = np.float64 if array.dtype.kind == "f" else np.int32
    return np.ascontiguousarray(array, dtype)


def quadratic_side(model, operand):
    """`operand` as a `QuadraticSide`, or None where it is neither linear nor quadratic."""
    linear = linear_side(model, operand, unfilled=False)
    if linear is not None:
        return QuadraticSide(linear, None)
    if isinstance(operand, QuadExpr):
        return _side_of_quadexprs(model, [operand], (), False)
    if isinstance(operand, MQuadExpr):
        return _side_of_mquadexpr(model, operand)
    if isinstance(operand, list | tuple):
        operand = np.asarray(operand, dtype=object)
    if isinstance(operand, np.ndarray):
        return _side_of_quadexprs(model, operand, operand.shape, True)
    return None


def _side_of_quadexprs(model, exprs, shape, is_matrix):
    qptr, ids1, ids2, qdata, indptr, ids, data, constants = gather_quadratic(model, exprs)
    linear = Side(shape, is_matrix, Rows(indptr, ids, data), constants.reshape(shape))
    return QuadraticSide(linear, Rows(qptr, pack(ids1, ids2), qdata))


def _side_of_mquadexpr(model, expr):
    linear = linear_side(model, expr._ndle)
    if expr._quadparts is None:
        qptr, ids1, ids2, data = gather_quadratic(model, expr._qearr)[:4]
        return QuadraticSide(linear, Rows(qptr, pack(ids1, ids2), data))
    parts = [
        Rows(np.array([0, len(data)]), pack(ids1, ids2), data.copy())
        for ids1, ids2, data in _products(model, expr)
    ]
    return QuadraticSide(linear, _csr.side_by_side(parts) if parts else None)


def _products(model, expr):
    """(ids1, ids2, data) of each part of a compact MQuadExpr; the arrays may be the part's own."""
    for x, Q, y in expr._quadparts:
        ids1, ids2 = _ids_at(model, x, Q.row), _ids_at(model, y, Q.col)
        if not len(ids1) == len(ids2) == len(Q.data):
            raise ValueError(
                f"The matrix of a quadratic expression is malformed: it has {len(Q.data)} "
                f"coefficients at {len(ids1)} rows and {len(ids2)} columns; build it anew"
            )
        yield ids1, ids2, Q.data


def _ids_at(model, x, index):
    """Ids of the variables x[index]."""
    ids = model._ids(VARIABLE, x._vararr)
    if len(index) and (index.min() < 0 or index.max() >= len(ids)):
        raise ValueError(
            f"The matrix of a quadratic expression is malformed: it has indices from "
            f"{index.min()} to {index.max()} for {len(ids)} variables; build it anew"
        )
    return index if np.array_equal(ids, np.arange(len(ids))) else ids[index]


def quadratic_objective(model, expr):
    """The linear `Side` of a quadratic objective and parts for `summed_terms`, or None."""
    if getattr(expr, "_quadparts", None) is not None:
        return linear_side(model, expr._ndle), list(_products(model, expr))
    side = quadratic_side(model, expr)
    if side is None:
        return None
    terms = terms_of(side.rows)
    return side.linear, [(terms.ids1, terms.ids2, terms.data)]


def quadratic_difference(left, right):
    """``left - right`` as (shape, linear Rows, quadratic Rows, right-hand side)."""
    shape = broadcast_shape(left.linear.shape, right.linear.shape)
    rhs = right_hand_side(left.linear, right.linear, shape)
    linear = _csr.difference_of_rows(
        left.linear.rows, right.linear.rows, left.linear.shape, right.linear.shape, shape
    )
    quadratic = _csr.difference_of_rows(
        left.rows, right.rows, left.linear.shape, right.linear.shape, shape
    )
    return shape, linear, quadratic, rhs


def check_quadratic(model, rows, noun="constraint"):
    """Refuse quadratic coefficients that aren't finite."""
    first = Rows(rows.indptr, (rows.ids >> 32).astype(np.int32), rows.data)
    check_coefficients(model, first, noun)


def column_numbers(model):
    """Column numbers by variable id, or None where they are equal."""
    return None if model._all_in_place(VARIABLE) else model._numbers(VARIABLE)
