"""The objective: its sense, its offset and its quadratic terms. Linear costs are column data."""

from __future__ import annotations

import math

import numpy as np

from ._attrutil import VARIABLE
from ._csr import Rows
from ._exception import TaviroError
from ._linear import check_coefficients, linear_side
from ._tvo import TVO


class Objective:
    """Everything of the objective that isn't a cost of a column."""

    def __init__(self):
        self.sense = TVO.MINIMIZE
        self.offset = 0.0
        self.quadratic = None  # QuadraticTerms as `summed_terms` gives them, or None
        self.version = 0  # grows when the quadratic terms change
        self.convexity = (None, True)  # an answer, and what it was given for

    def replace(self, sense, offset, quadratic):
        """Set all fields."""
        self.sense = sense
        self.offset = offset
        if quadratic is not None or self.quadratic is not None:
            self.version += 1
        self.quadratic = quadratic


def parse_objective(model, expr):
    """((ids, coefficients), quadratic terms or None, offset) of an objective expression."""
    quadratic = None
    side = linear_side(model, expr)
    if side is None:
        side, quadratic = _parse_quadratic(model, expr)
    if np.size(side.constant) != 1:
        raise ValueError(
            f"The objective needs one element, but the expression has shape {side.shape}: "
            f"take its sum()"
        )
    offset = float(np.asarray(side.constant).reshape(()))
    if not math.isfinite(offset):
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT,
            f"The objective has the constant {offset}: it must be finite",
        )
    if side.rows is None:
        return ((), ()), quadratic, offset
    check_coefficients(model, side.rows, "objective")
    return (side.rows.ids, side.rows.data), quadratic, offset


def _parse_quadratic(model, expr):
    from ._quadratic import quadratic_objective, summed_terms

    linear, parts = quadratic_objective(model, expr) or (None, ())
    if linear is None:
        raise TaviroError(
            TVO.Error.NOT_SUPPORTED,
            "The objective is nonlinear: add a variable y and the constraint 'y == expression', "
            "and make y the objective",
        )
    terms = summed_terms(parts, model._first_id(VARIABLE))
    if not len(terms.data):
        return linear, None
    rows = Rows(np.array([0, len(terms.data)]), terms.ids1, terms.data)
    check_coefficients(model, rows, "objective")
    return linear, terms
