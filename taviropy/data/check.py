"""How far a point, and its dual values where there are some, are from answering a model.

Everything is computed from the model's own data, whatever the engine said. A violation is measured
relative to the side that is missed, where that is above one.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass
from typing import Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

from .._tvo import TVO
from .attributes import VARIABLE
from .model_data import ModelData
from .quadratic import first_ids, second_ids
from .rows import sums_at
from .values import Floats
from .view import View


@dataclass(frozen=True)
class Violation:
    """The largest violation of a kind, and where it is; 0.0 and no name where all holds."""

    kind: str
    size: float
    name: str = ""

    def __str__(self) -> str:
        place = f"  at '{self.name}'" if self.name else ""
        return f"{self.kind:<16}{self.size:10.1e}{place}"


@dataclass(frozen=True)
class Check:
    """What `Model.check` found out.

    ``violations`` holds one Violation a kind that the model has: "bounds", "integrality",
    "semi-continuity", "rows", "quadratic rows", "nonlinear rows", "indicators"; with dual values
    also "stationarity" (the gradient that costs, dual values and reduced costs leave),
    "complementarity" (the largest dual value times the slack of the side that it belongs to) and
    "gap" (the sum of these, relative to the objective).
    """

    violations: tuple[Violation, ...]
    tolerance: float

    @property
    def worst(self) -> Violation:
        """The largest violation of all."""
        return max(self.violations, key=lambda violation: violation.size)

    @property
    def ok(self) -> bool:
        """Whether none is above the tolerance."""
        return self.worst.size <= self.tolerance

    def __getitem__(self, kind: str) -> Violation:
        for violation in self.violations:
            if violation.kind == kind:
                return violation
        raise KeyError(f"{kind!r}; there are {', '.join(v.kind for v in self.violations)}")

    def __bool__(self) -> bool:
        return self.ok

    def __str__(self) -> str:
        verdict = "holds" if self.ok else "does NOT hold"
        lines = [f"The answer {verdict} within {self.tolerance:.0e}; the largest violations:"]
        return "\n".join([*lines, *(f"  {violation}" for violation in self.violations)])


def check_solution(data: ModelData, tolerance: float) -> Check:
    """The check of the last solution against the data as they are now."""
    view = View(data)
    everything = np.arange(view.column_count)
    x = data.solution.read("X", everything, data.elements_of(VARIABLE))
    violations = list(_primal(view, x))
    duals = _Duals.of(data, view)
    if duals is not None:
        violations += _dual(view, x, duals)
    return Check(tuple(violations), tolerance)


class _Duals(NamedTuple):
    """Dual values of all rows, and the reduced costs."""

    rows: Floats
    quadratic: Floats
    reduced_costs: Floats

    @classmethod
    def of(cls, data: ModelData, view: View) -> _Duals | None:
        """Those of the solution, None where it doesn't have all."""
        if view.general_count or view.nonlinear_objective is not None:
            return None
        counts = {"Dual": view.row_count, "QDual": view.quadratic_count}
        found = []
        for name in ("Dual", "QDual", "ReducedCost"):
            values = data.solution.array(name)
            if values is None and counts.get(name) == 0:
                values = np.empty(0)
            if values is None or len(values) != counts.get(name, view.column_count):
                return None
            found.append(values)
        return cls(*found)


def _primal(view: View, x: Floats) -> Iterator[Violation]:
    columns = view.columns()
    yield _worst("bounds", _beyond(x, columns.lower, columns.upper), view.column_name)
    if view.has_integers:
        whole = np.where(columns.is_integer, abs(x - np.round(x)), 0.0)
        yield _worst("integrality", whole, view.column_name)
    if columns.semi is not None:
        semi, values = columns.semi, x[columns.semi.at]
        apart = np.minimum(abs(values), _beyond(values, semi.lower, semi.upper))
        yield _worst("semi-continuity", apart, _at(semi.at, view.column_name))
    if view.row_count:
        yield _worst("rows", _beyond(view.rows.products(x), *view.sides()), view.row_name)
    quadratic = view.quadratic_rows
    if quadratic is not None:
        beyond = _beyond(quadratic.values(x), quadratic.lower, quadratic.upper)
        yield _worst("quadratic rows", beyond, view.quadratic_name)
    nonlinear = view.nonlinear
    if nonlinear is not None:
        beyond = _beyond(nonlinear.values(x), nonlinear.lower, nonlinear.upper)
        yield _worst("nonlinear rows", beyond, _at(nonlinear.places, view.general_name))
    indicators = view.indicators
    if indicators is not None:
        beyond = _beyond(indicators.rows.products(x), indicators.lower, indicators.upper)
        is_on = np.round(x[indicators.columns]) == indicators.values
        yield _worst("indicators", beyond * is_on, _at(indicators.places, view.general_name))


