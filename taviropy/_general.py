"""Quadratic, nonlinear and indicator constraints: from expressions to what an engine is given."""

from __future__ import annotations

import numpy as np

from . import _csr
from ._attrutil import CHARACTERS, GENERAL, QUADRATIC, VARIABLE
from ._build import SENSES, checked_names, name_block
from ._exception import TaviroError
from ._linear import (
    both_sides,
    broadcast_shape,
    check_coefficients,
    difference,
    linear_side,
)
from ._matrixapi import MGenConstr, MNLExpr, MQConstr, MVar
from ._quadratic import check_quadratic, quadratic_difference, quadratic_side
from ._scalars import NLExpr, TempConstr, Var
from ._tvo import TVO

_BINARY = CHARACTERS["VType"].index("B")


class NonlinearConstr:
    """``result == root``: the id of a variable, and an expression tree."""

    __slots__ = ("result", "root")
    kind = TVO.GenKind.NONLINEAR

    def __init__(self, result, root):
        self.result = result
        self.root = root


class IndicatorConstr:
    """``binary == value`` implies ``sum of data[k] * x[ids[k]] <sense> rhs``."""

    __slots__ = ("binary", "value", "ids", "data", "sense", "rhs")
    kind = TVO.GenKind.INDICATOR

    def __init__(self, binary, value, ids, data, sense, rhs):
        self.binary = binary
        self.value = value
        self.ids = ids
        self.data = data
        self.sense = sense
        self.rhs = rhs


# Quadratic constraints


def add_higher_constr(model, constr, name):
    """Add a comparison in which a side isn't linear; returns the handle or matrix of handles."""
    if isinstance(constr.lhs, NLExpr | MNLExpr) or isinstance(constr.rhs, NLExpr | MNLExpr):
        return _add_nonlinear_comparison(model, constr, name)
    left, right = (quadratic_side(model, side) for side in both_sides(constr))
    shape, linear, quadratic, rhs = quadratic_difference(left, right)
    check_coefficients(model, linear)
    check_quadratic(model, quadratic)
    names = checked_names(name, shape)
    is_matrix = left.linear.is_matrix or right.linear.is_matrix
    made = model._new_elements(QUADRATIC, shape) if is_matrix else model._new_element(QUADRATIC)
    table = model._tables[QUADRATIC]
    name_block(table, names, shape)
    table.extend(linear.count, QRHS=rhs, QSense=SENSES[constr.sense])
    for store, rows in zip(model._quadratic_rows, (linear, quadratic), strict=True):
        store.add(rows.copy() if rows.shared else rows)
    return MQConstr(made) if is_matrix else made


# Nonlinear constraints


def _add_nonlinear_comparison(model, constr, name):
    result, expr = constr.lhs, constr.rhs
    if not isinstance(expr, NLExpr | MNLExpr):
        result, expr = expr, result
    if constr.sense != TVO.EQUAL or not isinstance(result, Var | MVar):
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT,
            "A nonlinear constraint has the form 'y == expression' with a variable y: add a "
            "variable with the bounds that the expression is to keep, and set it equal",
        )
    if isinstance(expr, MNLExpr):
        return expr._addAsConstr(model, result, name)  # type: ignore[attr-defined]
    return model.addGenConstrNL(result, expr, name)


def add_nonlinear(model, result, expr, name):
    """Add ``result == expr`` for each pair of elements; returns the handle or matrix."""
    if not isinstance(result, Var | MVar):
        raise TypeError(
            f"The result of a nonlinear constraint is a variable, not {type(result).__name__}: "
            f"add one and set it equal to the expression"
        )
    roots, is_matrix = _roots(expr)
    results = model._ids(VARIABLE, result._vararr if isinstance(result, MVar) else result)
    result_shape = result.shape if isinstance(result, MVar) else ()
    shape = broadcast_shape(result_shape, roots.shape)
    for root in roots.flat:
        check_tree(model, root)
    pairs = zip(
        np.broadcast_to(results.reshape(result_shape), shape).flat,
        np.broadcast_to(roots, shape).flat,
        strict=True,
    )
    constrs = [NonlinearConstr(int(number), root) for number, root in pairs]
    return _add_general(model, constrs, shape, is_matrix or isinstance(result, MVar), name)


