"""What users hand over, checked and converted, and the errors that say what doesn't fit."""

from __future__ import annotations

import operator
from collections.abc import Iterable, Sequence
from typing import Any

import numpy as np
from numpy.typing import NDArray

from .._exception import TaviroError
from .._tvo import TVO
from .attributes import ATTRIBUTES, BINARY, CHAR, CHARACTERS, STRING

Floats = NDArray[np.float64]
Codes = NDArray[np.uint8]
# Ids and numbers of columns, int32, or ids of two variables packed in one, int64.
Ids = NDArray[np.signedinteger[Any]]
Shape = tuple[int, ...]

INF = float("inf")
_TYPES = {character: code for code, character in enumerate(CHARACTERS["VType"])}
_UNFIT = str | bytes | None  # what float() or NumPy would take for a number
_FINITE = ("Obj", "ObjOffset")
_NAME = ": a name goes by its keyword, name='x'"
_OPEN_SIDE = ": an open side is float('inf') or -float('inf')"


def invalid(text: str) -> TaviroError:
    """The error for an argument that doesn't fit."""
    return TaviroError(TVO.Error.ERROR_INVALID_ARGUMENT, text)


def shortened(value: object) -> str:
    """The value as text of at most 60 characters, for messages."""
    text = repr(value)
    return text if len(text) <= 60 else text[:57] + "..."


def rising(parts: Sequence[NDArray[Any]]) -> NDArray[Any]:
    """The numbers of some arrays, rising, each once."""
    numbers = parts[0] if len(parts) == 1 else np.concatenate(parts)
    if (numbers[1:] > numbers[:-1]).all():
        return numbers
    numbers = np.sort(numbers)  # np.unique hashes, which takes ten times as long
    is_new = np.ones(len(numbers), bool)
    np.not_equal(numbers[1:], numbers[:-1], out=is_new[1:])
    return numbers[is_new]


# Values of attributes


def convert(attrname: str, values: Any) -> Any:
    """A sequence of values as the array (or list of str) that an attribute's data take."""
    datatype = ATTRIBUTES[attrname].datatype
    if datatype == STRING:
        return checked_texts(attrname, values)
    return _codes(attrname, values) if datatype == CHAR else _numbers(attrname, values)


def _numbers(attrname: str, values: Any) -> Floats:
    try:
        array = np.asarray(values)
        unfit = str | bytes | (type(None) if attrname != "Start" else str)
        if array.dtype.kind == "O" and not any(isinstance(v, unfit) for v in array.flat):
            array = array.astype(np.float64)
    except (TypeError, ValueError, OverflowError):
        array = np.asarray("unfit")
    if array.dtype.kind not in "biuf" or array.ndim != 1:
        open_side = _OPEN_SIDE if attrname in ("LB", "UB") else ""
        raise invalid(f"'{attrname}' takes real numbers, not {shortened(values)}{open_side}")
    array = array.astype(np.float64, copy=False)
    if attrname != "Start" and np.isnan(array).any():
        where = int(np.argmax(np.isnan(array)))
        raise invalid(f"'{attrname}' can't be NaN (at position {where}): check the data")
    if attrname in _FINITE and not np.isfinite(array).all():
        where = int(np.argmin(np.isfinite(array)))
        raise invalid(
            f"'{attrname}' can't be {array[where]} (at position {where}): it must be finite"
        )
    return array


def _codes(attrname: str, values: Sequence[object]) -> Codes:
    code = {character: place for place, character in enumerate(CHARACTERS[attrname])}
    try:
        return np.fromiter((code[value] for value in values), np.uint8, len(values))  # type: ignore[index]
    except (KeyError, TypeError):
        where = next(k for k, v in enumerate(values) if not isinstance(v, str) or v not in code)
        takes = ", ".join(map(repr, code))
        raise invalid(
            f"'{attrname}' takes one of {takes}, not {shortened(values[where])} "
            f"(at position {where})"
        ) from None


def checked_texts(noun: str, values: Iterable[object]) -> list[str]:
    """The values as plain str; what is no text, or can't stand in a file, is refused."""
    texts = []
    for where, value in enumerate(values):
        if not isinstance(value, str):
            raise invalid(f"'{noun}' takes text, not {shortened(value)} (at position {where})")
        if not value.isascii() and not _is_encodable(value):
            raise invalid(
                f"'{noun}' takes text that can be written as UTF-8, not {shortened(value)} "
                f"(at position {where}): leave out the lone surrogates"
            )
        texts.append(str(value))
    return texts


def _is_encodable(text: str) -> bool:
    try:
        text.encode()
    except UnicodeEncodeError:
        return False
    return True


def checked_names(name: object, shape: Shape) -> str | list[str]:
    """A base name (empty for none), or a list of names, one an element in C order."""
    if name is None:
        return ""
    if isinstance(name, str):
        return checked_texts("name", (name,))[0]
    array = np.asarray(name)
    if array.dtype.kind not in "UO":
        raise invalid(f"'name' takes text, not {shortened(name)}")
    return checked_texts("name", spread("name", array, shape).tolist())


# Columns


