"""From comparisons of expressions to constraints: everything is read and checked before the first
change, so that a refused call leaves the model as it was."""

from __future__ import annotations

from typing import Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

from .._exception import TaviroError
from .._matrixapi import MConstr, MGenConstr, MLinExpr, MNLExpr, MQConstr, MVar
from .._scalars import NLExpr, TempConstr, Var, _ExprTree, gather_trees, holds_left_alone
from .._tvo import TVO
from .attributes import BINARY, CHARACTERS, EQUAL, GREATER, LESS, VARIABLE
from .model_data import ModelData
from .quadratic import first_ids
from .rows import Rows, broadcast_rows
from .sides import (
    both_sides,
    broadcast_shape,
    check_coefficients,
    difference,
    linear_side,
    quadratic_side,
)
from .trees import Trees
from .values import Floats, Ids, Shape, checked_names, invalid

_SENSES = {character: code for code, character in enumerate(CHARACTERS["Sense"])}
_TURNED = {LESS: GREATER, EQUAL: EQUAL, GREATER: LESS}


def add_constr(data: ModelData, constr: TempConstr, name: Any, is_lone: bool = False) -> Any:
    """Add a comparison; returns the handle or the matrix of handles.

    `is_lone` tells that the caller is the only one to hold `constr`.
    """
    sense = _sense_code(constr)
    sides = both_sides(constr)
    left, right = (linear_side(data, side) for side in sides)
    if left is None or right is None:
        return _add_higher(data, sides, sense, name)
    shape, rows, _, rhs = difference(left, right)
    check_coefficients(data, rows, rows.ids)
    names = checked_names(name, shape)
    if rows.shared and not (right.rows is None and is_lone and _holds_left_alone(constr)):
        rows = rows.copy()
    is_matrix = left.is_matrix or right.is_matrix
    made = data.make_linear(shape if is_matrix else None, names, rows, rhs, sense)
    return MConstr(made) if is_matrix else made


def linear_rows(data: ModelData, constr: Any) -> tuple[Rows, Floats, Floats]:
    """A linear comparison as rows of column numbers and their sides; nothing is added."""
    if type(constr) is not TempConstr:
        raise TypeError(
            f"A linear comparison such as 'A @ x <= b' is needed, not {type(constr).__name__}"
        )
    sense = _sense_code(constr)
    left, right = (linear_side(data, side) for side in both_sides(constr))
    if left is None or right is None:
        raise TypeError("A linear comparison is needed: this one is quadratic or nonlinear")
    _, rows, _, rhs = difference(left, right)
    check_coefficients(data, rows, rows.ids)
    lower = np.where(sense == LESS, -np.inf, rhs)
    return data.by_column_number(rows), lower, np.where(sense == GREATER, np.inf, rhs)


def _holds_left_alone(constr: TempConstr) -> bool:
    """Whether nobody but a comparison holds the arrays of its left side, a compact MLinExpr."""
    return type(constr.lhs) is MLinExpr and holds_left_alone(constr)


def _sense_code(constr: TempConstr) -> int:
    code = _SENSES.get(constr.sense)
    if code is None:
        raise invalid(f"There is no sense {constr.sense!r}: use '<', '=' or '>'")
    return code


def _add_higher(data: ModelData, sides: tuple[Any, Any], sense: int, name: Any) -> Any:
    """Add a comparison in which a side isn't linear."""
    left, right = (quadratic_side(data, side) for side in sides)
    if left is None or right is None:
        return _add_nonlinear_comparison(data, sides, sense, name)
    shape, rows, pairs, rhs = difference(left, right)
    pairs = Rows.empty(rows.count) if pairs is None else pairs
    check_coefficients(data, rows, rows.ids)
    check_coefficients(data, pairs, first_ids(pairs))
    names = checked_names(name, shape)
    is_matrix = left.is_matrix or right.is_matrix
    rows, pairs = (each.copy() if each.shared else each for each in (rows, pairs))
    made = data.make_quadratic(shape if is_matrix else None, names, rows, pairs, rhs, sense)
    return MQConstr(made) if is_matrix else made


# Nonlinear constraints


def _add_nonlinear_comparison(
    data: ModelData, sides: tuple[Any, Any], sense: int, name: Any
) -> Any:
    """Add a comparison with a nonlinear side: it goes to the left, as a tree.

    On the right stays a variable or a number; any other expression becomes part of the tree.
    """
    left, right = (
        np.asarray(side, dtype=object) if isinstance(side, list | tuple) else side for side in sides
    )
    if not _is_nonlinear(left):
        left, right, sense = right, left, _TURNED[sense]
    if isinstance(right, Var | MVar):
        return add_nonlinear(data, right, left, name, sense)
    side = linear_side(data, right)
    if side is not None and side.rows is None:
        return _add_trees(data, _Roots.of(left), None, None, side.constant, sense, name)
    roots = _Roots.of(left).minus(_Roots.of(right))
    return _add_trees(data, roots, None, None, np.float64(0.0), sense, name)


def _is_nonlinear(side: Any) -> bool:
    if isinstance(side, np.ndarray) and side.dtype.kind == "O":
        return any(isinstance(element, NLExpr) for element in side.flat)
    return isinstance(side, NLExpr | MNLExpr)


