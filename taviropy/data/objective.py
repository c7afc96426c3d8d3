"""The objective: its sense, its offset and its quadratic terms. Linear costs are column data."""

from __future__ import annotations

import math
from typing import Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

from .._exception import TaviroError
from .._matrixapi import MNLExpr
from .._scalars import ModelCore, NLExpr, _ExprTree, gather_trees
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
from .trees import Trees
from .values import Floats, Ids, invalid


class Objective:
    """Everything of the objective that isn't a cost of a column."""

    def __init__(self) -> None:
        self.sense = int(TVO.MINIMIZE)
        self.offset = 0.0
        self.quadratic: QuadraticTerms | None = None  # summed up, by ids
        self.nonlinear: Trees | None = None  # that are added up, by ids
        self.version = 0  # grows when the quadratic terms or the trees change

    def replace(
        self,
        sense: int,
        offset: float,
        quadratic: QuadraticTerms | None,
        nonlinear: Trees | None = None,
    ) -> None:
        """Set all fields."""
        self.sense = sense
        self.offset = offset
        if any(p is not None for p in (quadratic, nonlinear, self.quadratic, self.nonlinear)):
            self.version += 1
        self.quadratic = quadratic
        self.nonlinear = nonlinear


class ParsedObjective(NamedTuple):
    """The arrays of an objective expression."""

    ids: Ids
    costs: Floats
    quadratic: QuadraticTerms | None
    offset: float
    nonlinear: Trees | None = None


def parse_objective(core: ModelCore, expr: Any) -> ParsedObjective:
    """The arrays of a number, or of an expression with one element."""
    if isinstance(expr, NLExpr | MNLExpr):
        return _parse_nonlinear(core, expr)
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
            f"The objective can't be read from a {type(expr).__name__}: give a number or an "
            f"expression with one element",
        )
    terms = QuadraticTerms.summed(parts, core.numbering(VARIABLE).next_id())
    if not terms.count:
        return linear, None
    rows = Rows(np.array([0, terms.count]), terms.ids1, terms.data)
    check_coefficients(core, rows, terms.ids1, "objective")
    return linear, terms


def _parse_nonlinear(core: ModelCore, expr: NLExpr | MNLExpr) -> ParsedObjective:
    if isinstance(expr, MNLExpr):
        if expr.size != 1:
            raise ValueError(
                f"The objective needs one element, but the expression has shape {expr.shape}: "
                f"take its sum()"
            )
        root = np.asarray(MNLExpr._coerce_to_exprtree_array(expr)).reshape(-1)[0]
    else:
        root = NLExpr._coerce_to_exprtree(expr)
    trees = Trees(*gather_trees(core, _addends(root)))
    return ParsedObjective(np.empty(0, np.int32), np.empty(0), None, 0.0, trees)


def _addends(root: _ExprTree) -> NDArray[np.object_]:
    """What a tree adds up, so that engines need not take a long sum for one expression.

    The whole tree, where a sum within it is used twice: it might be endless when written out.
    """
    found, waiting, seen = [], [root], set()
    while waiting:
        node = waiting.pop()
        if node.op != "plus":
            found.append(node)
            continue
        if id(node) in seen:
            found = [root]
            break
        seen.add(id(node))
        waiting.extend(reversed(node.children))
    addends = np.empty(len(found), np.object_)
    addends[:] = found
    return addends


def objective_sense(sense: object) -> int:
    """1 for minimizing, -1 for maximizing."""
    if isinstance(sense, str) and sense.lower() in ("min", "max"):
        return int(TVO.MINIMIZE if sense.lower() == "min" else TVO.MAXIMIZE)
    if not isinstance(sense, str) and sense in (TVO.MINIMIZE, TVO.MAXIMIZE):
        return int(sense)
    near = {"min": ": use 'min'", "max": ": use 'max'"}.get(str(sense).lower()[:3], "")
    raise ValueError(f"The objective's sense is 'min' or 'max', not {sense!r}{near}")
