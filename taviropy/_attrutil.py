"""Attributes of models and of their elements: the one table, and access in bulk."""

from ._exception import TaviroError
from ._tvo import TVO

CHAR, INTEGER, DOUBLE, STRING = 0, 1, 2, 3
MODEL, VARIABLE, LINEAR, QUADRATIC, GENERAL = 0, 1, 2, 4, 5

# name: (data type, kind of object, settable)
_ATTRIBUTES = {
    "LB": (DOUBLE, VARIABLE, 1),
    "UB": (DOUBLE, VARIABLE, 1),
    "Obj": (DOUBLE, VARIABLE, 1),
    "VType": (CHAR, VARIABLE, 1),
    "VarName": (STRING, VARIABLE, 1),
    "Start": (DOUBLE, VARIABLE, 1),
    "X": (DOUBLE, VARIABLE, 0),
    "ReducedCost": (DOUBLE, VARIABLE, 0),
    "RHS": (DOUBLE, LINEAR, 1),
    "Sense": (CHAR, LINEAR, 1),
    "ConstrName": (STRING, LINEAR, 1),
    "Dual": (DOUBLE, LINEAR, 0),
    "Slack": (DOUBLE, LINEAR, 0),
    "QRHS": (DOUBLE, QUADRATIC, 1),
    "QSense": (CHAR, QUADRATIC, 1),
    "QName": (STRING, QUADRATIC, 1),
    "QSlack": (DOUBLE, QUADRATIC, 0),
    "GenName": (STRING, GENERAL, 1),
    "GenKind": (INTEGER, GENERAL, 0),
    "ModelName": (STRING, MODEL, 1),
    "ObjSense": (DOUBLE, MODEL, 1),
    "ObjOffset": (DOUBLE, MODEL, 1),
    "NumVars": (INTEGER, MODEL, 0),
    "NumConstrs": (INTEGER, MODEL, 0),
    "NumQConstrs": (INTEGER, MODEL, 0),
    "NumGenConstrs": (INTEGER, MODEL, 0),
    "NumNonzeros": (INTEGER, MODEL, 0),
    "Status": (INTEGER, MODEL, 0),
    "Objective": (DOUBLE, MODEL, 0),
    "Bound": (DOUBLE, MODEL, 0),
    "SolveTime": (DOUBLE, MODEL, 0),
}

# The characters that an attribute can hold; an element's data hold the place in this text.
CHARACTERS = {"VType": "CBI", "Sense": "<=>", "QSense": "<=>"}

_KIND_NAMES = {VARIABLE: "Var", LINEAR: "Constr", QUADRATIC: "QConstr", GENERAL: "GenConstr"}


def _attrlist(model, typeenum):
    """Names of the attributes of an object kind. `model` may be None."""
    return [name for name, info in _ATTRIBUTES.items() if info[1] == typeenum]


def _getattrinfo(obj, attrname):
    """(data type, kind of object, settable) of an attribute; AttributeError for other names."""
    info = _ATTRIBUTES.get(attrname) if type(attrname) is str else None
    if info is None:
        raise AttributeError(
            f"'taviropy.{type(obj).__name__}' object has no attribute '{attrname}'"
        )
    return info


def _gettypedattrlist(obj, attrname, datatype, indices):
    """Values of an attribute at the given indices, as a flat sequence, one value an index.

    A TaviroError tells of elements that wait for an update or were removed, and of a solution
    attribute without a solution.
    """
    kind = _ATTRIBUTES[attrname][1]
    positions = _positions(kind, attrname, indices)
    return obj._cmodel._read_attribute(kind, attrname, positions)


def _settypedattrlist(obj, attrname, datatype, indices, values):
    """Write an attribute at the given indices; nothing is changed where a value doesn't fit."""
    kind = _ATTRIBUTES[attrname][1]
    positions = _positions(kind, attrname, indices)
    if len(values) != len(positions):
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT,
            f"'{attrname}' of {len(positions)} elements can't take {len(values)} values: "
            f"give one value an element",
        )
    converted = convert(attrname, datatype, values)
    obj._cmodel._write_attribute(kind, attrname, positions, converted)


def _prefetchattr(obj, attrname):
    """Do nothing but check the name: attributes are read from the model's own arrays."""
    _getattrinfo(obj, attrname)


def _positions(kind, attrname, indices):
    """The indices as an integer array; an element that has no place in the model is an error."""
    import numpy as np

    positions = np.asarray(indices, dtype=np.int64)
    if positions.size and positions.min() < 0:
        where = int(np.argmax(positions < 0))
        waits = positions[where] == -1
        name = _KIND_NAMES[kind]
        raise TaviroError(
            TVO.Error.NOT_IN_MODEL,
            f"{name} at position {where} "
            + (
                f"waits for an update, '{attrname}' can't be reached: call update() first"
                if waits
                else f"was removed from the model, it has no '{attrname}' any more"
            ),
        )
    return positions


def convert(attrname, datatype, values):
    """A sequence of values as the array (or list of str) that the attribute's data take."""
    if datatype in (CHAR, STRING):
        return _convert_texts(attrname, datatype, values)
    import numpy as np

    try:
        array = np.asarray(values)
        if array.dtype.kind == "O" and not any(isinstance(v, str | bytes) for v in array.flat):
            array = array.astype(np.float64)
    except (TypeError, ValueError, OverflowError):
        array = np.asarray("unfit")
    if array.dtype.kind not in "biuf" or array.ndim != 1:
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT,
            f"'{attrname}' takes real numbers, not {shortened(values)}",
        )
    array = array.astype(np.float64, copy=False)
    if attrname != "Start" and np.isnan(array).any():
        where = int(np.argmax(np.isnan(array)))
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT,
            f"'{attrname}' can't be NaN (at position {where}): check the data",
        )
    if attrname in ("Obj", "ObjOffset") and not np.isfinite(array).all():
        where = int(np.argmin(np.isfinite(array)))
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT,
            f"'{attrname}' can't be {array[where]} (at position {where}): it must be finite",
        )
    return array


def _convert_texts(attrname, datatype, values):
    allowed = CHARACTERS.get(attrname) if datatype == CHAR else None
    for where, value in enumerate(values):
        if not isinstance(value, str) or (
            allowed is not None and (len(value) != 1 or value not in allowed)
        ):
            takes = "text" if allowed is None else "one of " + ", ".join(map(repr, allowed))
            raise TaviroError(
                TVO.Error.ERROR_INVALID_ARGUMENT,
                f"'{attrname}' takes {takes}, not {shortened(value)} (at position {where})",
            )
    if allowed is None:
        return [str(value) for value in values]
    import numpy as np

    code = {character: place for place, character in enumerate(allowed)}
    return np.fromiter((code[value] for value in values), np.uint8, len(values))


def shortened(value):
    """The value as text of at most 60 characters, for messages."""
    text = repr(value)
    return text if len(text) <= 60 else text[:57] + "..."