def _dual(view: View, x: Floats, duals: _Duals) -> Iterator[Violation]:
    columns, rows = view.columns(), view.rows
    gradient = columns.costs.copy()
    terms = view.quadratic_objective
    if terms is not None:
        np.add.at(gradient, terms.ids1, terms.data * x[terms.ids2])
        np.add.at(gradient, terms.ids2, terms.data * x[terms.ids1])
    size = view.column_count
    pull = sums_at(rows.ids, rows.data * duals.rows[rows.row_numbers()], size)
    quadratic = view.quadratic_rows
    if quadratic is not None:
        of_rows, of_pairs = quadratic.rows, quadratic.pairs
        weights = of_rows.data * duals.quadratic[of_rows.row_numbers()]
        pull += sums_at(of_rows.ids, weights, size)
        weights = of_pairs.data * duals.quadratic[of_pairs.row_numbers()]
        first, second = first_ids(of_pairs), second_ids(of_pairs)
        pull += sums_at(first, weights * x[second], size)
        pull += sums_at(second, weights * x[first], size)
    left = abs(gradient - pull - duals.reduced_costs) / np.maximum(1.0, abs(gradient))
    yield _worst("stationarity", left, view.column_name)

    sign = 1.0 if view.sense == TVO.MINIMIZE else -1.0
    parts = [
        (_product(sign * duals.rows, rows.products(x), *view.sides()), view.row_name),
        (
            _product(sign * duals.reduced_costs, x, columns.lower, columns.upper),
            view.column_name,
        ),
    ]
    if quadratic is not None:
        sides = quadratic.lower, quadratic.upper
        products = _product(sign * duals.quadratic, quadratic.values(x), *sides)
        parts.append((products, view.quadratic_name))
    unit = max(1.0, abs(view.objective_at(x)))
    worst = [_worst("complementarity", products / unit, name) for products, name in parts]
    yield max(worst, key=lambda violation: violation.size)
    yield Violation("gap", float(sum(products.sum() for products, _ in parts)) / unit)


def _beyond(values: Floats, lower: Floats, upper: Floats) -> Floats:
    """How far the values are beyond their sides; infinite where one is NaN."""
    beyond = np.maximum(lower - values, values - upper)
    side = np.where(lower > values, lower, upper)
    with np.errstate(invalid="ignore"):
        relative = np.maximum(beyond, 0.0) / np.maximum(1.0, abs(side))
    relative[beyond <= 0.0] = 0.0
    return np.where(np.isnan(values), np.inf, relative)


def _product(multipliers: Floats, values: Floats, lower: Floats, upper: Floats) -> Floats:
    """The multipliers times the way to the side that they hold; open sides take none."""
    way = np.where(multipliers > 0.0, values - lower, upper - values)
    way = np.where(np.isfinite(way), np.maximum(way, 0.0), 1.0)
    return abs(multipliers) * way


def _at(places: NDArray[Any], name: Callable[[int], str]) -> Callable[[int], str]:
    return lambda k: name(int(places[k]))


def _worst(kind: str, sizes: Floats, name: Callable[[int], str]) -> Violation:
    if not len(sizes) or not (sizes > 0.0).any():
        return Violation(kind, 0.0)
    at = int(np.argmax(sizes))
    return Violation(kind, float(sizes[at]), name(at))
