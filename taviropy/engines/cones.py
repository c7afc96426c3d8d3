"""Convex quadratic constraints as second-order cones: s0 >= |s1, s2, ...| for s = h - G x.

``x'Qx + c'x <= b`` with Q = F'F, t = b - c'x and any u > 0 is ``u + t/u >= |u - t/u, 2 F x|``, and
``sqrt(b) >= |F x|`` where there is no c. ``|F x|^2 <= y^2`` with y >= 0 and ``|F x|^2 <= v y z``
with y, z >= 0 are cones as well, though the terms aren't convex.

Source: Lobo, Vandenberghe, Boyd and Lebret, Applications of second-order cone programming, Linear
Algebra and its Applications 284 (1998), sections 2.1 and 2.3.
"""

from __future__ import annotations

from typing import NamedTuple

import numpy as np

from ..data.quadratic import QuadraticTerms
from ..data.values import Floats, Ids
from ..data.view import QuadraticRows, View
from .factor import Factor, NotConvex, factor


class Cone(NamedTuple):
    """A constraint as s = h - G x in the cone of its dimension; G as triplets.

    ``turned`` tells that the constraint was turned round from ">=". Where s0 >= |rest|, the
    constraint's value is ``(s0^2 - |rest|^2) / weight``.
    """

    rows: Ids
    columns: Ids
    data: Floats
    sides: Floats
    weight: float
    turned: bool

    @property
    def dimension(self) -> int:
        """The number of entries of s."""
        return len(self.sides)

    def values(self, x: Floats) -> Floats:
        """s at a point."""
        values = self.sides.copy()
        np.subtract.at(values, self.rows, self.data * x[self.columns])
        return values

    def multiplier(self, x: Floats, z: Floats, units: Floats) -> float:
        """The constraint's multiplier at a point, positive where it pushes from below.

        The multipliers z of the cone pull at x by G'z, the constraint by its gradient: what makes
        them agree best with x measured in `units`, and nothing where there is slack.
        """
        values = self.values(x)
        values[1:] *= -1.0
        columns, at = np.unique(self.columns, return_inverse=True)
        data = self.data * units[self.columns]
        pull = np.bincount(at, data * z[self.rows], len(columns))
        gradient = np.bincount(at, data * values[self.rows], len(columns)) * 2.0 / self.weight
        slack = float(values[0] ** 2 - values[1:] @ values[1:]) / self.weight
        steepness = float(gradient @ gradient) + slack**2
        size = float(pull @ gradient) / steepness if steepness > 0.0 else 0.0
        return size if self.turned else -size


def in_cone(z: Floats) -> Floats:
    """The multipliers of a cone, moved into it where they miss it by rounding."""
    return np.append(max(z[0], float(np.linalg.norm(z[1:]))), z[1:])


def cones_of(view: View) -> list[Cone]:
    """The cones of all quadratic constraints; NotConvex names one that is none.

    The answer is kept with the model for as long as nothing about the constraints changes.
    """
    quadratic = view.quadratic_rows
    if quadratic is None:
        return []
    lower = view.columns().lower
    stamp = (view.quadratic_stamp, (lower >= 0.0).tobytes())
    known = view.recall("cones", stamp)
    if known is None:
        known = _made(view, quadratic, lower)
        view.remember("cones", stamp, known)
    return known  # type: ignore[no-any-return]


def _made(view: View, quadratic: QuadraticRows, lower: Floats) -> list[Cone]:
    cones = []
    for row in range(quadratic.rows.count):
        try:
            cones.append(_cone(quadratic, row, lower))
        except NotConvex as error:
            name = view.quadratic_name(row)
            raise NotConvex(f"the quadratic constraint '{name}' {error}") from None
    return cones


