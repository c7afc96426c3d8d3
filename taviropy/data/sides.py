"""From what stands on the two sides of a comparison to the rows of a constraint."""

from __future__ import annotations

from collections.abc import Iterator
from decimal import Decimal
from numbers import Real
from typing import Any

import numpy as np
from numpy.typing import NDArray

from .._matrixapi import MLinExpr, MNLExpr, MQuadExpr, MVar
from .._scalars import (
    LinExpr,
    ModelCore,
    NLExpr,
    QuadExpr,
    TempConstr,
    Var,
    gather_linear,
    gather_quadratic,
    product_rows,
)
from .._util import _dense_array
from .attributes import VARIABLE
from .quadratic import Terms, first_ids, packed, second_ids
from .rows import Rows, difference_of_rows, side_by_side
from .values import Floats, Ids, Shape, invalid, refuse_masked, shortened

_LINEAR = (Var, LinExpr, int, float, Real, Decimal, np.bool)
_HIGHER = (QuadExpr, NLExpr, MQuadExpr, MNLExpr)


class Side:
    """One side of a comparison: coefficients and a constant for each element of its shape."""

    __slots__ = ("shape", "is_matrix", "rows", "constant", "pairs")

    def __init__(
        self,
        shape: Shape,
        is_matrix: bool,
        rows: Rows | None,
        constant: Any,
        pairs: Rows | None = None,
    ) -> None:
        self.shape = shape
        self.is_matrix = is_matrix
        self.rows = rows  # None where there are no variables
        self.constant = constant  # float64, of `shape`
        self.pairs = pairs  # quadratic terms, as packed rows, or None


def both_sides(constr: TempConstr) -> tuple[Any, Any]:
    """What a comparison compares; beside an empty block a complex number, else refused, is fine."""
    lhs, rhs = constr.lhs, constr.rhs
    is_vacuous = isinstance(rhs, complex) and getattr(lhs, "size", 1) == 0
    return lhs, 0.0 if is_vacuous else rhs


# Linear sides


def linear_side(core: ModelCore, operand: Any, unfilled: bool = True) -> Side | None:
    """`operand` as a `Side`, or None where it isn't linear.

    The arrays of the result may be the operand's own; the operand keeps its form. `unfilled` tells
    that None in an object array, a slot that nobody filled, counts as the empty LinExpr().
    """
    kind = type(operand)
    if kind is MLinExpr or isinstance(operand, MLinExpr):
        return _side_of_mlinexpr(core, operand)
    if kind is Var or kind is LinExpr:
        return _side_of_exprs(core, [operand], (), False)
    if isinstance(operand, MVar):
        return _side_of_mvar(core, operand)
    return _side_of_data(core, operand, unfilled)


def _side_of_mlinexpr(core: ModelCore, expr: Any) -> Side:
    if expr._matmulparts is None:
        return _side_of_exprs(core, expr._learr, expr._learr.shape, True)
    constant = expr._const
    parts = [_rows_of_product(core, A, x, constant.size) for A, x in expr._matmulparts]
    return Side(constant.shape, True, side_by_side(parts) if parts else None, constant)


def _rows_of_product(core: ModelCore, A: Any, x: Any, count: int) -> Rows:
    """Rows of ``A @ x`` for a CSR matrix and a one-dimensional MVar."""
    indptr, indices, data = map(np.ascontiguousarray, (A.indptr, A.indices, A.data))
    known = None
    if len(indptr) == count + 1:
        known = product_rows(core, x._vararr, indptr, indices, data)
    if known is None:
        raise ValueError(
            f"The matrix of shape {A.shape} in the constraint is malformed: its indptr must have "
            f"{count + 1} entries that start at 0, never fall and end within its data, and its "
            f"indices must be below {x.size}; build it anew, for instance with "
            f"scipy.sparse.csr_matrix"
        )
    nnz = int(indptr[-1])
    ids: Ids | None
    ids, finite, rising = known
    if ids is None:
        ids = indices[:nnz].astype(np.int32, copy=False)
    return Rows(indptr, ids, data[:nnz], shared=True, finite=finite, rising=rising)


def _side_of_mvar(core: ModelCore, x: Any) -> Side:
    ids = core.ids(VARIABLE, x._vararr)
    count = len(ids)
    indptr = np.arange(count + 1, dtype=np.int32)
    rows = Rows(indptr, ids, np.ones(count), finite=True, rising=True)
    return Side(x.shape, True, rows, np.zeros(x.shape))


def _side_of_exprs(core: ModelCore, exprs: Any, shape: Shape, is_matrix: bool) -> Side:
    indptr, ids, data, constants = gather_linear(core, exprs)
    return Side(shape, is_matrix, Rows(indptr, ids, data), constants.reshape(shape))


def _side_of_data(core: ModelCore, operand: Any, unfilled: bool) -> Side | None:
    """Numbers, arrays, sparse matrices, lists; also arrays of scalar expressions."""
    if isinstance(operand, int | float):
        return Side((), False, None, np.float64(operand))
    if hasattr(operand, "toarray"):
        operand = _dense_array(operand)
    if isinstance(operand, _HIGHER):
        return None
    if hasattr(operand, "to_numpy"):
        raise TypeError(
            f"A {type(operand).__name__} is no side of a constraint, where its index would count "
            f"for nothing: give its numbers in order, by .to_numpy()"
        )
    array = np.asarray(operand)
    refuse_masked("A constraint", operand)
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
        return _side_of_exprs(core, array, array.shape, is_matrix)
    strange = [each for each in other if not isinstance(each, _HIGHER)]
    if strange:
        raise TypeError(
            f"A constraint or objective can't take {shortened(strange[0])} of type "
            f"{type(strange[0]).__name__}: give real numbers, expressions, or an array of these"
        )
    return None


