"""LP files: an objective, rows, bounds and types of variables as formulas.

A row ends with the number on its right, wherever lines end. Variables are numbered as they come
up. Those that nothing is said of lie in [0, inf); binary ones in [0, 1], where the bounds don't
say less.
"""

from __future__ import annotations

import re
from itertools import chain

import numpy as np

from .._tvo import TVO
from ..data.attributes import BINARY, CONTINUOUS, WHOLE
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
    ("semi", r"semi-?continuous|semi-integer|semis?"),
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
        # Rows: names, sides and numbers of entries; the entries of all of them are in a line.
        self._row_names: list[str] = []
        self._lower: list[float] = []
        self._upper: list[float] = []
        self._lengths: list[int] = []
        self._names: list[str] = []
        self._data: list[float] = []
        self._pairs: list[tuple[int, str, str, float]] = []
        self._quadratic: set[int] = set()
        self._indicators: dict[int, tuple[str, int]] = {}
        # What sections say of variables
        self._mentioned: dict[str, None] = {}  # in the order of their mention
        self._least: dict[str, float] = {}
        self._most: dict[str, float] = {}
        self._types: dict[str, int] = {}

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
            elif kind in ("other", "semi"):
                self._refuse_section(kind, match, start, end)
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

    def _read_rows(self, start: int, end: int) -> None:
        """Rows one by one: those that are plain sums at once, others by their parts."""
        words = Words(self._source, self._text[start:end], start)
        tokens = words.tokens
        others = [k for k, token in enumerate(tokens) if token[3]]
        others.append(len(tokens))
        at, place = 0, 0
        while at < len(tokens):
            name = ""
            if at + 1 < len(tokens) and tokens[at + 1][3] == ":" and _is_label(tokens[at]):
                name = tokens[at][2]
                at += 2
            while others[place] < at:
                place += 1
            stop = others[place]
            if not self._read_plain(words, name, at, stop):
                at = self._read_parts(words, name, at)
                continue
            at = stop + 1

    def _read_plain(self, words: Words, name: str, at: int, stop: int) -> bool:
        """Read a row of linear terms and a comparison with a number, if it is one."""
        tokens = words.tokens
        if stop == at or stop == len(tokens) or not tokens[stop][3][-1].isdigit():
            return False
        if (stop + 1 < len(tokens) and tokens[stop + 1][3] == "->") or not is_relation(
            tokens[stop]
        ):
            return False
        terms = tokens[at:stop]
        if is_infinity(terms[0]):
            return False
        signs = [token[0] for token in terms]
        if "" in signs[1:]:
            at += signs.index("", 1)
            raise words.fault(
                at, f"a sign or a comparison is missing in front of '{tokens[at][2]}'"
            )
        self._names += [token[2] for token in terms]
        self._data += [
            (-1.0 if sign == "-" else 1.0) * (float(number) if number else 1.0)
            for sign, number, _, _ in terms
        ]
        self._add_row(name, len(terms), *_sides(tokens[stop][3]))
        return True

    def _read_parts(self, words: Words, name: str, at: int) -> int:
        """Read a row of another kind; returns the token behind it."""
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
            raise words.fault(min(found.end, len(tokens) - 1), "a row has no comparison")
        else:
            end = found.end
        if end == start:
            raise words.fault(start, "this is no row")
        row = len(self._row_names)
        if found.is_quadratic:
            if binary is not None:
                raise words.fault(start, "the row behind an indicator has to be linear")
            self._quadratic.add(row)
            self._pairs += [(row, *pair) for pair in found.pairs]
        if binary is not None:
            self._indicators[row] = binary
        # Variables of pairs and of indicators come up here too, as entries of 0.
        mentioned = [binary[0]] if binary is not None else []
        mentioned += found.names + [each for pair in found.pairs for each in pair[:2]]
        data = [0.0] * (len(mentioned) - 2 * len(found.pairs) - len(found.names)) + found.data
        self._names += mentioned
        self._data += data + [0.0] * (len(mentioned) - len(data))
        self._add_row(name, len(mentioned), lower - found.constant, upper - found.constant)
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

    def _add_row(self, name: str, length: int, lower: float, upper: float) -> None:
        self._row_names.append(name or f"R{len(self._row_names)}")
        self._lengths.append(length)
        self._lower.append(lower)
        self._upper.append(upper)

    def _read_bounds(self, start: int, end: int) -> None:
        text = self._text[start:end]
        for match in _BOUND.finditer(text):
            left, first, name, second, right, free, other = match.groups()
            if other or not (left or right or free) or is_infinity(("", "", name, "")):
                raise self._source.fault_at(
                    start + match.start(), "a bound is '1 <= x <= 2', a part of that, or 'x free'"
                )
            self._mentioned[name] = None
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

    def _refuse_section(self, kind: str, title: re.Match[str], start: int, end: int) -> None:
        """Refuse a section of what a model hasn't got, unless nothing is in it."""
        found = _LISTED.search(self._text, start, end)
        if found is None:
            return
        why = f"the section '{title[0].strip()}' can't be read"
        if kind == "semi":
            why = (
                f"the variable '{found[0]}' is semi-continuous, which a model has no type for: "
                f"write it with a binary variable and two constraints"
            )
        raise self._source.fault_at(found.start(), why, TVO.Error.NOT_SUPPORTED)

    def _read_list(self, kind: str, start: int, end: int) -> None:
        """Names of integer, binary or free variables."""
        for match in _LISTED.finditer(self._text, start, end):
            name = match[1]
            if name is None:
                raise self._source.fault_at(match.start(), "only names of variables stand here")
            self._mentioned[name] = None
            if kind == "free":
                self._least[name], self._most[name] = -np.inf, np.inf
            else:
                self._types[name] = BINARY if kind == "binary" else WHOLE

    # The end

    def _contents(self, sense: int, table: Table) -> Contents:
        objective = self._objective
        of_pairs = (name for pair in objective.pairs for name in pair[:2])
        mentioned = chain(objective.names, of_pairs, self._names, self._mentioned)
        columns = {name: k for k, name in enumerate(dict.fromkeys(mentioned))}
        count = len(columns)
        column = np.fromiter(map(columns.__getitem__, self._names), np.int64, len(self._names))
        row = np.repeat(np.arange(len(self._lengths)), np.array(self._lengths, np.int64))
        lines = Lines(
            self._row_names,
            rows_of(len(self._lengths), count, row, column, np.array(self._data, np.float64)),
            infinite(np.array(self._lower, np.float64)),
            infinite(np.array(self._upper, np.float64)),
        )
        priced = np.array([columns[name] for name in objective.names], np.int64)
        pairs = [(-1, *pair) for pair in objective.pairs] + self._pairs
        return Contents(
            table.model or "",
            sense,
            objective.constant,
            self._columns(columns, sums_at(priced, np.array(objective.data), count)),
            lines,
            Terms.of([(k, columns[i], columns[j], value) for k, i, j, value in pairs]),
            self._quadratic,
            {k: (columns[name], value) for k, (name, value) in self._indicators.items()},
            table,
        )

    def _columns(self, columns: dict[str, int], costs: Floats) -> Columns:
        count = len(columns)
        lower, upper = np.zeros(count), np.full(count, np.inf)
        types = np.full(count, CONTINUOUS, np.uint8)
        for values, known in ((types, self._types), (lower, self._least), (upper, self._most)):
            at = [columns[name] for name in known]
            values[at] = list(known.values())
        lower, upper = infinite(lower), infinite(upper)
        lower, upper = cut_binaries(lower, upper, types)
        return Columns(list(columns), costs, lower, upper, types)


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
