"""The basis of a linear model: what a simplex method ends with, and can begin from."""

from __future__ import annotations

from typing import Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

from .._exception import TaviroError
from .._matrixapi import MConstr, MVar
from .._scalars import Constr, Var, data_of
from .._tvo import TVO
from .attributes import KIND_NAMES, LINEAR, VARIABLE
from .values import invalid

BASIC, AT_LOWER, AT_UPPER, FREE = "BLUF"
_KINDS = ((VARIABLE, Var, MVar, "_vararr"), (LINEAR, Constr, MConstr, "_constrarr"))


class Basis(NamedTuple):
    """A basis: ``variables`` of shape (NumVars,) and ``constrs`` of shape (NumConstrs,), arrays of
    characters: "B" basic, "L" at the lower bound or side, "U" at the upper one, "F" free and at
    zero. As many are basic as there are constraints.
    """

    variables: NDArray[np.str_]
    constrs: NDArray[np.str_]

    def of(self, block: Var | MVar | Constr | MConstr) -> NDArray[np.str_]:
        """The part of some variables or linear constraints, in their shape.

        They are found by their numbers: once elements were removed, TaviroError.
        """
        for kind, scalar, matrix, field in _KINDS:
            if isinstance(block, scalar | matrix):
                handles: Any = block if isinstance(block, scalar) else getattr(block, field)
                numbering = data_of(block).numbering(kind)
                at = numbering.numbers(data_of(block).ids(kind, handles).reshape(-1))
                whole = self.variables if kind == VARIABLE else self.constrs
                if numbering.count() < len(whole):
                    raise invalid(
                        f"The basis is of {len(whole)} {KIND_NAMES[kind]} elements, and the model "
                        f"has {numbering.count()}: some were removed since; ask before that, or "
                        f"solve again"
                    )
                if len(at) and not (at.min() >= 0 and at.max() < len(whole)):
                    raise invalid("The basis holds nothing of elements that came after it")
                part: NDArray[np.str_] = whole[at].reshape(np.shape(handles))
                return part
        raise TypeError(
            f"A basis has parts of variables and linear constraints, not of {type(block).__name__}"
        )


def checked_basis(basis: Any, columns: int, rows: int) -> Basis:
    """A basis, or a pair of arrays of characters, for a model of so many columns and rows."""
    try:
        arrays = [np.asarray(part) for part in basis]
    except TypeError:
        arrays = []
    if len(arrays) != 2:
        raise TypeError(
            f"A basis is what basis() gives, or a pair of arrays of characters, not "
            f"{type(basis).__name__}"
        )
    for noun, array, count in zip(("variables", "constrs"), arrays, (columns, rows), strict=True):
        if array.shape != (count,):
            raise invalid(
                f"The basis has '{noun}' of shape {array.shape}, the model needs ({count},): "
                f"elements were added or removed since"
            )
        known = np.isin(array, (BASIC, AT_LOWER, AT_UPPER, FREE))
        if not known.all():
            where = int(np.argmin(known))
            raise invalid(
                f"A basis takes one of 'B', 'L', 'U', 'F', not {array.tolist()[where]!r} "
                f"(at position {where} of '{noun}')"
            )
    basic = sum(int((array == BASIC).sum()) for array in arrays)
    if basic != rows:
        raise invalid(
            f"The basis has {basic} basic elements, but the model {rows} linear constraints: "
            f"as many must be basic"
        )
    return Basis(*(array.astype("U1") for array in arrays))


def no_basis(why: str) -> TaviroError:
    """The error where there is no basis."""
    return TaviroError(TVO.Error.NO_SOLUTION, f"There is no basis: {why}")