def _cone(quadratic: QuadraticRows, row: int, lower: Floats) -> Cone:
    below, above = quadratic.lower[row], quadratic.upper[row]
    if np.isfinite(below) and np.isfinite(above):
        raise NotConvex("is an equation")
    if not np.isfinite(below) and not np.isfinite(above):
        none = np.empty(0, np.int32)
        return Cone(none, none, np.empty(0), np.array([1.0, 0.0]), 1.0, False)
    turned = bool(np.isfinite(below))
    sign, bound = (-1.0, -below) if turned else (1.0, above)
    terms = quadratic.terms(row)
    terms = QuadraticTerms(terms.ids1, terms.ids2, sign * terms.data)
    part = slice(quadratic.rows.indptr[row], quadratic.rows.indptr[row + 1])
    columns, costs = quadratic.rows.ids[part], sign * quadratic.rows.data[part]
    columns, costs = columns[costs != 0.0], costs[costs != 0.0]
    try:
        found = factor(terms)
    except NotConvex:
        if len(columns) or bound > 0.0:
            raise
        return _of_lorentz(terms, bound, lower, turned)
    if not len(columns) and bound > 0.0:
        return Cone(
            1 + found.rows,
            found.columns,
            -found.data,
            np.append(np.sqrt(bound), np.zeros(found.rank)),
            1.0,
            turned,
        )
    unit = max(1.0, np.sqrt(abs(bound)))
    return Cone(
        np.concatenate([np.zeros_like(columns), np.ones_like(columns), 2 + found.rows]),
        np.concatenate([columns, columns, found.columns]),
        np.concatenate([costs / unit, -costs / unit, -2.0 * found.data]),
        np.concatenate([[unit + bound / unit, unit - bound / unit], np.zeros(found.rank)]),
        4.0,
        turned,
    )


def _of_lorentz(terms: QuadraticTerms, bound: float, lower: Floats, turned: bool) -> Cone:
    """``|F x|^2 - bound <= y^2`` or ``v y z`` where y and z can't be negative; bound <= 0."""
    constant = np.sqrt(-bound)
    negative = np.flatnonzero((terms.ids1 == terms.ids2) & (terms.data < 0.0))
    if len(negative) == 1:
        y, weight = int(terms.ids1[negative[0]]), -float(terms.data[negative[0]])
        rest = _without(terms, negative[0])
        if lower[y] >= 0.0 and not ((rest.ids1 == y) | (rest.ids2 == y)).any():
            found = factor(rest)
            head = [(0, y, -np.sqrt(weight))]
            return _headed(head, found, 1.0, constant, 1.0, turned)
    if not len(negative):
        squares = terms.ids1[terms.ids1 == terms.ids2]
        lone = ~np.isin(terms.ids1, squares) & ~np.isin(terms.ids2, squares)
        lone &= (terms.ids1 != terms.ids2) & (terms.data < 0.0)
        if lone.sum() == 1:
            place = int(np.argmax(lone))
            y, z = int(terms.ids1[place]), int(terms.ids2[place])
            rest, weight = _without(terms, place), -float(terms.data[place])
            apart = not np.isin((rest.ids1, rest.ids2), (y, z)).any()
            if lower[y] >= 0.0 and lower[z] >= 0.0 and apart:
                # |F x|^2 - bound <= v y z is y + z >= |y - z, 2 F x / sqrt(v), ...|
                found, unit = factor(rest), 2.0 / np.sqrt(weight)
                head = [(0, y, -1.0), (0, z, -1.0), (1, y, -1.0), (1, z, 1.0)]
                return _headed(head, found, unit, unit * constant, 4.0 / weight, turned)
    raise NotConvex("is neither convex nor a cone")


def _headed(
    head: list[tuple[int, int, float]],
    found: Factor,
    unit: float,
    constant: float,
    weight: float,
    turned: bool,
) -> Cone:
    """A cone of some first rows, those of a factor times a unit, and a constant as last row."""
    rows, columns, data = (np.array(part) for part in zip(*head, strict=True))
    first = int(rows.max()) + 1
    return Cone(
        np.concatenate([rows, first + found.rows]),
        np.concatenate([columns, found.columns]),
        np.concatenate([data, -unit * found.data]),
        np.append(np.zeros(first + found.rank), [constant] if constant else []),
        weight,
        turned,
    )


def _without(terms: QuadraticTerms, place: int) -> QuadraticTerms:
    kept = np.arange(terms.count) != place
    return QuadraticTerms(terms.ids1[kept], terms.ids2[kept], terms.data[kept])
