"""The objective: its sense, its offset and its quadratic terms. Linear costs are column data."""

from __future__ import annotations

import math
from typing import Any, NamedTuple

import numpy as np

from .._exception import TaviroError
from .._scalars import ModelCore
from .._tvo import TVO
from .attributes import VARIABLE
from .quadratic import QuadraticTerms
from .rows import Rows
from .sides import (
    Side,
    check_coefficients,
    linear_side,
    quadratic_products,
    quadratic_side,
    terms_of,
)
from .values import Floats, Ids, invalid


class Objective:
    """Everything of the objective that isn't a cost of a column."""

    def __init__(self) -> None:
        self.sense = int(TVO.MINIMIZE)
        self.offset = 0.0
        self.quadratic: QuadraticTerms | None = None  # summed up, by ids
        self.version = 0  # grows when the quadratic terms change

    def replace(self, sense: int, offset: float, quadratic: QuadraticTerms | None) -> None:
        """Set all fields."""
        self.sense = sense
        self.offset = offset
        if quadratic is not None or self.quadratic is not None:
            self.version += 1
        self.quadratic = quadratic


class ParsedObjective(NamedTuple):
    """The arrays of an objective expression."""

    ids: Ids
    costs: Floats
    quadratic: QuadraticTerms | None
    offset: float


def parse_objective(core: ModelCore, expr: Any) -> ParsedObjective:
    """The arrays of a number, or of a linear or quadratic expression with one element."""
    quadratic = None
    side = linear_side(core, expr)
    if side is None:
        side, quadratic = _parse_quadratic(core, expr)
    if np.size(side.constant) != 1:
        raise ValueError(
            f"The objective needs one element, but the expression has shape {side.shape}: "
            f"take its sum()"
        )
    offset = float(np.asarray(side.constant).reshape(()))
    if not math.isfinite(offset):
        raise invalid(f"The objective has the constant {offset}: it must be finite")
    if side.rows is None:
        return ParsedObjective(np.empty(0, np.int32), np.empty(0), quadratic, offset)
    check_coefficients(core, side.rows, side.rows.ids, "objective")
    return ParsedObjective(side.rows.ids, side.rows.data, quadratic, offset)


def _parse_quadratic(core: ModelCore, expr: Any) -> tuple[Side, QuadraticTerms | None]:
    if getattr(expr, "_quadparts", None) is not None:
        linear, parts = linear_side(core, expr._ndle), list(quadratic_products(core, expr))
    else:
        linear = quadratic_side(core, expr)
        parts = [] if linear is None or linear.pairs is None else [terms_of(linear)]
    if linear is None:
        raise TaviroError(
            TVO.Error.NOT_SUPPORTED,
            "The objective is nonlinear: add a variable y and the constraint 'y == expression', "
            "and make y the objective",
        )
    terms = QuadraticTerms.summed(parts, core.numbering(VARIABLE).next_id())
    if not terms.count:
        return linear, None
    rows = Rows(np.array([0, terms.count]), terms.ids1, terms.data)
    check_coefficients(core, rows, terms.ids1, "objective")
    return linear, terms


def objective_sense(sense: object) -> int:
    """1 for minimizing, -1 for maximizing."""
    if isinstance(sense, str) and sense.lower() in ("min", "max"):
        return int(TVO.MINIMIZE if sense.lower() == "min" else TVO.MAXIMIZE)
    if not isinstance(sense, str) and sense in (TVO.MINIMIZE, TVO.MAXIMIZE):
        return int(sense)
    near = {"min": ": use 'min'", "max": ": use 'max'"}.get(str(sense).lower()[:3], "")
    raise ValueError(f"The objective's sense is 'min' or 'max', not {sense!r}{near}")
