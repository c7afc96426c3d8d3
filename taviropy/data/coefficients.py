"""A model as arrays for its user: coefficients of linear constraints and of the objective."""

from __future__ import annotations

from typing import Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

from .._exception import TaviroError
from .._matrixapi import MConstr
from .._scalars import Constr
from .._tvo import TVO
from .attributes import CHARACTERS, LINEAR
from .model_data import ModelData
from .values import Floats, invalid
from .view import View


class Coefficients(NamedTuple):
    """Linear constraints: a csr_array of shape (constraints, NumVars), senses and right-hand
    sides of shape (constraints,)."""

    matrix: Any
    senses: NDArray[np.str_]
    rhs: Floats


class ObjectiveCoefficients(NamedTuple):
    """``x @ quadratic @ x + costs @ x + offset``; `quadratic` is an upper triangle, a csr_array of
    shape (NumVars, NumVars), or None without quadratic terms."""

    costs: Floats
    quadratic: Any
    offset: float


def read_coefficients(data: ModelData, constrs: Any) -> Coefficients:
    """The rows of some constraints, None for all, as they are in the model."""
    import scipy.sparse as sp

    linear = data.linear
    if constrs is None:
        at = np.arange(linear.placed)
    else:
        if not isinstance(constrs, Constr | MConstr):
            raise TypeError(f"'constrs' takes an MConstr, not {type(constrs).__name__}")
        handles = constrs if isinstance(constrs, Constr) else constrs._constrarr
        at = linear.positions(data.ids(LINEAR, handles).reshape(-1))
        if len(at) and at.max() >= linear.placed:
            raise invalid(
                f"The constraint '{linear.name_of(int(at.max()))}' awaits update(): call it first"
            )
    rows = data.linear_matrix()
    if constrs is not None:
        rows = rows.take(at)
    arrays = rows.data.copy(), rows.ids.copy(), rows.indptr.copy()
    matrix = sp.csr_array(arrays, shape=(len(at), data.variables.placed))
    senses = np.array(list(CHARACTERS["Sense"]))[linear["Sense"][at]]
    return Coefficients(matrix, senses, linear["RHS"][at])


def read_objective(data: ModelData) -> ObjectiveCoefficients:
    """The objective as it is in the model."""
    view, quadratic = View(data), None
    if view.nonlinear_objective is not None:
        raise TaviroError(
            TVO.Error.NOT_SUPPORTED,
            "The objective is nonlinear, and has no coefficients: m.Objective is its value",
        )
    terms = view.quadratic_objective
    if terms is not None:
        import scipy.sparse as sp

        n = view.column_count
        quadratic = sp.csr_array((terms.data, (terms.ids1, terms.ids2)), shape=(n, n))
    return ObjectiveCoefficients(view.costs(slice(None)).copy(), quadratic, view.offset)