# Quadratic sides


def quadratic_side(core: ModelCore, operand: Any) -> Side | None:
    """`operand` as a `Side`, or None where it is neither linear nor quadratic."""
    linear = linear_side(core, operand, unfilled=False)
    if linear is not None:
        return linear
    if isinstance(operand, QuadExpr):
        return _side_of_quadexprs(core, [operand], (), False)
    if isinstance(operand, MQuadExpr):
        return _side_of_mquadexpr(core, operand)
    if isinstance(operand, list | tuple):
        operand = np.asarray(operand, dtype=object)
    if isinstance(operand, np.ndarray) and not any(isinstance(v, NLExpr) for v in operand.flat):
        return _side_of_quadexprs(core, operand, operand.shape, True)
    return None


def _side_of_quadexprs(core: ModelCore, exprs: Any, shape: Shape, is_matrix: bool) -> Side:
    qptr, ids1, ids2, qdata, indptr, ids, data, constants = gather_quadratic(core, exprs)
    pairs = Rows(qptr, packed(ids1, ids2), qdata)
    return Side(shape, is_matrix, Rows(indptr, ids, data), constants.reshape(shape), pairs)


def _side_of_mquadexpr(core: ModelCore, expr: Any) -> Side:
    linear = _side_of_mlinexpr(core, expr._ndle)
    if expr._quadparts is None:
        qptr, ids1, ids2, data = gather_quadratic(core, expr._qearr)[:4]
        parts = [Rows(qptr, packed(ids1, ids2), data)]
    else:
        parts = [
            Rows(np.array([0, len(data)]), packed(ids1, ids2), data.copy())
            for ids1, ids2, data in quadratic_products(core, expr)
        ]
    linear.pairs = side_by_side(parts) if parts else None
    return linear


def quadratic_products(core: ModelCore, expr: Any) -> Iterator[Terms]:
    """The terms of each part of a compact MQuadExpr; the arrays may be the part's own."""
    for x, Q, y in expr._quadparts:
        ids1, ids2 = _ids_at(core, x, Q.row), _ids_at(core, y, Q.col)
        if not len(ids1) == len(ids2) == len(Q.data):
            raise ValueError(
                f"The matrix of a quadratic expression is malformed: it has {len(Q.data)} "
                f"coefficients at {len(ids1)} rows and {len(ids2)} columns; build it anew"
            )
        yield ids1, ids2, Q.data


def _ids_at(core: ModelCore, x: Any, index: NDArray[Any]) -> NDArray[Any]:
    """Ids of the variables x[index]."""
    ids = core.ids(VARIABLE, x._vararr)
    if len(index) and (index.min() < 0 or index.max() >= len(ids)):
        raise ValueError(
            f"The matrix of a quadratic expression is malformed: it has indices from "
            f"{index.min()} to {index.max()} for {len(ids)} variables; build it anew"
        )
    return index if np.array_equal(ids, np.arange(len(ids))) else ids[index]


def terms_of(side: Side) -> Terms:
    """All quadratic terms of a side of one element."""
    assert side.pairs is not None
    return first_ids(side.pairs), second_ids(side.pairs), side.pairs.data


# Both sides together


def difference(left: Side, right: Side) -> tuple[Shape, Rows, Rows | None, Floats]:
    """``left - right`` as (shape, rows, pairs, right-hand side): rows and pairs <sense> rhs.

    The two sides broadcast against each other. The right-hand side is a new, flat array; the
    rows may share arrays with the sides. The pairs are None where both sides are linear.
    """
    shape = broadcast_shape(left.shape, right.shape)
    rows = difference_of_rows(left.rows, right.rows, left.shape, right.shape, shape)
    pairs = None
    if left.pairs is not None or right.pairs is not None:
        pairs = difference_of_rows(left.pairs, right.pairs, left.shape, right.shape, shape)
    return shape, rows, pairs, _right_hand_side(left, right, shape)


def broadcast_shape(left: Shape, right: Shape) -> Shape:
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


def _right_hand_side(left: Side, right: Side, shape: Shape) -> Floats:
    """The constants moved to the right, as a new flat array; NaN is refused."""
    with np.errstate(invalid="ignore"):
        moved = right.constant - left.constant
    rhs = np.array(np.broadcast_to(moved, shape), np.float64).reshape(-1)
    if np.isnan(rhs).any():
        raise invalid(
            f"Row {int(np.argmax(np.isnan(rhs)))} of the constraint has the right-hand side NaN: "
            f"check the data for missing values"
        )
    return rhs


def check_coefficients(core: ModelCore, rows: Rows, ids: Ids, noun: str = "constraint") -> None:
    """Refuse coefficients that aren't finite; `ids` are a variable of each."""
    if rows.finite or np.isfinite(rows.data).all():
        return
    at = int(np.argmin(np.isfinite(rows.data)))
    row = int(np.searchsorted(rows.indptr, at, side="right")) - 1
    name = core.element_name(VARIABLE, int(ids[at]))
    raise invalid(
        f"Row {row} of the {noun} has the coefficient {rows.data[at]} of variable '{name}': "
        f"coefficients must be finite"
    )
