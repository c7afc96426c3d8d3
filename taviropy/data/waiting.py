"""What is told of elements that wait for an update, where people look for them too early."""

from __future__ import annotations

import warnings
from pathlib import Path
from typing import Any

import numpy as np

from .._exception import TaviroError
from .._tvo import TVO
from .attributes import COUNTS, KIND_NAMES
from .model_data import ModelData

_PACKAGE = str(Path(__file__).parents[1])


def find(data: ModelData, kind: int, name: str) -> Any:
    """A handle on the first element in place that has the name, or None; TaviroError where it is
    one that waits for an update."""
    if not isinstance(name, str):
        raise TypeError(f"A name is a text, not {name!r}: give one such as 'x[0]'")
    elements = data.elements_of(kind)
    names = elements.names_of(np.arange(elements.size))
    if name not in names:
        return None
    at = names.index(name)
    if at >= elements.placed:
        raise TaviroError(
            TVO.Error.NOT_IN_MODEL,
            f"{KIND_NAMES[kind]} '{name}' waits for an update and can't be found by its name: "
            f"call m.update() first",
        )
    return data.elements(kind, elements.ids()[[at]])[0]


def warn_of_count(data: ModelData, attrname: str) -> None:
    """Warn where elements were added that a count leaves out."""
    numbering = data.numbering(COUNTS[attrname])
    count = numbering.count()
    added = numbering.size() - count
    if added:
        warnings.warn(
            f"{attrname} is {count} as of the last update; {added} more wait: "
            f"call m.update() first",
            skip_file_prefixes=(_PACKAGE,),
        )
