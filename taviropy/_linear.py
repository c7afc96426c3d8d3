"""From what stands on the two sides of a comparison to the rows of a linear constraint."""

from __future__ import annotations

from bisect import bisect_left, bisect_right
from decimal import Decimal
from numbers import Real

import numpy as np

from . import _csr
from ._attrutil import shortened
from ._csr import Rows
from ._exception import TaviroError
from ._matrixapi import MLinExpr, MNLExpr, MQuadExpr, MVar
from ._scalars import LinExpr, NLExpr, QuadExpr, Var, gather_linear, product_rows
from ._tvo import TVO
from ._util import _dense_array

_LINEAR = (Var, LinExpr, int, float, Real, Decimal, np.bool)
_HIGHER = (QuadExpr, NLExpr, MQuadExpr, MNLExpr)


class Side:
    """One side of a comparison: coefficients and a constant for each element of its shape."""

    __slots__ = ("shape", "is_matrix", "rows", "constant")

    def __init__(self, shape, is_matrix, rows, constant):
        self.shape = shape
        self.is_matrix = is_matrix
        self.rows = rows  # Rows, or None where there are no variables
        self.constant = constant  # float64, of `shape`


def both_sides(constr):
    """What a comparison compares; beside an empty block a complex number, else refused, is fine."""
    lhs, rhs = constr.lhs, constr.rhs
    is_vacuous = isinstance(rhs, complex) and getattr(lhs, "size", 1) == 0
    return lhs, 0.0 if is_vacuous else rhs


def linear_side(model, operand, unfilled=True):
    """`operand` as a `Side`, or None where it isn't linear.

    The arrays of the result may be the operand's own; the operand keeps its form. `unfilled` tells
    that None in an object array, a slot that nobody filled, counts as the empty LinExpr().
    """
    kind = type(operand)
    if kind is MLinExpr or isinstance(operand, MLinExpr):
        return _side_of_mlinexpr(model, operand)
    if kind is Var or kind is LinExpr:
        return _side_of_exprs(model, [operand], (), False)
    if isinstance(operand, MVar):
        return _side_of_mvar(model, operand)
    return _side_of_data(model, operand, unfilled)


def _side_of_mlinexpr(model, expr):
    if expr._matmulparts is None:
        return _side_of_exprs(model, expr._learr, expr._learr.shape, True)
    constant = expr._const
    parts = [rows_of_product(model, A, x, constant.size) for A, x in expr._matmulparts]
    return Side(constant.shape, True, _csr.side_by_side(parts) if parts else None, constant)


def rows_of_product(model, A, x, count):
    """Rows of ``A @ x`` for a CSR matrix and a one-dimensional MVar."""
    indptr, indices, data = map(np.ascontiguousarray, (A.indptr, A.indices, A.data))
    known = None
    if len(indptr) == count + 1:
        known = product_rows(model, x._vararr, indptr, indices, data)
    if known is None:
        raise ValueError(
            f"The matrix of shape {A.shape} in the constraint is malformed: its indptr must have "
            f"{count + 1} entries that start at 0, never fall and end within its data, and its "
            f"indices must be below {x.size}; build it anew, for instance with "
            f"scipy.sparse.csr_matrix"
        )
    nnz = int(indptr[-1])
    ids, finite, rising = known
    if ids is None:
        ids = indices[:nnz].astype(np.int32, copy=False)
    return Rows(indptr, ids, data[:nnz], shared=True, finite=finite, rising=rising)


def _side_of_mvar(model, x):
    ids = model._ids(1, x._vararr)
    count = len(ids)
    rows = Rows(np.arange(count + 1, dtype=np.int32), ids, np.ones(count))
    return Side(x.shape, True, rows, np.zeros(x.shape))


def _side_of_exprs(model, exprs, shape, is_matrix):
    indptr, ids, data, constants = gather_linear(model, exprs)
    return Side(shape, is_matrix, Rows(indptr, ids, data), constants.reshape(shape))


