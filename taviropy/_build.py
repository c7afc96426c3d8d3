"""Adding to a model, removing from it, and placing what waits: the work behind Model's methods.

Everything is checked before the first change, so that a refused call leaves the model as it was.
"""

from __future__ import annotations

import operator

import numpy as np

from ._attrutil import CHARACTERS, GENERAL, LINEAR, QUADRATIC, VARIABLE, convert
from ._csr import Rows
from ._exception import TaviroError
from ._linear import (
    RowStore,
    both_sides,
    check_coefficients,
    difference,
    linear_side,
    rows_by_column,
)
from ._matrixapi import MConstr, MLinExpr, MVar
from ._objective import Objective, parse_objective
from ._scalars import Constr, GenConstr, QConstr, RowBuffer, Var
from ._session import Session
from ._table import Table
from ._tvo import TVO

_NAN, _INF = float("nan"), float("inf")
_VTYPES = {character: code for code, character in enumerate(CHARACTERS["VType"])}
SENSES = {character: code for code, character in enumerate(CHARACTERS["Sense"])}
_BINARY = _VTYPES["B"]


def new_state(name, engine):
    """The instance fields of a new model."""
    variables = {"LB": np.float64, "UB": np.float64, "Obj": np.float64, "VType": np.uint8}
    linear = {"RHS": np.float64, "Sense": np.uint8}
    quadratic = {"QRHS": np.float64, "QSense": np.uint8}
    return {
        "_closed": False,
        "_name": name,
        "_tables": {
            VARIABLE: Table("C", variables, {"Start": _NAN}),
            LINEAR: Table("R", linear, {"Low": -_INF}),
            QUADRATIC: Table("QC", quadratic),
            GENERAL: Table("GC", {"GenKind": np.int32}),
        },
        "_row_buffer": RowBuffer(MLinExpr),
        "_linear_rows": RowStore(),
        "_quadratic_rows": (RowStore(), RowStore()),  # linear and quadratic terms
        "_general": {},  # id: NonlinearConstr or IndicatorConstr
        "_objective": Objective(),
        "_session": Session(engine),
    }


# Variables


def add_var(model, lb, ub, obj, vtype, name):
    """Append the data of one variable; the caller makes the handle."""
    code = _VTYPES.get(vtype, -1) if isinstance(vtype, str) else -1
    try:
        lb, ub, obj = float(lb + 0.0), float(ub + 0.0), float(obj + 0.0)  # no text
    except (TypeError, ValueError, OverflowError):
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT,
            f"A variable takes real numbers, not lb={lb!r}, ub={ub!r}, obj={obj!r}",
        ) from None
    if code < 0 or lb != lb or ub != ub or not -_INF < obj < _INF:
        _check_columns(np.float64(lb), np.float64(ub), np.float64(obj), vtype, code)
    if code == _BINARY:
        lb, ub = max(lb, 0.0), min(ub, 1.0)
    table = model._tables[VARIABLE]
    if name:
        table.names.add_one(table.created, str(name))
    table.append(lb, ub, obj, code)


def add_mvar(model, shape, lb, ub, obj, vtype, name):
    """Append a block of variables and return its MVar."""
    shape = _checked_shape(shape)
    lb = _column_data("lb", lb, shape)
    ub = _column_data("ub", ub, shape)
    obj = _column_data("obj", obj, shape)
    codes = _type_codes(vtype, shape)
    _check_columns(lb, ub, obj, vtype, codes)
    binary = codes == _BINARY
    if np.any(binary):
        lb = np.where(binary, np.maximum(lb, 0.0), lb)
        ub = np.where(binary, np.minimum(ub, 1.0), ub)
    table = model._tables[VARIABLE]
    names = checked_names(name, shape)
    elements = model._new_elements(VARIABLE, shape)
    name_block(table, names, shape)
    table.extend(elements.size, LB=lb, UB=ub, Obj=obj, VType=codes)
    return MVar(elements)


def _checked_shape(shape):
    try:
        shape = (operator.index(shape),)
    except TypeError:
        try:
            shape = tuple(operator.index(length) for length in shape)
        except TypeError:
            raise ValueError(f"A shape is an int or a tuple of ints, not {shape!r}") from None
    if any(length < 0 for length in shape):
        raise ValueError(f"The shape {shape} has a negative length")
    return shape


