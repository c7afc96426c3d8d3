"""Constraints written out as people read them: ``x[0] + 2 x[1] <= 1.2``."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from typing import Any

import numpy as np

from ..data.attributes import LINEAR, QUADRATIC
from ..data.rows import Rows
from ..data.trees import CONSTANT, OPERATIONS, VARIABLE
from ..data.view import NonlinearRows, View

_TERMS = 6  # of a row; the others are counted
_LENGTH = 120  # of the text of an expression tree: what is longer is cut in its middle
_INFIX = {"plus": (1, " + "), "minus": (1, " - "), "multiply": (2, " * "), "divide": (2, " / ")}
_ATOM = 9

type Name = Callable[[int], str]


def row_texts(view: View, kind: int, at: Any) -> list[str]:
    """The constraints of a kind with the numbers `at`, each cut where it is long."""
    if kind == LINEAR:
        rows, name = view.rows, view.column_name
        lower, upper = view.sides(at)
        return [
            _between(_sum(*_terms(rows, k, name)), lower[i], upper[i]) for i, k in enumerate(at)
        ]
    text = _quadratic_text if kind == QUADRATIC else _general_text
    return [text(view, int(k)) for k in at]


def _quadratic_text(view: View, k: int) -> str:
    quadratic = view.quadratic_rows
    assert quadratic is not None
    name, products = view.column_name, quadratic.terms(k)
    terms, more = _terms(quadratic.rows, k, name)
    shown = _TERMS - len(terms)
    pairs = zip(products.ids1[:shown], products.ids2[:shown], products.data[:shown], strict=True)
    for i, j, a in pairs:
        terms.append((float(a), f"{name(i)}**2" if i == j else f"{name(i)} * {name(j)}"))
    more += max(len(products.data) - shown, 0)
    return _between(_sum(terms, more), quadratic.lower[k], quadratic.upper[k])


def _general_text(view: View, k: int) -> str:
    name, trees, indicators = view.column_name, view.nonlinear, view.indicators
    at = -1 if trees is None else int(np.searchsorted(trees.places, k))
    if trees is not None and at < len(trees.places) and trees.places[at] == k:
        text, column = tree_text(trees, at, name), int(trees.columns[at])
        lower, upper = float(trees.lower[at]), float(trees.upper[at])
        if column < 0:
            return _between(text, lower, upper)
        if lower == upper == 0.0:
            return f"{name(column)} = {text}"
        return _between(f"{text} - {name(column)}", lower, upper)
    assert indicators is not None
    at = int(np.searchsorted(indicators.places, k))
    row = _sum(*_terms(indicators.rows, at, name))
    switch = f"{name(int(indicators.columns[at]))} = {int(indicators.values[at])}"
    return f"{switch}: {_between(row, indicators.lower[at], indicators.upper[at])}"


def _terms(rows: Rows, k: int, name: Name) -> tuple[list[tuple[float, str]], int]:
    """The first terms of a row, coefficient and name, and how many more there are."""
    start, stop = int(rows.indptr[k]), int(rows.indptr[k + 1])
    shown = slice(start, min(stop, start + _TERMS))
    pairs = zip(rows.data[shown].tolist(), rows.ids[shown].tolist(), strict=True)
    return [(a, name(j)) for a, j in pairs], stop - shown.stop


def _sum(terms: list[tuple[float, str]], more: int) -> str:
    shown = [
        f"{'-' if a < 0 else '+'} {'' if abs(a) == 1 else f'{abs(a):.15g} '}{text}"
        for a, text in terms
    ]
    if more:
        shown.append(f"+ ... ({more} more)")
    return " ".join(shown).removeprefix("+ ") or "0"


def _between(text: str, lower: float, upper: float) -> str:
    if lower == upper:
        return f"{text} = {lower:.15g}"
    if lower > -np.inf and upper < np.inf:
        return f"{lower:.15g} <= {text} <= {upper:.15g}"
    return f"{text} >= {lower:.15g}" if lower > -np.inf else f"{text} <= {upper:.15g}"


def tree_text(rows: NonlinearRows, k: int, name: Name) -> str:
    """An expression tree. Each operation's text is cut, so that trees which share parts, and
    would be endless when written out, cost no more than their operations."""
    made: list[tuple[int, str]] = []  # how tightly each binds, and its text
    for operation, first, second, number in _operations(rows, k):
        if operation == OPERATIONS[CONSTANT]:
            made.append((_ATOM if number >= 0 else 1, f"{number:.15g}"))
        elif operation == OPERATIONS[VARIABLE]:
            made.append((_ATOM, name(first)))
        else:
            made.append(_joined(operation, made[first], made[second] if second >= 0 else None))
    return made[-1][1] if made else "0"


def _operations(rows: NonlinearRows, k: int) -> Iterator[tuple[str, int, int, float]]:
    trees = rows.trees
    part = slice(trees.indptr[k], trees.indptr[k + 1])
    columns = (trees.codes[part], trees.first[part], trees.second[part], trees.numbers[part])
    for code, first, second, number in zip(*(each.tolist() for each in columns), strict=True):
        yield OPERATIONS[code], first, second, number


def _joined(
    operation: str, left: tuple[int, str], right: tuple[int, str] | None
) -> tuple[int, str]:
    if operation in _INFIX and right is not None:
        binds, sign = _INFIX[operation]
        after = binds + (operation in ("minus", "divide"))
        return binds, _cut(_wrapped(left, binds) + sign + _wrapped(right, after))
    if operation == "pow" and right is not None:
        return 3, _cut(f"{_wrapped(left, 4)}**{_wrapped(right, 4)}")
    if operation == "square":
        return 3, _cut(f"{_wrapped(left, 4)}**2")
    if operation == "uminus":
        return 1, _cut(f"-{_wrapped(left, 2)}")
    return _ATOM, _cut(f"{operation}({left[1]})")


def _wrapped(part: tuple[int, str], binds: int) -> str:
    return part[1] if part[0] >= binds else f"({part[1]})"


def _cut(text: str) -> str:
    half = _LENGTH // 2
    return text if len(text) <= _LENGTH else f"{text[: half - 2]} ... {text[3 - half :]}"