def _side_of_data(model, operand, unfilled):
    """Numbers, arrays, sparse matrices, lists; also arrays of scalar expressions."""
    if isinstance(operand, int | float):
        return Side((), False, None, np.float64(operand))
    if hasattr(operand, "toarray"):
        operand = _dense_array(operand)
    if isinstance(operand, _HIGHER):
        return None
    array = np.asarray(operand)
    masked = np.count_nonzero(getattr(operand, "mask", 0)) if isinstance(operand, np.ndarray) else 0
    if masked:
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT,
            f"A constraint can't take an array with {masked} masked entries: leave their rows out, "
            f"or fill them by filled(value)",
        )
    is_sequence = isinstance(operand, list | tuple)
    is_matrix = is_sequence or array.ndim > 0
    is_data = is_sequence or not is_matrix or hasattr(operand, "__array__")
    if is_data and array.dtype.kind in "biuf":
        return Side(array.shape, is_matrix, None, array.astype(np.float64, copy=False))
    elements = array.reshape(-1).tolist() if array.dtype.kind == "O" else [operand]
    unfilled = unfilled and isinstance(operand, np.ndarray)
    linear = (*_LINEAR, type(None)) if unfilled else _LINEAR
    other = [each for each in elements if not isinstance(each, linear)]
    if not other:
        return _side_of_exprs(model, array, array.shape, is_matrix)
    strange = [each for each in other if not isinstance(each, _HIGHER)]
    if strange:
        raise TypeError(
            f"A constraint or objective can't take {shortened(strange[0])} of type "
            f"{type(strange[0]).__name__}: give real numbers, expressions, or an array of these"
        )
    return None


def difference(left, right):
    """``left - right`` as (shape, Rows, right-hand side): rows of coefficients <sense> rhs.

    The two sides broadcast against each other. The right-hand side is a new, flat array; the
    rows may share arrays with the sides.
    """
    shape = broadcast_shape(left.shape, right.shape)
    rows = _csr.difference_of_rows(left.rows, right.rows, left.shape, right.shape, shape)
    return shape, rows, right_hand_side(left, right, shape)


def broadcast_shape(left, right):
    """The shape of a constraint between sides of two shapes."""
    if left == right:
        return left
    try:
        return np.broadcast_shapes(left, right)
    except ValueError:
        raise ValueError(
            f"The sides of the constraint have shapes {left} and {right}, which don't broadcast: "
            f"make them equal, or reshape one of them"
        ) from None


def right_hand_side(left, right, shape):
    """The constants moved to the right, as a new flat array; NaN is refused."""
    with np.errstate(invalid="ignore"):
        moved = right.constant - left.constant
    rhs = np.array(np.broadcast_to(moved, shape), np.float64).reshape(-1)
    if np.isnan(rhs).any():
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT,
            f"Row {int(np.argmax(np.isnan(rhs)))} of the constraint has the right-hand side NaN: "
            f"check the data for missing values",
        )
    return rhs


def check_coefficients(model, rows, noun="constraint"):
    """Refuse coefficients that aren't finite."""
    if rows.finite or np.isfinite(rows.data).all():
        return
    at = int(np.argmin(np.isfinite(rows.data)))
    row = int(np.searchsorted(rows.indptr, at, side="right")) - 1
    name = model._tables[1].names.get([int(rows.ids[at])])[0]
    raise TaviroError(
        TVO.Error.ERROR_INVALID_ARGUMENT,
        f"Row {row} of the {noun} has the coefficient {rows.data[at]} of variable '{name}': "
        f"coefficients must be finite",
    )


class RowStore:
    """The coefficients of all constraints of a kind, block by block, keyed by the rows' ids.

    A removed row or variable stays in its block until the rows are asked for.
    """

    def __init__(self):
        self._blocks = []  # Rows, in order of creation
        self._ends = []  # id after the last row of each block

    def add(self, rows):
        """Append rows. Their arrays are kept and must not change any more."""
        self._blocks.append(rows)
        self._ends.append((self._ends[-1] if self._ends else 0) + rows.count)

    def keep_by_column(self, columns):
        """Keep all rows as one matrix by columns instead; every row and column is in place."""
        self._blocks = [columns]
        self._ends = [columns.count]

    def select(self, table, first):
        """Rows of the placed constraints from index `first` on; `table` is the constraints'."""
        if first >= table.placed:
            return _csr.empty(0)
        ids = None if table.ids is None else table.ids[first : table.placed]
        first_id = first if ids is None else int(ids[0])
        end_id = table.placed if ids is None else int(ids[-1]) + 1
        first_block = bisect_right(self._ends, first_id)
        end_block = bisect_left(self._ends, end_id) + 1
        start_id = self._ends[first_block - 1] if first_block else 0
        rows = _csr.stack([block.by_row() for block in self._blocks[first_block:end_block]])
        if ids is not None:
            return _csr.take(rows, ids - start_id)
        if start_id < first_id or rows.count > end_id - first_id:
            return _csr.take(rows, np.arange(first_id - start_id, end_id - start_id))
        return rows


def rows_by_column(model, rows):
    """Rows of ids as rows of column numbers, each column once a row, removed variables left out."""
    if not model._all_in_place(1):
        rows = _csr.renumber(rows, model._numbers(1))
    return _csr.without_repeats(rows, model._tables[1].placed)
