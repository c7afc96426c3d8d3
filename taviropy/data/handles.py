"""The handles on elements, single and in blocks, and what stands in them."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import numpy as np

from .._matrixapi import MConstr, MGenConstr, MQConstr, MVar
from .._scalars import Constr, GenConstr, QConstr, Var
from .attributes import GENERAL, LINEAR, QUADRATIC, VARIABLE

HANDLES = (
    (VARIABLE, Var, MVar, "_vararr"),
    (LINEAR, Constr, MConstr, "_constrarr"),
    (QUADRATIC, QConstr, MQConstr, "_qconstrarr"),
    (GENERAL, GenConstr, MGenConstr, "_constrarr"),
)


def handles_in(obj: Any) -> Iterator[tuple[int, Any]]:
    """Kind and handles, one or an array, of all that `remove` is given; TypeError for others."""
    waiting = [obj]
    while waiting:
        item = waiting.pop()
        if isinstance(item, list | tuple):
            waiting.extend(item)
            continue
        if isinstance(item, np.ndarray) and item.dtype.kind == "O":
            waiting.extend(item.flat)
            continue
        for kind, scalar, matrix, field in HANDLES:
            if type(item) is scalar or isinstance(item, matrix):
                yield kind, item if type(item) is scalar else getattr(item, field)
                break
        else:
            raise TypeError(
                f"remove takes variables, constraints, or lists of them, not {type(item).__name__}"
            )
