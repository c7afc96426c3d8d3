"""A model as the formats lay it out: all rows in one list, every element under a name it may have.

The linear rows come first, then the quadratic ones, the rows of indicators, and last the lower
sides of those rows that the format can't write with both.
"""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
from numpy.typing import NDArray

from .._exception import TaviroError
from .._files import number_texts
from .._tvo import TVO
from ..data.rows import Rows
from ..data.values import Floats
from ..data.view import View
from .names import Fit, comments, fitted, said

INFINITE = 1e20  # from here on bounds and sides are infinite; written is 1e+30


class Sheet:
    """The model's rows and columns, with names that the format can hold.

    ``must_split`` tells, of lower and upper sides, which rows get a second one for the lower side.
    """

    def __init__(
        self,
        view: View,
        fit: Fit,
        must_split: Callable[[Floats, Floats], NDArray[np.bool]],
    ) -> None:
        _refuse_nonlinear(view)
        self.view = view
        self.columns = view.columns()
        linear_lower, linear_upper = view.sides()
        parts, lower, upper = [view.rows], [linear_lower], [linear_upper]
        names = view.row_names()
        self.quadratic_start = view.row_count
        self.indicator_start = view.row_count + view.quadratic_count
        for more in (view.quadratic_rows, view.indicators):
            if more is not None:
                parts.append(more.rows)
                lower.append(more.lower)
                upper.append(more.upper)
        names += [view.quadratic_name(k) for k in range(view.quadratic_count)]
        if view.indicators is not None:
            names += [view.general_name(k) for k in view.indicators.places.tolist()]
        self.rows = Rows.stack(parts)
        self.lower, self.upper = np.concatenate(lower), np.concatenate(upper)
        self.only_linear = len(self.lower) == view.row_count
        split = np.flatnonzero(must_split(self.lower, self.upper))
        self._add_lower_sides(split)
        old_columns, old_rows = view.column_names(), names
        self.column_names = fitted(old_columns, fit)
        names = [*old_rows, *(f"{names[k]}~lower" for k in split.tolist()), "obj"]
        *self.row_names, self.objective_name = fitted(names, fit)
        self.comments = list(
            comments(
                fit, (self.column_names, old_columns), (self.row_names[: len(old_rows)], old_rows)
            )
        )
        for lower_name, k in zip(self.row_names[len(old_rows) :], split.tolist(), strict=True):
            self.comments.append(said("lower", lower_name, self.row_names[k]))

    def _add_lower_sides(self, split: NDArray[np.intp]) -> None:
        if not len(split):
            return
        self.rows = Rows.stack([self.rows, self.rows.take(split)])
        lower = self.lower.copy()
        lower[split] = -np.inf
        self.lower = np.concatenate([lower, self.lower[split]])
        self.upper = np.concatenate([self.upper, np.full(len(split), np.inf)])


def _refuse_nonlinear(view: View) -> None:
    if view.nonlinear_objective is not None:
        raise TaviroError(
            TVO.Error.NOT_SUPPORTED,
            "The objective is nonlinear, which neither MPS nor LP files can say: write the model "
            "with another",
        )
    nonlinear = view.nonlinear
    if nonlinear is not None:
        name = view.general_name(int(nonlinear.places[0]))
        raise TaviroError(
            TVO.Error.NOT_SUPPORTED,
            f"The constraint '{name}' is nonlinear, which neither MPS nor LP files can say: write "
            f"the model without it, or put linear or quadratic constraints in its place",
        )


def number_text(value: float) -> str:
    """The number as the shortest text that is read as the same one."""
    return number_texts(np.array([value]))[0]
