"""Models as MPS files, in the free format: fields between blanks.

A quadratic objective goes to the section QUADOBJ, quadratic rows to QCMATRIX, indicators to
INDICATORS. Every bound that isn't the default is written, and both of them for integers, whose
defaults differ between readers.
"""

from __future__ import annotations

import re
from collections.abc import Iterator

import numpy as np
from numpy.typing import NDArray

from .._files import column_texts, number_texts
from ..data.quadratic import first_ids, second_ids
from ..data.rows import Rows, offsets
from ..data.values import Floats
from ..data.view import View
from .names import LONGEST, Fit, said
from .sheet import Sheet, number_text

_NUMBER = r"[+-]?(?:(?:\d+\.?\d*|\.\d+)(?:[ed][+-]?\d+)?|inf|infinity|nan)"
_WORDS = (
    "name|rows|columns|rhs|ranges|bounds|endata|objsense|objsense_?max|objective|objname|objmax"
    "|objmin|max|min|maximize|minimize|'.*|quadobj|qmatrix|qsection|qcmatrix|indicators|csection"
    "|sos[12]?|sets|lazycons|usercuts|gencons|refrow|free|negative"
)
_RESERVED = re.compile(rf"(?:{_NUMBER}|{_WORDS})", re.IGNORECASE)


def _mend(name: str) -> str:
    name = re.sub(r"[^!-~]", "_", name)
    if not name or name[0] in "*$'" or _RESERVED.fullmatch(name):
        return f"_{name}"
    return name


FIT = Fit(
    re.compile(
        rf"(?!(?:{_NUMBER}|{_WORDS})(?!\S))[!-#%-&(-)+-~][!-~]{{0,{LONGEST - 1}}}", re.IGNORECASE
    ),
    _mend,
)


def write_mps(view: View) -> Iterator[str]:
    """The parts of the file's text."""
    sheet = Sheet(view, FIT, _is_not_exact)
    for comment in sheet.comments:
        yield f"*{comment}\n"
    name = view.name
    if not re.fullmatch(r"[!-~]+", name):
        if name:
            yield f"*{said('model', name)}\n"
        name = re.sub(r"[^!-~]", "_", name)
    yield f"NAME {name}\n"
    if view.sense < 0:
        yield "OBJSENSE\n    MAX\n"
    yield from _rows(sheet)
    yield from _columns(sheet)
    yield from _right_sides(sheet)
    yield from _bounds(sheet)
    yield from _quadratic_parts(sheet)
    yield from _indicators(sheet)
    yield "ENDATA\n"


def _is_not_exact(lower: Floats, upper: Floats) -> NDArray[np.bool]:
    """Which rows have two sides that no entry of RANGES gives back."""
    is_inexact: NDArray[np.bool] = np.isfinite(lower) & np.isfinite(upper) & (lower != upper)
    width = upper[is_inexact] - lower[is_inexact]
    is_inexact[is_inexact] = (
        (width <= 0) | np.isinf(width) | (upper[is_inexact] - width != lower[is_inexact])
    )
    return is_inexact


def _lines(indent: str, *fields: list[str]) -> str:
    """A line for each entry of the lists."""
    return "".join([f"{indent}{' '.join(line)}\n" for line in zip(*fields, strict=True)])


def _rows(sheet: Sheet) -> Iterator[str]:
    letters = np.where(sheet.upper == np.inf, "G", "L")
    letters[(sheet.lower == -np.inf) & (sheet.upper == np.inf)] = "L"
    letters[sheet.lower == sheet.upper] = "E"
    yield f"ROWS\n N {sheet.objective_name}\n"
    yield _lines(" ", letters.tolist(), sheet.row_names)


def _columns(sheet: Sheet) -> Iterator[str]:
    """Each column's entries; a column without any gets a cost of 0."""
    count, rows, costs = sheet.view.column_count, sheet.rows, sheet.columns.costs
    is_used = np.zeros(count, bool)
    is_used[rows.ids] = True
    priced = np.flatnonzero((costs != 0) | ~is_used).astype(np.int32)
    objective = Rows(np.array([0, len(priced)]), priced, costs[priced])
    columns = Rows.stack([objective, rows]).by_column(count)
    texts = column_texts(
        sheet.column_names,
        [sheet.objective_name, *sheet.row_names],
        columns.indptr.astype(np.int64),
        columns.rows.astype(np.int32),
        columns.data,
    )
    is_integer = sheet.columns.is_integer
    changes = [0, *(np.flatnonzero(np.diff(is_integer)) + 1).tolist(), count]
    yield "COLUMNS\n"
    for first, end in zip(changes[:-1], changes[1:], strict=True):
        is_marked = first < end and is_integer[first]
        if is_marked:
            yield " MARKER 'MARKER' 'INTORG'\n"
        yield "".join(texts[first:end])
        if is_marked:
            yield " MARKER 'MARKER' 'INTEND'\n"


