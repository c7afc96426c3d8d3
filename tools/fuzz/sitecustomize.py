"""Loaded by each interpreter that the program fuzzer starts: where the reference that it compares
with is known to be otherwise, it is made to agree.

- A matrix times a vector has one axis. SciPy's coo_array gives a product of one element none.
- An array of one text sets an attribute as the text does; the reference takes it for a number.
"""

import sys
from collections.abc import Callable
from pathlib import Path
from typing import Any

import numpy as np
import scipy.sparse as sp

_REFERENCE = Path(__file__).parents[3] / "shared" / "conformance"


def _with_axis(product: Callable[[Any, Any], Any]) -> Callable[[Any, Any], Any]:
    def wrapped(self: Any, other: Any) -> Any:
        result = product(self, other)
        is_lost = isinstance(result, np.ndarray | np.generic) and result.ndim == 0
        is_lost &= self.ndim == 2 and np.ndim(other) == 1
        return result.reshape(1) if is_lost else result

    return wrapped


def _with_text(set_attribute: Callable[..., Any]) -> Callable[..., Any]:
    def wrapped(self: Any, name: str, value: Any) -> Any:
        if isinstance(value, np.ndarray) and value.size == 1 and isinstance(value.item(), str):
            value = value.item()
        return set_attribute(self, name, value)

    return wrapped


for _name in ("__matmul__", "__rmatmul__"):
    setattr(sp.coo_array, _name, _with_axis(getattr(sp.coo_array, _name)))

if _REFERENCE.is_dir():
    sys.path.insert(0, str(_REFERENCE))
    import taviropy_ref

    sys.path.remove(str(_REFERENCE))
    for _name in ("MVar", "MConstr", "MQConstr", "MGenConstr"):
        _class = getattr(taviropy_ref, _name)
        _class.setAttr = _with_text(_class.setAttr)
