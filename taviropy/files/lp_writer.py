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

from ..data.quadratic import QuadraticTerms
from ..data.values import Floats
from ..data.view import View
from .names import LONGEST, Fit, said
from .sheet import Sheet, number_text, number_texts

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
    ):
        if which.any():
            names = [sheet.column_names[k] for k in np.flatnonzero(which).tolist()]
            yield f"{title}\n " + "\n ".join(names) + "\n"
    yield "End\n"


def _is_range(lower: Floats, upper: Floats) -> NDArray[np.bool]:
    is_range: NDArray[np.bool] = (lower > -np.inf) & (upper < np.inf) & (lower != upper)
    return is_range


class _Terms:
    """Coefficients and names as texts."""

    def __init__(self, names: list[str]) -> None:
        self.names = names
        longest = max(map(len, names), default=1)
        self._a_line = max(1, min(12, (_LINE - longest - 60) // (longest + 27)))

    def linear(self, ids: NDArray[np.signedinteger], data: Floats) -> list[str]:
        """Terms such as " + 3 x"."""
        names, heads = self.names, _heads(data)
        return [head + names[k] for head, k in zip(heads, ids.tolist(), strict=True)]

    def quadratic(self, terms: QuadraticTerms) -> str:
        """Terms in brackets."""
        texts = []
        for head, i, j in zip(
            _heads(terms.data), terms.ids1.tolist(), terms.ids2.tolist(), strict=True
        ):
            rest = " ^2" if i == j else f" * {self.names[j]}"
            texts.append(f"{head}{self.names[i]}{rest}")
        if not texts:  # a quadratic row all the same
            texts = [f" 0 {self.names[0]} ^2"] if self.names else []
        return f"[{self.joined(texts, 2)} ]"

    def joined(self, terms: list[str], words: int = 1) -> str:
        """The sum of terms, in lines that aren't too long."""
        if not terms:
            return ""
        size = max(1, self._a_line // words)
        if terms[0].startswith(" + "):
            terms[0] = terms[0][2:]
        if len(terms) <= size:
            return "".join(terms)
        return "\n ".join("".join(terms[k : k + size]) for k in range(0, len(terms), size))


def _heads(data: Floats) -> list[str]:
    """Signs and coefficients, such as " - 3 "; a coefficient of 1 is left out."""
    unique, places = np.unique(data, return_inverse=True)
    heads = []
    for value in unique.tolist():
        sign = "-" if value < 0 else "+"
        heads.append(f" {sign} " if abs(value) == 1 else f" {sign} {number_text(abs(value))} ")
    return list(map(heads.__getitem__, places.tolist()))


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
    text = terms.joined(terms.linear(priced, costs[priced]))
    if quadratic is not None:
        doubled = QuadraticTerms(quadratic.ids1, quadratic.ids2, 2.0 * quadratic.data)
        text += f"\n + {terms.quadratic(doubled)} / 2"
    if sheet.view.offset:
        sign = "-" if sheet.view.offset < 0 else "+"
        text += f" {sign} {number_text(abs(sheet.view.offset))}"
    return text


def _rows(sheet: Sheet, terms: _Terms) -> Iterator[str]:
    rows, quadratic, indicators = sheet.rows, sheet.view.quadratic_rows, sheet.view.indicators
    is_free = (sheet.lower == -np.inf) & (sheet.upper == np.inf)
    is_above = (sheet.upper == np.inf) & ~is_free
    signs = np.where(is_above, ">=", np.where(sheet.lower == sheet.upper, "=", "<=")).tolist()
    sides = number_texts(np.where(is_above, sheet.lower, sheet.upper))
    empty = f" 0 {terms.names[0]}" if terms.names else ""
    known = 0
    lines: list[str] = []
    for k in range(rows.count):
        start, end = int(rows.indptr[k]), int(rows.indptr[k + 1])
        if end > known or k == 0:  # the texts of the next terms, many at once
            known, offset, texts = _next_terms(rows.indptr, k, terms, sheet)
        text = terms.joined(texts[start - offset : end - offset])
        place = k - sheet.quadratic_start
        if quadratic is not None and 0 <= place < quadratic.rows.count:
            text += f" {'+ ' if text else ''}{terms.quadratic(quadratic.terms(place))}"
        place = k - sheet.indicator_start
        if indicators is not None and 0 <= place < indicators.rows.count:
            column = terms.names[int(indicators.columns[place])]
            text = f" {column} = {int(indicators.values[place])} ->{text or empty}"
        lines.append(f" {sheet.row_names[k]}:{text or empty} {signs[k]} {sides[k]}\n")
        if len(lines) == 10_000:
            yield "".join(lines)
            lines = []
    yield "".join(lines)


def _next_terms(
    indptr: NDArray[np.signedinteger], k: int, terms: _Terms, sheet: Sheet
) -> tuple[int, int, list[str]]:
    """The texts of some 100,000 terms from row k on: where they end, where they start, and they."""
    stop = int(np.searchsorted(indptr, indptr[k] + 100_000, side="right")) - 1
    end = int(indptr[max(stop, k + 1)])
    at = slice(int(indptr[k]), end)
    return end, at.start, terms.linear(sheet.rows.ids[at], sheet.rows.data[at])


def _bounds(sheet: Sheet) -> Iterator[str]:
    _, lower, upper, _ = sheet.columns
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
