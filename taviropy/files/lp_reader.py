"""LP files: an objective, rows, bounds and types of variables as formulas.

A row ends with the number on its right, wherever lines end. Variables are numbered as they come
up. Those that nothing is said of lie in [0, inf); binary ones in [0, 1], where the bounds don't
say less.
"""

from __future__ import annotations

import re
from array import array

import numpy as np
from numpy.typing import NDArray

from .._exception import TaviroError
from .._files import plain_rows
from .._tvo import TVO
from ..data.attributes import BINARY, CONTINUOUS, SEMI, SEMI_WHOLE, WHOLE
from ..data.rows import sums_at
from ..data.values import Floats, cut_binaries
from .contents import Columns, Contents, Lines, Terms, infinite, rows_of
from .lp_tokens import (
    NAME,
    RELATION,
    SIGN,
    VALUE,
    Sum,
    Token,
    Words,
    is_infinity,
    is_relation,
    read_sum,
    value_of,
)
from .names import Table
from .storage import Source

_SECTIONS = (
    ("max", r"maximi[sz]e|maximum|max"),
    ("min", r"minimi[sz]e|minimum|min"),
    ("rows", r"subject[ \t]+to|such[ \t]+that|st\.?|s\.[ \t]*t\.?"),
    ("bounds", r"bounds?"),
    ("other", r"general[ \t]+constraints?|lazy[ \t]+constraints?|user[ \t]+cuts?|sos[12]?|pwlobj"),
    ("semi_whole", r"semi-integer"),
    ("semi", r"semi-?continuous|semis?"),
    ("whole", r"generals?|gen|integers?|int"),
    ("binary", r"binar(?:y|ies)|bin"),
    ("free", r"free"),
    ("end", r"end"),
)
# A section's word begins a line, and isn't a name that is compared, multiplied or a label.
_SECTION = re.compile(
    rf"^[ \t]*(?:{'|'.join(f'(?P<{kind}>{words})' for kind, words in _SECTIONS)})"
    rf"(?=\s|\Z)(?!\s*(?:[<>=:*^]|->))",
    re.IGNORECASE | re.MULTILINE,
)
_BOUND = re.compile(
    rf"(?:({SIGN}*{VALUE})\s*({RELATION})\s*)?({NAME})"
    rf"(?:\s*({RELATION})\s*({SIGN}*{VALUE})|[ \t]+(free)(?=\s|\Z))?|(\S)",
    re.IGNORECASE,
)
_TURNED = str.maketrans("<>", "><")
_LISTED = re.compile(rf"({NAME})|(\S)")


def read_lp(source: Source) -> Contents:
    """The model in an LP file; TaviroError names the line that can't be read."""
    text = source.text
    table = Table(re.findall(r"^\\(~.*)", text, re.MULTILINE))
    named = re.search(r"^\\[ \t]*Problem name:[ \t]*(.*?)[ \t]*$", text, re.MULTILINE)
    if table.model is None:
        table.model = named[1] if named is not None else ""
    if "\\" in text:
        text = re.sub(r"\\.*", lambda comment: " " * len(comment[0]), text)
    return _Reader(source, text).read(table)