def _column_data(noun, value, shape):
    """A float64 scalar, or a flat array with one entry a variable."""
    try:
        array = np.asarray(value)
        if array.dtype.kind not in "biuf":
            if array.dtype.kind != "O":
                raise TypeError
            array = array.astype(np.float64)
    except (TypeError, ValueError):
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT, f"'{noun}' takes real numbers, not {value!r}"
        ) from None
    if array.ndim == 0:
        return np.float64(array[()])
    return _spread(noun, array, shape).astype(np.float64, copy=False)


def _spread(noun, array, shape):
    try:
        return np.broadcast_to(array, shape).reshape(-1)
    except ValueError:
        raise ValueError(
            f"'{noun}' of shape {array.shape} doesn't broadcast to the variables' shape {shape}: "
            f"give a scalar or an array of that shape"
        ) from None


def _type_codes(vtype, shape):
    """Codes of variable types, -1 for unknown ones: a scalar or a flat array."""
    if isinstance(vtype, str):
        return _VTYPES.get(vtype, -1)
    array = np.asarray(vtype)
    if array.ndim == 0:
        return -1
    codes = np.full(array.shape, -1, np.int8)
    for character, code in _VTYPES.items():
        codes[array == character] = code
    return _spread("vtype", codes, shape)


def _check_columns(lb, ub, obj, vtype, codes):
    """Refuse NaN, costs that aren't finite, and unknown types."""
    for noun, values, bad in (
        ("lb", lb, np.isnan(lb)),
        ("ub", ub, np.isnan(ub)),
        ("obj", obj, ~np.isfinite(obj)),
    ):
        if np.any(bad):
            where = int(np.argmax(bad))
            place = f" of element {where}" if np.ndim(values) else ""
            need = "a finite number" if noun == "obj" else "a number or infinite"
            raise TaviroError(
                TVO.Error.ERROR_INVALID_ARGUMENT,
                f"'{noun}'{place} is {np.ravel(values)[where]}: it must be {need}",
            )
    if np.any(np.asarray(codes) < 0):
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT,
            f"There is no variable type {vtype!r}: use 'C' (continuous), 'B' (binary) or "
            f"'I' (integer)",
        )


def checked_names(name, shape):
    """A base name (str, empty for none), or a list of names, one an element in C order."""
    if isinstance(name, str):
        return name
    if name is None:
        return ""
    array = np.asarray(name)
    if array.dtype.kind not in "UO" or not all(isinstance(text, str) for text in array.flat):
        raise TaviroError(TVO.Error.ERROR_INVALID_ARGUMENT, f"'name' takes text, not {name!r}")
    return [str(text) for text in _spread("name", array, shape)]


def name_block(table, names, shape):
    """Name the block of elements that is about to be added to the table."""
    if isinstance(names, list):
        table.names.set(zip(range(table.created, table.created + len(names)), names, strict=True))
    elif names:
        table.names.add_block(table.created, shape, names)


# Constraints


def name_rows(model, made, name):
    """Name the constraints that the row buffer took last: an array of handles, or one."""
    count = getattr(made, "size", 1)
    first_id = model._first_id(LINEAR) - count
    model._tables[LINEAR].names.add_block(first_id, getattr(made, "shape", ()), name)


def flush_rows(model):
    """Move what waits in the row buffer to the model's other data."""
    if len(model._row_buffer):
        indptr, ids, data, rhs, senses = model._row_buffer.take()
        model._tables[LINEAR].extend(len(rhs), RHS=rhs, Sense=senses)
        model._linear_rows.add(Rows(indptr, ids, data, finite=True))


def add_constr(model, constr, name, alone):
    """Add a comparison; returns the handle or the matrix of handles.

    `alone` tells that nobody but `constr` holds the arrays of its left side.
    """
    flush_rows(model)
    sense = SENSES.get(constr.sense)
    if sense is None:
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT,
            f"There is no sense {constr.sense!r}: use '<', '=' or '>'",
        )
    left, right = (linear_side(model, side) for side in both_sides(constr))
    if left is None or right is None:
        from ._general import add_higher_constr

        return add_higher_constr(model, constr, name)
    shape, rows, rhs = difference(left, right)
    check_coefficients(model, rows)
    names = checked_names(name, shape)
    if rows.shared and not (alone and right.rows is None):
        rows = rows.copy()
    is_matrix = left.is_matrix or right.is_matrix
    made = model._new_elements(LINEAR, shape) if is_matrix else model._new_element(LINEAR)
    table = model._tables[LINEAR]
    name_block(table, names, shape)
    table.extend(rows.count, RHS=rhs, Sense=sense)
    model._linear_rows.add(rows)
    return MConstr(made) if is_matrix else made