def _roots(expr):
    """The trees of an expression as an object array, and whether it is a matrix expression."""
    if hasattr(expr, "shape") and not isinstance(expr, np.generic):
        coerce = MNLExpr._coerce_to_exprtree_array  # type: ignore[attr-defined]
        return np.asarray(coerce(expr), dtype=np.object_), True
    roots = np.empty((), dtype=object)
    roots[()] = NLExpr._coerce_to_exprtree(expr)
    return roots, False


def check_tree(model, root):
    """Refuse a tree with variables of another model or removed ones."""
    variables, waiting, seen = [], [root], set()
    while waiting:
        node = waiting.pop()
        if id(node) in seen:
            continue
        seen.add(id(node))
        if node.op == "var":
            variables.append(node.data)
        waiting.extend(node.children)
    model._ids(VARIABLE, variables)


# Indicator constraints


def add_indicator(model, binvar, binval, constr, name):
    """Add ``binvar == binval`` implies `constr`, element by element."""
    if not isinstance(constr, TempConstr):
        raise TypeError(
            f"An indicator constraint needs a comparison of expressions, not "
            f"{type(constr).__name__}"
        )
    if not isinstance(binvar, Var | MVar):
        raise TypeError(f"An indicator needs a binary Var or MVar, not {type(binvar).__name__}")
    left, right = linear_side(model, constr.lhs), linear_side(model, constr.rhs)
    if left is None or right is None:
        raise TaviroError(
            TVO.Error.NOT_SUPPORTED,
            "The constraint behind an indicator must be linear: set a new variable equal to the "
            "quadratic or nonlinear expression, and compare that",
        )
    row_shape, rows, rhs = difference(left, right)
    check_coefficients(model, rows)
    binaries = _checked_binaries(model, binvar)
    values = np.asarray(binval)
    if values.dtype.kind not in "biuf" or not np.isin(values, (0, 1)).all():
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT, f"An indicator's value is 0 or 1, not {binval!r}"
        )
    shape = broadcast_shape(broadcast_shape(binaries.shape, values.shape), row_shape)
    rows = _csr.difference_of_rows(rows, None, row_shape, None, shape)
    rhs = np.broadcast_to(rhs.reshape(row_shape), shape).reshape(-1)
    binaries = np.broadcast_to(binaries, shape).reshape(-1)
    values = np.broadcast_to(values, shape).reshape(-1)
    constrs = []
    for k in range(rows.count):
        part = slice(rows.indptr[k], rows.indptr[k + 1])
        constrs.append(
            IndicatorConstr(
                int(binaries[k]),
                bool(values[k]),
                rows.ids[part].copy(),
                rows.data[part].copy(),
                constr.sense,
                float(rhs[k]),
            )
        )
    is_matrix = left.is_matrix or right.is_matrix or isinstance(binvar, MVar) or shape != ()
    return _add_general(model, constrs, shape, is_matrix, name)


def _checked_binaries(model, binvar):
    from ._build import positions_of

    ids = model._ids(VARIABLE, binvar._vararr if isinstance(binvar, MVar) else binvar)
    types = model._tables[VARIABLE]["VType"][positions_of(model, VARIABLE, ids)]
    if (types != _BINARY).any():
        where = int(np.argmax(types != _BINARY))
        name = model._tables[VARIABLE].names.get([int(ids[where])])[0]
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT,
            f"The indicator '{name}' is not binary: set its VType to 'B'",
        )
    return ids.reshape(binvar.shape if isinstance(binvar, MVar) else ())


def _add_general(model, constrs, shape, is_matrix, name):
    names = checked_names(name, shape)
    made = model._new_elements(GENERAL, shape) if is_matrix else model._new_element(GENERAL)
    table = model._tables[GENERAL]
    name_block(table, names, shape)
    model._general.update(enumerate(constrs, table.created))
    table.extend(len(constrs), GenKind=[constr.kind for constr in constrs])
    return MGenConstr(made) if is_matrix else made
