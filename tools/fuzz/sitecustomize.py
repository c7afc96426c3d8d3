"""Loaded by each interpreter that the program fuzzer starts.

A matrix times a vector has one axis. SciPy's coo_array gives a product of one element none, and the
products that the fuzzer compares with ours would differ from them by that alone.
"""

from collections.abc import Callable
from typing import Any

import numpy as np
import scipy.sparse as sp


def _with_axis(product: Callable[[Any, Any], Any]) -> Callable[[Any, Any], Any]:
    def wrapped(self: Any, other: Any) -> Any:
        result = product(self, other)
        is_lost = isinstance(result, np.ndarray | np.generic) and result.ndim == 0
        is_lost &= self.ndim == 2 and np.ndim(other) == 1
        return result.reshape(1) if is_lost else result

    return wrapped


for _name in ("__matmul__", "__rmatmul__"):
    setattr(sp.coo_array, _name, _with_axis(getattr(sp.coo_array, _name)))