# Objective


def set_objective(model, expr, sense):
    """Replace the objective."""
    sense = objective_sense(sense)
    linear, quadratic, offset = parse_objective(model, expr)
    variables = model._tables[VARIABLE]
    costs = _costs(model, *linear)
    changed = np.flatnonzero(variables["Obj"] != costs)
    variables["Obj"][:] = costs
    model._objective.replace(sense, offset, quadratic)
    model._session.note_change("Obj", changed[changed < variables.placed])


def _costs(model, ids, coefficients):
    """The costs of all variables, waiting ones included; equal variables are added up."""
    size = model._tables[VARIABLE].size
    if not len(ids):
        return np.zeros(size)
    at = positions_of(model, VARIABLE, ids)
    if len(at) == size and np.array_equal(at, np.arange(size)):
        return coefficients
    return np.bincount(at, coefficients, minlength=size)


def objective_sense(sense):
    """1 for minimizing, -1 for maximizing."""
    if isinstance(sense, str) and sense.lower() in ("min", "max"):
        return TVO.MINIMIZE if sense.lower() == "min" else TVO.MAXIMIZE
    if not isinstance(sense, str) and sense in (TVO.MINIMIZE, TVO.MAXIMIZE):
        return int(sense)
    raise ValueError(f"The objective's sense is 'min' or 'max', not {sense!r}")


def positions_of(model, kind, ids):
    """Places of elements, waiting ones included, in the columns of their table."""
    table = model._tables[kind]
    if table.ids is None:
        return ids
    return np.searchsorted(table.ids, ids)


def set_model_attribute(model, attrname, value):
    """Set ModelName, ObjSense or ObjOffset."""
    if attrname == "ModelName":
        if not isinstance(value, str):
            raise TaviroError(
                TVO.Error.ERROR_INVALID_ARGUMENT, f"'ModelName' takes text, not {value!r}"
            )
        model._name = value
    elif attrname == "ObjSense":
        try:
            model._objective.sense = objective_sense(value)
        except ValueError as error:
            raise TaviroError(TVO.Error.ERROR_INVALID_ARGUMENT, str(error)) from None
    else:
        model._objective.offset = float(convert(attrname, 2, [value])[0])


def count_nonzeros(model):
    """Coefficients of the linear constraints in the model, equal columns of a row added up."""
    return rows_by_column(model, model._linear_rows.select(model._tables[LINEAR], 0)).nnz


# Removal and update


def remove(model, obj):
    """Mark elements for removal; nothing is marked where one of them can't be removed."""
    from ._matrixapi import MGenConstr, MQConstr

    kinds = (
        (VARIABLE, Var, MVar, "_vararr"),
        (LINEAR, Constr, MConstr, "_constrarr"),
        (QUADRATIC, QConstr, MQConstr, "_qconstrarr"),
        (GENERAL, GenConstr, MGenConstr, "_constrarr"),
    )
    found = {kind: [] for kind, *_ in kinds}
    waiting = [obj]
    while waiting:
        item = waiting.pop()
        if isinstance(item, list | tuple) or (
            isinstance(item, np.ndarray) and item.dtype.kind == "O"
        ):
            waiting.extend(item.flat if isinstance(item, np.ndarray) else item)
            continue
        for kind, scalar, matrix, field in kinds:
            if type(item) is scalar:
                found[kind].append(model._ids(kind, item, True))
                break
            if isinstance(item, matrix):
                found[kind].append(model._ids(kind, getattr(item, field), True))
                break
        else:
            raise TypeError(
                f"remove takes variables, constraints, or lists of them, not {type(item).__name__}"
            )
    for kind, arrays in found.items():
        if arrays:
            model._discard(kind, np.unique(np.concatenate(arrays)))


def update(model):
    """Place what waits and take out what was removed."""
    flush_rows(model)
    for kind, table in model._tables.items():
        kept = model._settle(kind)
        if kept is not None:
            model._session.remove(model, kind, kept)
        table.settle(kept)