class _Reader:
    """What was read so far."""

    def __init__(self, source: Source, text: str) -> None:
        self._source = source
        self._text = text
        self._objective = Sum([], [], [], 0.0, False, 0)
        self._priced: list[int] = []  # the columns of its linear terms
        self._columns: dict[str, int] = {}  # numbers in the order of their mention
        # Rows: names, sides and numbers of entries, and the entries one row after the other.
        self._row_names: list[str] = []
        self._lower, self._upper, self._lengths = array("d"), array("d"), array("q")
        self._ids, self._data = array("q"), array("d")
        self._pairs: list[tuple[int, int, int, float]] = []  # a row of -1 is the objective
        self._quadratic: set[int] = set()
        self._indicators: dict[int, tuple[int, int]] = {}
        # What sections say of variables
        self._least: dict[str, float] = {}
        self._most: dict[str, float] = {}
        self._types: dict[str, int] = {}
        self._semi: dict[str, bool] = {}  # whether their section makes them integer

    def read(self, table: Table) -> Contents:
        """The contents of the file."""
        sense = 0
        found = list(_SECTION.finditer(self._text))
        if (
            not found
            or found[0].lastgroup not in ("max", "min")
            or self._text[: found[0].start()].strip()
        ):
            raise self._source.fault_at(
                len(self._text) - len(self._text.lstrip()),
                "an LP file begins with 'Minimize' or 'Maximize'",
            )
        for match, following in zip(found, [*found[1:], None], strict=True):
            kind, start = match.lastgroup, match.end()
            end = len(self._text) if following is None else following.start()
            if kind == "end":
                break
            if kind in ("max", "min"):
                if sense:
                    raise self._source.fault_at(match.start(), "there is an objective already")
                sense = -1 if kind == "max" else 1
                self._read_objective(start, end)
            elif kind == "rows":
                self._read_rows(start, end)
            elif kind == "bounds":
                self._read_bounds(start, end)
            elif kind == "other":
                self._refuse_section(match, start, end)
            else:
                self._read_list(kind or "", start, end)
        else:
            raise self._source.fault_at(
                len(self._text.rstrip()), "the file ends without 'End': it may be cut off"
            )
        return self._contents(sense, table)

    # Sections

    def _read_objective(self, start: int, end: int) -> None:
        words = Words(self._source, self._text[start:end], start)
        tokens = words.tokens
        at = 2 if len(tokens) > 1 and tokens[1][3] == ":" and _is_label(tokens[0]) else 0
        self._objective = read_sum(words, at, needs_half=True)
        if self._objective.end < len(tokens):
            raise words.fault(self._objective.end, "the objective can't go on like this")
        self._priced = [self._number(name) for name in self._objective.names]
        self._add_pairs(-1, self._objective)

    def _read_rows(self, start: int, end: int) -> None:
        """Plain rows all at once, and from the first other one on row by row."""
        text = self._text[start:end]
        if text.isascii():
            place, names, lengths, ids, data, lower, upper = plain_rows(text, self._columns)
            start += place
            first = len(self._row_names)
            self._row_names += [name or f"R{k}" for k, name in enumerate(names, first)]
            for known, more in (
                (self._lengths, lengths),
                (self._ids, ids),
                (self._data, data),
                (self._lower, lower),
                (self._upper, upper),
            ):
                known.frombytes(more.tobytes())
        words = Words(self._source, self._text[start:end], start)
        tokens = words.tokens
        at = 0
        while at < len(tokens):
            name = ""
            if _is_at(tokens, at + 1, ":") and _is_label(tokens[at]):
                name = tokens[at][2]
                at += 2
            at = self._read_row(words, name, at)

    def _read_row(self, words: Words, name: str, at: int) -> int:
        """Read a row of any kind; returns the token behind it."""
        start, tokens = at, words.tokens
        binary = None
        left, at = self._left_side(words, at)
        if left is None:
            found = read_sum(words, at)
            if _is_at(tokens, found.end + 1, "->"):
                binary = self._binary(words, found, tokens[found.end])
                at = found.end + 2
                left, at = self._left_side(words, at)
                found = read_sum(words, at) if left is None else found
        lower, upper = -np.inf, np.inf
        if left is not None:
            found = read_sum(words, at)
            lower, upper = left
        if found.end < len(tokens) and is_relation(tokens[found.end]):
            if tokens[found.end][3][-1] in "<>=":
                raise words.fault(found.end, "a comparison has no number on its right")
            low, high = _sides(tokens[found.end][3])
            if left is not None and (low > -np.inf < lower or high < np.inf > upper):
                raise words.fault(found.end, "both comparisons bound the same side")
            lower, upper = max(lower, low), min(upper, high)
            end = found.end + 1
        elif left is None:
            raise words.fault(
                min(found.end, len(tokens) - 1), "a sign or a comparison is missing here"
            )
        else:
            end = found.end
        if end == start:
            raise words.fault(start, "this is no row")
        row = len(self._row_names)
        if binary is not None:
            if found.is_quadratic:
                raise words.fault(start, "the row behind an indicator has to be linear")
            self._indicators[row] = self._number(binary[0]), binary[1]
        ids = [self._number(each) for each in found.names]
        if found.is_quadratic:
            self._quadratic.add(row)
            self._add_pairs(row, found)
        self._row_names.append(name or f"R{row}")
        self._lengths.append(len(ids))
        self._ids.extend(ids)
        self._data.extend(found.data)
        self._lower.append(lower - found.constant)
        self._upper.append(upper - found.constant)
        return end

    def _left_side(self, words: Words, at: int) -> tuple[tuple[float, float] | None, int]:
        """Sides from `1 <=` at the beginning of a row, None without, and the token behind it.

        A number behind the comparison was taken for the right side: it begins the sum.
        """
        tokens = words.tokens
        if not (at + 1 < len(tokens) and is_relation(tokens[at + 1])):
            return None, at
        head = tokens[at]
        if head[3]:
            if not (head[3][-1].isdigit() or head[3][-1] == "."):
                return None, at
            value = value_of(head[3])
        elif is_infinity(head):
            value = value_of(head[0] + "inf")
        else:
            return None, at
        relation, number = _split_relation(tokens[at + 1][3])
        at += 2
        if number:
            if at == len(tokens) or is_relation(tokens[at]) or _is_at(tokens, at + 1, ":"):
                return None, at - 2  # a row without variables, such as `0 <= 1`
            if _is_at(tokens, at, "*"):
                at += 1
            sign, _, name, other = following = tokens[at]
            if name and not following[0] and not following[1]:
                value_text = repr(abs(value_of(number)))
                sign = "-" if value_of(number) < 0 else ""
                tokens[at] = (sign, value_text, name, other)
            else:
                at -= 1
                tokens[at] = ("", "", "", number)
        low, high = _sides(f"{relation}0")
        return (value if high < np.inf else -np.inf, value if low > -np.inf else np.inf), at

    def _binary(self, words: Words, found: Sum, token: Token) -> tuple[str, int]:
        """The variable and the value of an indicator."""
        relation, number = _split_relation(token[3])
        if (
            relation != "="
            or found.data != [1.0]
            or found.pairs
            or found.constant
            or value_of(number) not in (0.0, 1.0)
        ):
            raise words.fault(found.end, "an indicator is a variable, '=', and 0 or 1")
        return found.names[0], int(value_of(number))

    def _add_pairs(self, row: int, found: Sum) -> None:
        for first, second, value in found.pairs:
            self._pairs.append((row, self._number(first), self._number(second), value))

    def _number(self, name: str) -> int:
        """The number of a variable; a new one gets the next."""
        return self._columns.setdefault(name, len(self._columns))

    def _read_bounds(self, start: int, end: int) -> None:
        text = self._text[start:end]
        for match in _BOUND.finditer(text):
            left, first, name, second, right, free, other = match.groups()
            if other or not (left or right or free) or is_infinity(("", "", name, "")):
                raise self._source.fault_at(
                    start + match.start(), "a bound is '1 <= x <= 2', a part of that, or 'x free'"
                )
            self._number(name)
            if free:
                self._least[name], self._most[name] = -np.inf, np.inf
            if left:
                self._bound(name, first.translate(_TURNED), left)
            if right:
                self._bound(name, second, right)

    def _bound(self, name: str, relation: str, number: str) -> None:
        relation, value = _split_relation(relation)[0], value_of(number)
        if relation != "<":
            self._least[name] = value
        if relation != ">":
            self._most[name] = value

    def _refuse_section(self, title: re.Match[str], start: int, end: int) -> None:
        """Refuse a section of what a model hasn't got, unless nothing is in it."""
        found = _LISTED.search(self._text, start, end)
        if found is None:
            return
        why = f"the section '{title[0].strip()}' can't be read"
        raise self._source.fault_at(found.start(), why, TVO.Error.NOT_SUPPORTED)

    def _read_list(self, kind: str, start: int, end: int) -> None:
        """Names of integer, binary or free variables."""
        for match in _LISTED.finditer(self._text, start, end):
            name = match[1]
            if name is None:
                raise self._source.fault_at(match.start(), "only names of variables stand here")
            self._number(name)
            if kind == "free":
                self._least[name], self._most[name] = -np.inf, np.inf
            elif kind in ("semi", "semi_whole"):
                self._semi[name] = kind == "semi_whole"
            else:
                self._types[name] = BINARY if kind == "binary" else WHOLE

    # The end

    def _contents(self, sense: int, table: Table) -> Contents:
        count, row_count = len(self._columns), len(self._row_names)
        data = np.array(self._data)
        row = np.repeat(np.arange(row_count), np.array(self._lengths))
        self._check_numbers(row, data)
        lines = Lines(
            self._row_names,
            rows_of(row_count, count, row, np.array(self._ids), data),
            infinite(np.array(self._lower)),
            infinite(np.array(self._upper)),
        )
        costs = sums_at(np.array(self._priced, np.int64), np.array(self._objective.data), count)
        return Contents(
            table.model or "",
            sense,
            self._objective.constant,
            self._finished_columns(costs),
            lines,
            Terms.of(self._pairs),
            self._quadratic,
            self._indicators,
            table,
        )

    def _check_numbers(self, row: NDArray[np.int64], data: Floats) -> None:
        """Refuse what is too large for a number: it was read as infinite."""
        bad = [self._row_names[k] for k in row[np.isinf(data)].tolist()]
        bad += [self._row_names[k] for k, _, _, value in self._pairs if k >= 0 and np.isinf(value)]
        objective = (*self._objective.data, self._objective.constant)
        values = (*objective, *(value for _, _, value in self._objective.pairs))
        if bad or not np.isfinite(values).all():
            where = f"the row '{bad[0]}'" if bad else "the objective"
            raise TaviroError(
                TVO.Error.FILE,
                f"'{self._source.path}': {where} has a number beyond 1.8e308: scale it",
            )

    def _finished_columns(self, costs: Floats) -> Columns:
        count = len(self._columns)
        lower, upper = np.zeros(count), np.full(count, np.inf)
        types = np.full(count, CONTINUOUS, np.uint8)
        for values, known in ((types, self._types), (lower, self._least), (upper, self._most)):
            values[[self._columns[name] for name in known]] = list(known.values())
        for name, is_whole in self._semi.items():
            is_whole |= self._types.get(name, CONTINUOUS) != CONTINUOUS
            types[self._columns[name]] = SEMI_WHOLE if is_whole else SEMI
        lower, upper = cut_binaries(infinite(lower), infinite(upper), types)
        return Columns(list(self._columns), costs, lower, upper, types)


def _is_label(token: Token) -> bool:
    return bool(token[2]) and not token[0] and not token[1]


def _is_at(tokens: list[Token], at: int, text: str) -> bool:
    """Whether a token is there and is this text."""
    return at < len(tokens) and tokens[at][3] == text


def _split_relation(text: str) -> tuple[str, str]:
    """A comparison as one of "<", "=" and ">", and the number behind it."""
    number = text.lstrip("<>=")
    relation = text[: len(text) - len(number)]
    return relation.strip("=") or "=", number


def _sides(text: str) -> tuple[float, float]:
    """The lower and upper side of what stands left of a comparison and a number."""
    relation, number = _split_relation(text)
    value = value_of(number)
    return (
        -np.inf if relation == "<" else value,
        np.inf if relation == ">" else value,
    )