def checked_shape(shape: Any) -> Shape:
    """The shape of a block of variables as a tuple of int."""
    if isinstance(shape, range):
        raise ValueError(f"A shape is an int or a tuple of ints, not {shape!r}: give its length")
    try:
        lengths: Shape = (operator.index(shape),)
    except TypeError:
        try:
            lengths = tuple(operator.index(length) for length in shape)
        except TypeError:
            raise ValueError(f"A shape is an int or a tuple of ints, not {shape!r}") from None
    if any(length < 0 for length in lengths):
        raise ValueError(f"The shape {lengths} has a negative length")
    return lengths


def spread(noun: str, array: NDArray[Any], shape: Shape) -> NDArray[Any]:
    """The array broadcast to the shape, flat in C order."""
    try:
        return np.broadcast_to(array, shape).reshape(-1)
    except ValueError:
        raise ValueError(
            f"'{noun}' of shape {array.shape} doesn't broadcast to the elements' shape {shape}: "
            f"give a scalar or an array of that shape"
        ) from None


def refuse_masked(what: str, value: object) -> None:
    """Refuse an array with masked entries: what lies under a mask isn't to be read."""
    masked = np.count_nonzero(getattr(value, "mask", 0)) if isinstance(value, np.ndarray) else 0
    if masked:
        raise invalid(
            f"{what} can't take an array with {masked} masked entries: leave them out, or fill "
            f"them by filled(value)"
        )


def real_numbers(value: object) -> NDArray[Any] | None:
    """An array of the value's real numbers, None where it has others."""
    try:
        array = np.asarray(value)
        if array.dtype.kind == "O" and not any(isinstance(v, _UNFIT) for v in array.flat):
            array = array.astype(np.float64)
    except (TypeError, ValueError, OverflowError):
        return None
    return array if array.dtype.kind in "biuf" else None


def column_data(noun: str, value: Any, shape: Shape) -> np.float64 | Floats:
    """A float64 scalar, or a flat array with one entry a variable."""
    refuse_masked(f"'{noun}'", value)
    array = real_numbers(value)
    if array is None:
        open_side = _OPEN_SIDE if noun in ("lb", "ub") else ""
        if noun == "lb" and isinstance(value, str):
            open_side = _NAME
        raise invalid(f"'{noun}' takes real numbers, not {shortened(value)}{open_side}")
    if array.ndim == 0:
        return np.float64(array[()])
    return spread(noun, array, shape).astype(np.float64, copy=False)


def type_codes(vtype: object, shape: Shape) -> int | Codes:
    """The code of a variable type, or a flat array of them."""
    if isinstance(vtype, str):
        code = _TYPES.get(vtype)
        if code is None:
            raise _unknown_type(vtype)
        return code
    array = texts = np.asarray(vtype)
    if array.dtype == object:  # whose elements would compare as they like
        plain = [each if isinstance(each, str) else "" for each in array.flat]
        texts = np.array(plain, np.str_).reshape(array.shape)
    codes = np.full(array.shape, len(_TYPES), np.uint8)
    for character, code in _TYPES.items():
        codes[texts == character] = code
    if (codes == len(_TYPES)).any():
        raise _unknown_type(array.reshape(-1).tolist()[int(np.argmax(codes))])
    return spread("vtype", codes, shape)


def _unknown_type(vtype: object) -> TaviroError:
    first = vtype[:1].upper() if isinstance(vtype, str) else ""
    near = f"did you mean {first!r}? Otherwise " if first and first in _TYPES else ""
    return invalid(
        f"There is no variable type {shortened(vtype)}: {near}use 'C' (continuous), "
        f"'B' (binary), 'I' (integer), 'S' (semi-continuous) or 'N' (semi-integer)"
    )


def scalar_column(lb: Any, ub: Any, obj: Any, vtype: Any) -> tuple[float, float, float, int]:
    """Bounds, cost and type code of one variable."""
    code = _TYPES.get(vtype) if isinstance(vtype, str) else None
    if code is None:
        raise _unknown_type(vtype)
    try:
        lb, ub, obj = float(lb + 0.0), float(ub + 0.0), float(obj + 0.0)  # no text
    except (TypeError, ValueError, OverflowError):
        hint = _NAME if isinstance(lb, str) else _OPEN_SIDE
        raise invalid(
            f"A variable takes real numbers, not lb={lb!r}, ub={ub!r}, obj={obj!r}{hint}"
        ) from None
    if lb != lb or ub != ub or not -INF < obj < INF:
        check_columns(np.float64(lb), np.float64(ub), np.float64(obj))
    return lb, ub, obj, code


def check_columns(lb: Any, ub: Any, obj: Any) -> None:
    """Refuse bounds that are NaN, and costs that aren't finite."""
    for noun, values, bad in (
        ("lb", lb, np.isnan(lb)),
        ("ub", ub, np.isnan(ub)),
        ("obj", obj, ~np.isfinite(obj)),
    ):
        if np.any(bad):
            where = int(np.argmax(bad))
            place = f" of element {where}" if np.ndim(values) else ""
            need = "a finite number" if noun == "obj" else "a number or infinite"
            raise invalid(f"'{noun}'{place} is {np.ravel(values)[where]}: it must be {need}")


def cut_binaries(lb: Any, ub: Any, codes: Any) -> tuple[Any, Any]:
    """The bounds, those of binary variables cut to [0, 1]; scalars or arrays, which stay."""
    binary = np.equal(codes, BINARY)
    if not binary.any():
        return lb, ub
    return np.where(binary, np.maximum(lb, 0.0), lb), np.where(binary, np.minimum(ub, 1.0), ub)
