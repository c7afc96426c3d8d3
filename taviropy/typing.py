"""Types for annotations: what models and expressions take, and the texts that stand for choices.

    from taviropy.typing import ObjSense

    def solved(m: tv.Model, sense: ObjSense) -> float: ...

The package doesn't load this module; importing it loads NumPy.
"""

from collections.abc import Sequence
from typing import Any, Literal, Protocol

import numpy as np
from numpy.typing import NDArray


class Sparse(Protocol):
    """A SciPy sparse matrix or array of any format."""

    def tocsr(self, *args: Any, **kwargs: Any) -> Any:
        """The same matrix in CSR format."""


class HasArray(Protocol):
    """What NumPy makes an array of by itself: an ndarray, a NumPy number, a pandas Series."""

    def __array__(self, *args: Any, **kwargs: Any) -> NDArray[Any]:
        """The values as an ndarray."""


type Number = float | np.number[Any] | np.bool
type Array = NDArray[Any]

# Data that NumPy makes an array of; a lone text is none, though it is a sequence of texts.
type Numbers = (
    float
    | HasArray
    | Sequence[float | HasArray]
    | Sequence[Sequence[float | HasArray]]
    | Sequence[Sequence[Sequence[float | HasArray]]]
)
type Names = str | HasArray | Sequence[str] | Sequence[Sequence[str]]
type VType = Literal["C", "B", "I", "S", "N"]
type Sense = Literal["<", "=", ">"]
type ObjSense = Literal["min", "max", 1, -1]
type EngineName = Literal["auto", "highs", "clarabel", "scip", "ipopt"]

# A list of plain texts passes, since that is what a checker takes ["C"] * 3 for.
type VTypes = (
    VType
    | HasArray
    | list[str]
    | tuple[str, ...]
    | list[list[str]]
    | Sequence[VType]
    | Sequence[Sequence[VType]]
)
