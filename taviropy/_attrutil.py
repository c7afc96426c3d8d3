"""Access to the attributes of handles and matrix objects, in bulk."""

from __future__ import annotations

from typing import Any, NoReturn

from ._exception import TaviroError
from ._scalars import data_of
from ._tvo import TVO
from .data.attributes import ATTRIBUTES, KIND_NAMES


def _attrlist(model: object, typeenum: int) -> list[str]:
    """Names of the attributes of an object kind. `model` may be None."""
    return [name for name, attribute in ATTRIBUTES.items() if attribute.kind == typeenum]


def _getattrinfo(obj: object, attrname: object) -> tuple[int, int, int]:
    """(data type, kind of object, settable) of an attribute; AttributeError for other names."""
    attribute = ATTRIBUTES.get(attrname) if type(attrname) is str else None
    if attribute is None:
        # Libraries ask for private names again and again, so their refusal is to cost little.
        if type(attrname) is str and attrname[:1] == "_":
            raise AttributeError(
                f"'taviropy.{type(obj).__name__}' object has no attribute '{attrname}'"
            )
        _refuse(obj, attrname)
    return attribute


def _refuse(obj: object, attrname: object) -> NoReturn:
    """AttributeError that says what may have been meant. It has a name and no object: Python would
    add a guess of its own."""
    from .suggestions import for_attribute

    name = str(attrname)
    text = f"'taviropy.{type(obj).__name__}' object has no attribute '{name}'"
    cure = for_attribute(type(obj), name)  # type: ignore[arg-type]
    if not cure:
        raise AttributeError(text)
    raise AttributeError(f"{text}: {cure}", name=name)


def _gettypedattrlist(obj: object, attrname: str, datatype: int, indices: Any) -> Any:
    """Values of an attribute at the given indices, as a flat sequence, one value an index.

    A TaviroError tells of elements that wait for an update or were removed, and of a solution
    attribute without a solution.
    """
    data = data_of(obj)
    return data.read(attrname, _positions(obj, attrname, indices))


def _settypedattrlist(obj: object, attrname: str, datatype: int, indices: Any, values: Any) -> None:
    """Write an attribute at the given indices; nothing is changed where a value doesn't fit."""
    positions = _positions(obj, attrname, indices)
    if len(values) != len(positions):
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT,
            f"'{attrname}' of {len(positions)} elements can't take {len(values)} values: "
            f"give one value an element",
        )
    data_of(obj).write(attrname, positions, values)


# The matrix classes give these arrays of indices and numbers; what takes their places gets lists.
_gettypedattrlist.takes_arrays = True  # type: ignore[attr-defined]
_settypedattrlist.takes_arrays = True  # type: ignore[attr-defined]


def _prefetchattr(obj: object, attrname: str) -> None:
    """Do nothing but check the name: attributes are read from the model's own arrays."""
    _getattrinfo(obj, attrname)


def _positions(obj: object, attrname: str, indices: Any) -> Any:
    """The indices as an integer array; an element that has no place in the model is an error."""
    import numpy as np

    positions = np.asarray(indices, dtype=np.int64)
    if positions.size and positions.min() < 0:
        where = int(np.argmax(positions < 0))
        kind = ATTRIBUTES[attrname].kind
        name = _name_of(obj, kind, where)
        raise TaviroError(
            TVO.Error.NOT_IN_MODEL,
            f"{KIND_NAMES[kind]} '{name}' "
            + (
                f"waits for an update, its '{attrname}' can't be reached: call m.update() first"
                if positions[where] == -1
                else f"was removed from the model, it has no '{attrname}' any more: leave it out"
            ),
        )
    return positions


def _name_of(obj: Any, kind: int, where: int) -> str:
    """The name of a handle, or of the element at a place of a matrix object."""
    arrays = {1: "_vararr", 2: "_constrarr", 4: "_qconstrarr", 5: "_constrarr"}
    array = getattr(obj, arrays[kind], None)
    handle = obj if array is None else array.flat[where]
    data = data_of(obj)
    data.check_open()
    return data.element_name(kind, int(data.ids(kind, handle, True)[0]))