def add_nonlinear(data: ModelData, result: Any, expr: Any, name: Any, sense: int = EQUAL) -> Any:
    """Add ``expr <sense> result`` for each pair of elements; returns the handle or matrix."""
    if not isinstance(result, Var | MVar):
        raise TypeError(
            f"The result of a nonlinear constraint is a variable, not {type(result).__name__}: "
            f"add one and set it equal to the expression"
        )
    shape = result.shape if isinstance(result, MVar) else None
    ids = data.ids(VARIABLE, result._vararr if isinstance(result, MVar) else result)
    return _add_trees(data, _Roots.of(expr), shape, ids, np.float64(0.0), sense, name)


def _add_trees(
    data: ModelData,
    roots: _Roots,
    result_shape: Shape | None,
    results: Ids | None,
    rhs: Any,
    sense: int,
    name: Any,
) -> Any:
    """Add ``roots - x[results] <sense> rhs``; all broadcast against each other."""
    is_matrix = roots.is_matrix or result_shape is not None or rhs.ndim > 0
    shape = broadcast_shape(broadcast_shape(result_shape or (), roots.nodes.shape), rhs.shape)
    trees = Trees(*gather_trees(data, roots.nodes))
    which = np.broadcast_to(np.arange(trees.count).reshape(roots.nodes.shape), shape).reshape(-1)
    if len(which) != trees.count:
        trees = trees.take(which)
    variables: Any = -1
    if results is not None:
        variables = np.broadcast_to(results.reshape(result_shape or ()), shape).reshape(-1)
    made = data.make_nonlinear(
        shape if is_matrix else None,
        checked_names(name, shape),
        variables,
        trees,
        _flat_side(rhs, shape),
        sense,
    )
    return MGenConstr(made) if is_matrix else made


def _flat_side(rhs: Any, shape: Shape) -> Floats:
    flat: Floats = np.broadcast_to(rhs, shape).reshape(-1)
    if np.isnan(flat).any():
        raise invalid(
            f"Row {int(np.argmax(np.isnan(flat)))} of the constraint has the right-hand side NaN: "
            f"check the data for missing values"
        )
    return flat


class _Roots(NamedTuple):
    """The trees of an expression as an object array, and whether it is a matrix expression."""

    nodes: NDArray[np.object_]
    is_matrix: bool

    @classmethod
    def of(cls, expr: Any) -> _Roots:
        if isinstance(expr, np.ndarray) and expr.dtype.kind == "O":
            nodes = np.frompyfunc(NLExpr._coerce_to_exprtree, 1, 1)(expr)
            return cls(np.asarray(nodes, np.object_), True)
        if hasattr(expr, "shape") and not isinstance(expr, np.generic):
            nodes = MNLExpr._coerce_to_exprtree_array(expr)
            return cls(np.asarray(nodes, dtype=np.object_), True)
        nodes = np.empty((), dtype=np.object_)
        nodes[()] = NLExpr._coerce_to_exprtree(expr)
        return cls(nodes, False)

    def minus(self, other: _Roots) -> _Roots:
        broadcast_shape(self.nodes.shape, other.nodes.shape)
        difference = np.frompyfunc(_ExprTree._from_minus, 2, 1)(self.nodes, other.nodes)
        return _Roots(np.asarray(difference, np.object_), self.is_matrix or other.is_matrix)


# Indicator constraints


def add_indicator(data: ModelData, binvar: Any, binval: Any, constr: Any, name: Any) -> Any:
    """Add ``binvar == binval`` implies `constr`, element by element."""
    if not isinstance(constr, TempConstr):
        raise TypeError(
            f"An indicator constraint needs a comparison of expressions, not "
            f"{type(constr).__name__}"
        )
    if not isinstance(binvar, Var | MVar):
        raise TypeError(f"An indicator needs a binary Var or MVar, not {type(binvar).__name__}")
    sense = _sense_code(constr)
    left, right = (linear_side(data, side) for side in both_sides(constr))
    if left is None or right is None:
        raise TaviroError(
            TVO.Error.NOT_SUPPORTED,
            "The constraint behind an indicator must be linear: set a new variable equal to the "
            "quadratic or nonlinear expression, and compare that",
        )
    row_shape, rows, _, rhs = difference(left, right)
    check_coefficients(data, rows, rows.ids)
    binaries = _checked_binaries(data, binvar)
    values = np.asarray(binval)
    if values.dtype.kind not in "biuf" or not np.isin(values, (0, 1)).all():
        raise invalid(f"An indicator's value is 0 or 1, not {binval!r}")
    shape = broadcast_shape(broadcast_shape(binaries.shape, values.shape), row_shape)
    rows = broadcast_rows(rows, row_shape, shape)
    is_matrix = left.is_matrix or right.is_matrix or isinstance(binvar, MVar) or shape != ()
    made = data.make_indicator(
        shape if is_matrix else None,
        checked_names(name, shape),
        np.broadcast_to(binaries, shape).reshape(-1),
        np.broadcast_to(values, shape).reshape(-1),
        rows.copy() if rows.shared else rows,
        np.broadcast_to(rhs.reshape(row_shape), shape).reshape(-1),
        sense,
    )
    return MGenConstr(made) if is_matrix else made


def _checked_binaries(data: ModelData, binvar: Any) -> Ids:
    ids = data.ids(VARIABLE, binvar._vararr if isinstance(binvar, MVar) else binvar)
    types = data.variables["VType"][data.variables.positions(ids)]
    if (types != BINARY).any():
        where = int(np.argmax(types != BINARY))
        raise invalid(
            f"The indicator '{data.element_name(VARIABLE, int(ids[where]))}' is not binary: set "
            f"its VType to 'B'"
        )
    return ids.reshape(binvar.shape if isinstance(binvar, MVar) else ())
