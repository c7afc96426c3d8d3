"""What of a model's data is beyond a solver's reach: too small to be seen, or as good as infinite.

Nothing of it goes by in silence: a NumericsWarning says where it stands.
"""

from __future__ import annotations

import warnings
from collections.abc import Callable, Iterator
from typing import Any, NamedTuple

import numpy as np

from .._exception import NumericsWarning, TaviroError
from .._tvo import TVO
from ..data.entries import Entries
from ..data.quadratic import first_ids, second_ids
from ..data.rows import Rows
from ..data.trees import CONSTANT
from ..data.values import Floats
from ..data.view import View


class Coefficients(NamedTuple):
    """Numbers of a model, and what gives the place of each as part of a sentence."""

    data: Floats
    place: Callable[[int], str]


def coefficients(view: View) -> Iterator[Coefficients]:
    """All coefficients of a model: of rows of every kind, trees and the objective."""
    yield of_rows(view, view.rows, view.row_name)
    quadratic, indicators, nonlinear = view.quadratic_rows, view.indicators, view.nonlinear
    if quadratic is not None:
        yield of_rows(view, quadratic.rows, view.quadratic_name)
        yield of_rows(view, quadratic.pairs, view.quadratic_name)
    if indicators is not None:
        places = indicators.places
        yield of_rows(view, indicators.rows, lambda k: view.general_name(int(places[k])))
    if nonlinear is not None:
        trees, of_trees = nonlinear.trees, nonlinear.places
        at = np.flatnonzero(trees.codes == CONSTANT)
        yield Coefficients(
            trees.numbers[at],
            lambda k: (
                f"in the constraint '{view.general_name(int(of_trees[trees.tree_of(at[k])]))}'"
            ),
        )
    yield from of_objective(view)


def of_rows(view: View, rows: Rows, name: Callable[[int], str], first: int = 0) -> Coefficients:
    """Those of linear rows, or of packed rows of pairs; `first` is the first row's number."""

    def place(k: int) -> str:
        row = int(np.searchsorted(rows.indptr, k, side="right")) - 1 + first
        return f"of {_variables(view, rows, k)} in the constraint '{name(row)}'"

    return Coefficients(rows.data, place)


def of_entries(view: View, entries: Entries) -> Coefficients:
    """Those of single entries of linear rows."""

    def place(k: int) -> str:
        column, row = int(entries.variables[k]), int(entries.rows[k])
        return f"of variable '{view.column_name(column)}' in the constraint '{view.row_name(row)}'"

    return Coefficients(entries.values, place)


def _variables(view: View, rows: Rows, k: int) -> str:
    if rows.ids.dtype.itemsize < 8:
        return f"variable '{view.column_name(int(rows.ids[k]))}'"
    return _pair(view, int(first_ids(rows)[k]), int(second_ids(rows)[k]))


def _pair(view: View, first: int, second: int) -> str:
    if first == second:
        return f"variable '{view.column_name(first)}' squared"
    return f"variables '{view.column_name(first)}' and '{view.column_name(second)}'"


def of_objective(view: View) -> Iterator[Coefficients]:
    """The costs and the quadratic terms of the objective."""
    costs, terms = view.costs(slice(None)), view.quadratic_objective
    yield Coefficients(costs, lambda k: f"of variable '{view.column_name(k)}' in the objective")
    if terms is not None:
        ids1, ids2 = terms.ids1, terms.ids2
        yield Coefficients(
            terms.data, lambda k: f"of {_pair(view, int(ids1[k]), int(ids2[k]))} in the objective"
        )


def smallest(parts: list[Coefficients]) -> float:
    """The smallest magnitude of a coefficient that isn't zero, inf without any."""
    found = (abs(part.data[part.data != 0.0]).min(initial=np.inf) for part in parts)
    return float(min(found, default=np.inf))


def warn_of_small(title: str, limit: float, parts: list[Coefficients]) -> None:
    """Say which coefficients, of magnitudes up to a limit, a solver is going to leave out."""
    texts, count = [], 0
    for data, place in parts:
        is_small = abs(data) <= limit
        if not is_small.any():
            continue
        at = np.flatnonzero(is_small & (data != 0.0))
        count += len(at)
        if len(at):
            texts.append(f"{data[at[0]]} {place(int(at[0]))}")
    if texts:
        more = f" and {count - 1} others" if count > 1 else ""
        _warn(
            f"{title} leaves out coefficients of up to {limit}: {texts[0]}{more}; scale the "
            f"variable or the constraint"
        )


def refuse_large(title: str, limit: float, parts: list[Coefficients]) -> None:
    """Refuse coefficients that a solver takes for infinite."""
    for data, place in parts:
        if abs(data).max(initial=0.0) >= limit:
            at = int(np.argmax(abs(data)))
            raise TaviroError(
                TVO.Error.ENGINE_FAILED,
                f"{title} takes coefficients below {limit}, not {data[at]} {place(at)}: scale the "
                f"variable, the constraint or the objective",
            )


def warn_of_open(
    title: str, limit: float, values: Floats, noun: str, name: Callable[[Any], str]
) -> None:
    """Say which bounds or sides a solver takes for infinite."""
    beyond = np.flatnonzero((abs(values) >= limit) & np.isfinite(values))
    if len(beyond):
        at = int(beyond[0])
        more = f" and {len(beyond) - 1} others" if len(beyond) > 1 else ""
        _warn(
            f"{title} takes for infinite what is from {limit}: the {noun} {values[at]} of "
            f"'{name(at)}'{more}; scale the variable or the constraint"
        )


def _warn(text: str) -> None:
    warnings.warn(text, NumericsWarning, stacklevel=3)
