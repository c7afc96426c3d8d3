"""SciPy's sparse classes with a check before each of their methods: they walk a broken matrix out of
bounds, which is no fault of the package and would bring the whole run down."""

from __future__ import annotations

import functools
import types
from collections.abc import Callable
from typing import Any

import numpy as np
import scipy.sparse as sp


def guard() -> None:
    """A method of a sparse class is a ValueError from now on where a matrix that it gets is broken."""
    formats = (
        sp.csr_matrix,
        sp.csc_matrix,
        sp.bsr_matrix,
        sp.coo_matrix,
        sp.dia_matrix,
        sp.lil_matrix,
    )
    classes = {cls for form in formats for cls in form.__mro__ if cls is not object}
    for cls in classes:
        for name, method in list(vars(cls).items()):
            if isinstance(method, types.FunctionType) and name not in ("__init__", "__getattr__"):
                setattr(cls, name, guarded(method))
    for form in formats:
        form.__str__ = object.__repr__


def guarded(method: Callable[..., Any]) -> Callable[..., Any]:
    @functools.wraps(method)
    def call(self: Any, *arguments: Any, **named: Any) -> Any:
        for given in (self, *arguments):
            if sp.issparse(given) and not sound(given):
                raise ValueError("malformed sparse matrix")
        return method(self, *arguments, **named)

    return call


def sound(matrix: Any) -> bool:
    inside = vars(matrix)
    shape, data = inside.get("_shape") or (), inside.get("data")
    if len(shape) != 2 or data is None:
        return True
    if "indptr" in inside and "indices" in inside:
        block = data.shape[1:] if data.ndim == 3 else (1, 1)
        rows, columns = (shape[0] // block[0], shape[1] // block[1])
        if matrix.format == "csc":
            rows, columns = columns, rows
        ends, places = inside["indptr"], inside["indices"]
        return bool(
            ends.ndim == places.ndim == 1
            and len(ends) == rows + 1
            and ends[0] == 0
            and np.all(np.diff(ends) >= 0)
            and ends[-1] <= min(len(places), len(data))
            and within(places[: ends[-1]], columns)
        )
    if "coords" in inside:
        coords = inside["coords"]
        return len(coords) == 2 and all(
            len(places) == len(data) and within(places, extent)
            for places, extent in zip(coords, shape, strict=True)
        )
    if "offsets" in inside:
        return data.ndim == 2 and len(data) == len(inside["offsets"])
    if "rows" in inside:  # a list of columns and one of values for each row
        rows = inside["rows"]
        return len(rows) == len(data) == shape[0] and all(
            len(places) == len(values) and within(np.asarray(places, int), shape[1])
            for places, values in zip(rows, data, strict=True)
        )
    return True


def within(places: np.ndarray, extent: int) -> bool:
    return bool(np.all((places >= 0) & (places < extent)))