def _right_sides(sheet: Sheet) -> Iterator[str]:
    lower, upper = sheet.lower, sheet.upper
    is_free = (lower == -np.inf) & (upper == np.inf)
    rhs = np.where((upper == np.inf) & ~is_free, lower, upper)
    yield "RHS\n"
    if sheet.view.offset:
        yield f" RHS1 {sheet.objective_name} {number_text(-sheet.view.offset)}\n"
    yield _named(" RHS1 ", sheet.row_names, rhs, rhs != 0)
    ranged = (lower > -np.inf) & (upper < np.inf) & (lower != upper)
    if ranged.any():
        yield "RANGES\n"
        width = np.zeros(len(upper))
        width[ranged] = upper[ranged] - lower[ranged]
        yield _named(" RANGE1 ", sheet.row_names, width, ranged)


def _named(indent: str, names: list[str], values: Floats, which: NDArray[np.bool]) -> str:
    """Lines of names and values, for those that `which` tells."""
    at = np.flatnonzero(which)
    return _lines(indent, [names[k] for k in at.tolist()], number_texts(values[at]))


def _bounds(sheet: Sheet) -> Iterator[str]:
    """Lines by kind, one at most for each side of a column.

    LI and UI are for integers only: binary variables have BV, or FX, LO and UP.
    """
    is_integer, is_semi = sheet.columns.is_integer, sheet.view.is_semi
    lower, upper = sheet.columns.own_bounds()
    is_binary = sheet.view.is_binary
    is_whole = is_integer & ~is_binary & ~is_semi
    has_usual = is_binary & (lower == 0) & (upper == 1)
    is_free = ~is_integer & ~is_semi & (lower == -np.inf) & (upper == np.inf)
    is_fixed = ~is_whole & ~is_semi & (lower == upper)
    rest = ~is_whole & ~has_usual & ~is_free & ~is_fixed
    kinds = (
        ("BV", has_usual, None),
        ("FR", is_free, None),
        ("FX", is_fixed, lower),
        ("MI", (rest | is_whole) & (lower == -np.inf), None),
        ("LO", rest & (lower > -np.inf) & ((lower != 0) | (upper < 0) | is_binary), lower),
        ("LI", is_whole & (lower > -np.inf), lower),
        ("PL", is_whole & (upper == np.inf), None),
        ("UP", rest & ~is_semi & (upper < np.inf), upper),
        ("SC", is_semi & ~is_integer, upper),
        ("SI", is_semi & is_integer, upper),
        ("UI", is_whole & (upper < np.inf), upper),
    )
    if not any(which.any() for _, which, _ in kinds):
        return
    yield "BOUNDS\n"
    for kind, which, values in kinds:
        if values is not None:
            yield _named(f" {kind} BND1 ", sheet.column_names, values, which)
        else:
            at = np.flatnonzero(which).tolist()
            yield _lines(f" {kind} BND1 ", [sheet.column_names[k] for k in at])


def _quadratic_parts(sheet: Sheet) -> Iterator[str]:
    names, objective = sheet.column_names, sheet.view.quadratic_objective
    if objective is not None:
        doubled = np.where(objective.ids1 == objective.ids2, 2.0, 1.0) * objective.data
        yield "QUADOBJ\n"
        yield _pair_lines(names, objective.ids1, objective.ids2, doubled)
    quadratic = sheet.view.quadratic_rows
    if quadratic is None:
        return
    pairs = quadratic.pairs
    first, second = first_ids(pairs), second_ids(pairs)
    is_square = first == second
    # Both halves of a pair, one after the other; a square has but one.
    times = np.where(is_square, 1, 2)
    source = np.repeat(np.arange(pairs.nnz), times)
    is_turned = np.diff(source, prepend=-1) == 0
    ids1 = np.where(is_turned, second[source], first[source])
    ids2 = np.where(is_turned, first[source], second[source])
    data = np.where(is_square[source], 1.0, 0.5) * pairs.data[source]
    starts = offsets(times)[pairs.indptr]
    for k in range(pairs.count):
        at = slice(starts[k], starts[k + 1])
        yield f"QCMATRIX {sheet.row_names[sheet.quadratic_start + k]}\n"
        yield _pair_lines(names, ids1[at], ids2[at], data[at])


def _pair_lines(
    names: list[str],
    ids1: NDArray[np.signedinteger],
    ids2: NDArray[np.signedinteger],
    data: Floats,
) -> str:
    return _lines(
        " ",
        [names[k] for k in ids1.tolist()],
        [names[k] for k in ids2.tolist()],
        number_texts(data),
    )


def _indicators(sheet: Sheet) -> Iterator[str]:
    indicators = sheet.view.indicators
    if indicators is None:
        return
    start, count = sheet.indicator_start, len(indicators.columns)
    yield "INDICATORS\n"
    yield _lines(
        " IF ",
        sheet.row_names[start : start + count],
        [sheet.column_names[k] for k in indicators.columns.tolist()],
        [str(value) for value in indicators.values.tolist()],
    )
