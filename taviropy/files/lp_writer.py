"""Models as LP files: objective and rows as formulas.

A row with two sides is written as two rows, which every reader understands. A quadratic objective
stands as `[ ... ] / 2`, as is the format's custom, a quadratic row's terms as `[ ... ]`, and an
indicator as `b = 1 -> row`.
"""

from __future__ import annotations

import re
from collections.abc import Iterator

import numpy as np
from numpy.typing import NDArray

from .._files import number_texts, sum_texts
from ..data.quadratic import QuadraticTerms
from ..data.rows import Rows
from ..data.values import Floats
from ..data.view import View
from .names import LONGEST, Fit, said
from .sheet import Sheet, number_text

_LINE = 500  # characters; what is longer some readers cut
_CHARACTERS = 'A-Za-z0-9!"#$%&(),.;?@_{}~'
# How a name must not begin: as a number does, or as the words that stand for one.
_BEGINNING = r"[0-9.;$]|inf|nan|e[0-9]|e+$"
_WORDS = (
    "bounds?|bin|binar(?:y|ies)|gen|generals?|int|integers?|semis?|semi-continuous|sos[12]?|st"
    "|s\\.t\\.|such|subject|to|that|min|minimi[sz]e|minimum|max|maximi[sz]e|maximum|free|end|lazy"
    "|user|pwlobj"
)
_RESERVED = re.compile(rf"(?:{_BEGINNING}|(?:{_WORDS})$)", re.IGNORECASE)


def _mend(name: str) -> str:
    name = re.sub(f"[^{_CHARACTERS}]", "_", name.replace("[", "(").replace("]", ")"))
    return f"_{name}" if not name or _RESERVED.match(name) else name


FIT = Fit(
    re.compile(
        rf"(?!{_BEGINNING}|(?:{_WORDS})$)[{_CHARACTERS}]{{1,{LONGEST}}}",
        re.IGNORECASE,
    ),
    _mend,
    brackets=True,
)


def write_lp(view: View) -> Iterator[str]:
    """The parts of the file's text."""
    sheet = Sheet(view, FIT, _is_range)
    if re.fullmatch(r"[!-~](?:[ -~]*[!-~])?", view.name):
        yield f"\\Problem name: {view.name}\n"
    elif view.name:
        yield f"\\{said('model', view.name)}\n"
    for comment in sheet.comments:
        yield f"\\{comment}\n"
    terms = _Terms(sheet.column_names)
    yield "Maximize\n" if view.sense < 0 else "Minimize\n"
    yield f" {sheet.objective_name}:{_objective(sheet, terms)}\n"
    yield "Subject To\n"
    yield from _rows(sheet, terms)
    yield from _bounds(sheet)
    is_binary = view.is_binary
    for title, which in (
        ("Binaries", is_binary),
        ("Generals", sheet.columns.is_integer & ~is_binary),
        ("Semi-Continuous", view.is_semi),
    ):
        if which.any():
            names = [sheet.column_names[k] for k in np.flatnonzero(which).tolist()]
            yield f"{title}\n " + "\n ".join(names) + "\n"
    yield "End\n"


def _is_range(lower: Floats, upper: Floats) -> NDArray[np.bool]:
    is_range: NDArray[np.bool] = (lower > -np.inf) & (upper < np.inf) & (lower != upper)
    return is_range


