"""Quadratic expressions as arrays: a pair of variable ids and a coefficient for each term."""

from __future__ import annotations

import numpy as np

from . import _csr
from ._attrutil import VARIABLE
from ._csr import Rows
from ._linear import Side, broadcast_shape, check_coefficients, linear_side, right_hand_side
from ._matrixapi import MQuadExpr
from ._scalars import QuadExpr, gather_quadratic


class QuadraticTerms:
    """Terms ``data[k] * x[ids1[k]] * x[ids2[k]]``; the order within a pair has no meaning."""

    __slots__ = ("ids1", "ids2", "data")

    def __init__(self, ids1, ids2, data):
        self.ids1 = ids1
        self.ids2 = ids2
        self.data = data

    def by_column(self, numbers):
        """The terms with ``numbers[id]`` for ids; those of removed variables are left out."""
        if numbers is None:
            return self
        first, second = numbers[self.ids1], numbers[self.ids2]
        stays = (first >= 0) & (second >= 0)
        return QuadraticTerms(first[stays], second[stays], self.data[stays])

    def lower_triangle(self, size):
        """A CSC matrix with the summed coefficient of each pair at (larger, smaller)."""
        import scipy.sparse as sp

        pairs = (np.maximum(self.ids1, self.ids2), np.minimum(self.ids1, self.ids2))
        matrix = sp.coo_matrix((self.data, pairs), shape=(size, size)).tocsc()
        matrix.sum_duplicates()
        matrix.eliminate_zeros()
        return matrix


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


def quadratic_side(model, operand):
    """`operand` as a `QuadraticSide`, or None where it is neither linear nor quadratic."""
    linear = linear_side(model, operand)
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
    parts = []
    for x, Q, y in expr._quadparts:
        ids1, ids2 = model._ids(1, x._vararr)[Q.row], model._ids(1, y._vararr)[Q.col]
        parts.append(Rows(np.array([0, Q.nnz]), pack(ids1, ids2), Q.data.copy()))
    return QuadraticSide(linear, _csr.side_by_side(parts) if parts else None)


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
