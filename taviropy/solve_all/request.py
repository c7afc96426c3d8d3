"""What is asked for: models, or scenarios of one, and attributes; checked before any is solved."""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Mapping
from typing import Any, NamedTuple

from .._exception import TaviroError
from .._scalars import ModelShell
from .._tvo import TVO


class Wanted(NamedTuple):
    """An attribute to bring back; of all elements where there are no positions."""

    key: str
    attrname: str
    positions: Any = None
    shape: Any = None


class Change(NamedTuple):
    """An attribute that changes, at some positions: a row of values a scenario."""

    attrname: str
    positions: Any
    values: Any

    def part(self, first: int, end: int) -> Change:
        return self._replace(values=self.values[first:end])


def checked_models(models: Iterable[Any]) -> Iterator[Any]:
    for index, model in enumerate(models):
        if not (isinstance(model, ModelShell) or callable(model)):
            raise TypeError(
                f"solveAll takes models and functions that make one, but number {index} is of type "
                f"{type(model).__name__}"
            )
        yield model


def whole_model(attributes: Any) -> list[Wanted]:
    if isinstance(attributes, Mapping):
        raise ValueError(
            "attributes of single elements need one model with changes: name those of whole models"
        )
    return [Wanted(name, _known(name)) for name in attributes]


def _known(name: Any) -> str:
    from ..data.attributes import ATTRIBUTES

    if not isinstance(name, str) or name not in ATTRIBUTES:
        raise ValueError(f"There is no attribute {name!r}: known are {', '.join(ATTRIBUTES)}")
    return name


def scenarios(
    data: Any, changes: Mapping[str, Any], attributes: Any
) -> tuple[Iterator[Any], int, list[Wanted], Any, list[Change]]:
    """Everything of a batch with changes, checked against the model."""
    from ..data.travel import copied

    base = copied(data)
    base.update()
    table: list[Change] = []
    for name, blocks in changes.items():
        for block in blocks if isinstance(blocks, list) else [blocks]:
            table.append(_change(data, base, _known(name), block))
    if not table:
        raise ValueError("changes are empty: give elements and values, {'RHS': (rows, values)}")
    sizes = {len(change.values) for change in table}
    if len(sizes) > 1:
        listed = ", ".join(f"{len(change.values)} of {change.attrname}" for change in table)
        raise ValueError(f"changes of different numbers of scenarios: {listed}")
    if isinstance(attributes, Mapping):
        wanted = []
        for key, (elements, name) in attributes.items():
            positions, shape = _positions(data, base, _known(name), elements)
            wanted.append(Wanted(key, name, positions, shape))
    else:
        wanted = whole_model(attributes)
    size = sizes.pop()
    return iter(range(size)), size, wanted, base, table


def _positions(data: Any, base: Any, name: str, elements: Any) -> tuple[Any, tuple[int, ...]]:
    """Places in the base and shape of elements, which are those of the user's model."""
    import numpy as np

    from ..data.attributes import ATTRIBUTES, KIND_NAMES, MODEL
    from ..data.handles import HANDLES

    kind, handles = ATTRIBUTES[name].kind, elements
    for each, scalar, matrix, field in HANDLES:
        if each == kind and isinstance(elements, scalar | matrix):
            handles = handles if isinstance(elements, scalar) else getattr(elements, field)
            break
    else:
        noun = (
            "the model itself" if kind == MODEL else f"a {KIND_NAMES[kind]} or M{KIND_NAMES[kind]}"
        )
        raise TypeError(f"'{name}' is an attribute of {noun}, not of {type(elements).__name__}")
    try:
        ids = data.ids(kind, handles)
    except TaviroError as error:
        raise TaviroError(error.code, f"changes or attributes, '{name}': {error.message}") from None
    numbers = base.numbering(kind).numbers(ids).astype(np.int64)
    if len(numbers) and numbers.min() < 0:
        where = int(np.argmax(numbers < 0))
        raise TaviroError(
            TVO.Error.NOT_IN_MODEL,
            f"changes or attributes, '{name}': element {where} was removed from the model: "
            f"leave it out",
        )
    return numbers, np.shape(handles)


def _change(data: Any, base: Any, name: str, block: Any) -> Change:
    import numpy as np

    from ..data.attributes import ATTRIBUTES, STRING
    from ..data.values import convert, refuse_masked

    if not ATTRIBUTES[name].settable or ATTRIBUTES[name].datatype == STRING:
        raise ValueError(f"changes can't set '{name}': they take data such as RHS, LB, UB, Obj")
    if not isinstance(block, tuple) or len(block) != 2:
        raise ValueError(f"changes of '{name}' are a pair (elements, values), not {block!r:.80}")
    positions, shape = _positions(data, base, name, block[0])
    refuse_masked(f"changes of '{name}'", block[1])
    values = np.asarray(block[1])
    if values.ndim == 0 or values.shape[1:] != shape:
        raise ValueError(
            f"changes of '{name}' have the shape {values.shape}: the elements have {shape}, so "
            f"values need (scenarios, *{shape})"
        )
    values = values.reshape(len(values), -1)
    convert(name, values.reshape(-1))
    return Change(name, positions, values)