class _Terms:
    """Sums of terms as texts, in lines that aren't too long."""

    def __init__(self, names: list[str]) -> None:
        self.names = names
        longest = max(map(len, names), default=1)
        self._a_line = max(1, min(12, (_LINE - longest - 60) // (longest + 27)))

    def linear(self, rows: Rows) -> list[str]:
        """The text of each row, such as " x - 3 y"."""
        indptr, ids = rows.indptr.astype(np.int64), rows.ids.astype(np.int32)
        return sum_texts(self.names, indptr, ids, rows.data, self._a_line)

    def quadratic(self, terms: QuadraticTerms) -> str:
        """Terms in brackets."""
        texts: list[str] = []
        numbers = number_texts(np.abs(terms.data))
        for i, j, number, is_negative in zip(
            terms.ids1.tolist(),
            terms.ids2.tolist(),
            numbers,
            (terms.data < 0).tolist(),
            strict=True,
        ):
            sign = "-" if is_negative else "+" if texts else ""
            rest = "^2" if i == j else f"* {self.names[j]}"
            texts.append(f"{sign} {number} {self.names[i]} {rest}")
        if not texts:  # a quadratic row all the same
            texts = [f" 0 {self.names[0]} ^2"]
        width = max(1, self._a_line // 2)
        lines = (" ".join(texts[k : k + width]) for k in range(0, len(texts), width))
        return "[" + "\n ".join(lines) + " ]"


def _objective(sheet: Sheet, terms: _Terms) -> str:
    """Costs, quadratic terms and offset.

    A reader numbers columns as it comes upon them: where that might not be their order, all of
    them stand here, those without a cost too.
    """
    costs = sheet.columns.costs
    quadratic = sheet.view.quadratic_objective
    priced = np.flatnonzero(costs)
    unique, first = np.unique(np.concatenate([priced, sheet.rows.ids]), return_index=True)
    is_linear = quadratic is None and sheet.only_linear
    if not is_linear or len(unique) < len(costs) or (np.diff(first) < 0).any():
        priced = np.arange(len(costs))
    text = terms.linear(Rows(np.array([0, len(priced)]), priced, costs[priced]))[0]
    if quadratic is not None:
        doubled = QuadraticTerms(quadratic.ids1, quadratic.ids2, 2.0 * quadratic.data)
        text += f"\n + {terms.quadratic(doubled)} / 2"
    if sheet.view.offset:
        sign = "-" if sheet.view.offset < 0 else "+"
        text += f" {sign} {number_text(abs(sheet.view.offset))}"
    return text


def _rows(sheet: Sheet, terms: _Terms) -> Iterator[str]:
    view = sheet.view
    is_free = (sheet.lower == -np.inf) & (sheet.upper == np.inf)
    is_above = (sheet.upper == np.inf) & ~is_free
    signs = np.where(is_above, ">=", np.where(sheet.lower == sheet.upper, "=", "<="))
    sides = number_texts(np.where(is_above, sheet.lower, sheet.upper))
    empty = f" 0 {terms.names[0]}" if terms.names else ""
    texts = terms.linear(sheet.rows)
    if view.quadratic_rows is not None:
        for k in range(view.quadratic_count):
            text = texts[sheet.quadratic_start + k]
            pairs = terms.quadratic(view.quadratic_rows.terms(k))
            texts[sheet.quadratic_start + k] = f"{text} {'+ ' if text else ''}{pairs}"
    if view.indicators is not None:
        columns, values = view.indicators.columns.tolist(), view.indicators.values.tolist()
        for k, (column, value) in enumerate(zip(columns, values, strict=True)):
            text = texts[sheet.indicator_start + k] or empty
            texts[sheet.indicator_start + k] = f" {terms.names[column]} = {value} ->{text}"
    lines = zip(sheet.row_names, texts, signs.tolist(), sides, strict=True)
    yield "".join([f" {name}:{text or empty} {sign} {side}\n" for name, text, sign, side in lines])


def _bounds(sheet: Sheet) -> Iterator[str]:
    lower, upper = sheet.columns.own_bounds()
    is_usual = np.where(
        sheet.view.is_binary,
        (lower == 0) & (upper == 1),
        (lower == 0) & (upper == np.inf),
    )
    at = np.flatnonzero(~is_usual)
    if not len(at):
        return
    lines = ["Bounds\n"]
    for k, low, high in zip(at.tolist(), lower[at].tolist(), upper[at].tolist(), strict=True):
        name = sheet.column_names[k]
        if low == -np.inf and high == np.inf:
            line = f"{name} free"
        elif low == high:
            line = f"{name} = {number_text(low)}"
        elif high == np.inf:
            line = f"{name} >= {number_text(low)}"
        elif low == 0 and high > 0:
            line = f"{name} <= {number_text(high)}"
        else:
            least = "-inf" if low == -np.inf else number_text(low)
            line = f"{least} <= {name} <= {number_text(high)}"
        lines.append(f" {line}\n")
    yield "".join(lines)
