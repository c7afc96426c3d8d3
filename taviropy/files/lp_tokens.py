"""The words of LP files, and sums of terms read from them."""

from __future__ import annotations

import re
from itertools import islice
from typing import NamedTuple

from .._exception import TaviroError
from .storage import Source

_IN_NAME = r"[^\s<>=+\-*/^:\[\]]"
NUMBER = r"(?>(?:\d+\.?\d*|\.\d+)(?:[eE][+-]?\d+)?)"
INFINITY = rf"(?:[iI][nN][fF](?:[iI][nN][iI][tT][yY])?(?!{_IN_NAME}))"
VALUE = rf"(?:{NUMBER}|{INFINITY})"
SIGN = r"(?:[+-]\s*)"
RELATION = r"(?:[<>]=?|=[<>]?)"
# Square brackets belong to a name where they follow on it: "x[0]".
NAME = rf"(?:(?![\d.]){_IN_NAME}+(?:\[[^\s\[\]]*\]{_IN_NAME}*)*)"
_OTHERS = "|".join(
    (
        "->",
        r"\]\s*/\s*2(?![\d.])",
        rf"{RELATION}\s*{SIGN}*{VALUE}",  # a comparison, and the number on its right
        RELATION,
        r"\^\s*2(?![\d.])",
    )
)
# A term's sign, number and name, or something else.
_TOKEN = re.compile(
    rf"(?!->)([+-]?)\s*(?:({NUMBER})(?:\s*\*)?\s*)?({NAME})|({_OTHERS}|[+-]?\s*{NUMBER}|\S)"
)
Token = tuple[str, str, str, str]


class Words:
    """A section's tokens: sign, number and name of a term, or, as the fourth, something else."""

    def __init__(self, source: Source, text: str, start: int) -> None:
        self._source = source
        self._text = text
        self._start = start  # of the text in the file
        self.tokens: list[Token] = _TOKEN.findall(text)

    def fault(self, at: int, why: str) -> TaviroError:
        """The error for the line of a token."""
        found = next(islice(_TOKEN.finditer(self._text), at, None), None)
        place = len(self._text.rstrip()) if found is None else found.start()
        return self._source.fault_at(self._start + place, why)


class Sum(NamedTuple):
    """A sum: its linear terms, the quadratic ones, its constant, and the token behind it."""

    names: list[str]
    data: list[float]
    pairs: list[tuple[str, str, float]]
    constant: float
    is_quadratic: bool
    end: int


def is_relation(token: Token) -> bool:
    """Whether a token is a comparison, with a number behind it or without."""
    return token[3][:1] in ("<", ">", "=") and token[3] != ""


def is_infinity(token: Token) -> bool:
    """Whether a term is the word for infinity."""
    return not token[1] and token[2].lower() in ("inf", "infinity")


def coefficient(token: Token) -> float:
    """The number in front of a term."""
    value = float(token[1]) if token[1] else 1.0
    return -value if token[0] == "-" else value


def value_of(text: str) -> float:
    """A number with signs and blanks; infinity too."""
    try:
        return float(text)
    except ValueError:
        text = "".join(text.split())
    number = text.lstrip("+-")
    signs = text[: len(text) - len(number)]
    return -float(number) if signs.count("-") % 2 else float(number)


def read_sum(words: Words, at: int, needs_half: bool = False) -> Sum:
    """The sum that begins with a token; it ends before anything that can't go on with it.

    ``needs_half`` tells that quadratic terms must stand as `[ ... ] / 2`.
    """
    tokens, count = words.tokens, len(words.tokens)
    found = Sum([], [], [], 0.0, False, at)
    constant, is_quadratic, sign, expects = 0.0, False, 1.0, True
    while at < count:
        token = tokens[at]
        other = token[3]
        if other in ("+", "-"):
            sign, expects = -sign if other == "-" else sign, True
            at += 1
            continue
        is_number = other[-1:].isdigit() or other[-1:] == "."
        if not other:
            is_label = at + 1 < count and tokens[at + 1][3] == ":"
            if is_label and token[1] and (expects or token[0]):
                # The number ends this sum, and the name is the next row's.
                constant += sign * coefficient(token)
                tokens[at] = ("", "", token[2], "")
                expects = False
            if is_label or not (expects or token[0]):
                break
            found.names.append(token[2])
            found.data.append(sign * coefficient(token))
            at += 1
        elif other == "[" and expects:
            at = _read_brackets(words, at + 1, sign, found.pairs, needs_half)
            is_quadratic = True
        elif is_number and not is_relation(token) and other[0] not in "]^":
            if not (expects or other[0] in "+-"):
                break
            constant += sign * value_of(other)
            at += 1
        else:
            break
        sign, expects = 1.0, False
    if expects and at > found.end and tokens[at - 1][3] in ("+", "-"):
        raise words.fault(at - 1, f"nothing comes after the '{tokens[at - 1][3]}'")
    return found._replace(constant=constant, is_quadratic=is_quadratic, end=at)


def _read_brackets(
    words: Words, at: int, sign: float, pairs: list[tuple[str, str, float]], needs_half: bool
) -> int:
    """Add what stands in brackets to `pairs`; returns the token behind them."""
    first_pair, is_first, inner = len(pairs), True, 1.0
    while at < len(words.tokens):
        token = words.tokens[at]
        if token[3][:1] == "]":
            is_halved = len(token[3]) > 1
            if needs_half and not is_halved:
                raise words.fault(at, "quadratic terms of an objective stand as '[ ... ] / 2'")
            factor = 0.5 * sign if is_halved else sign
            pairs[first_pair:] = [(i, j, factor * v) for i, j, v in pairs[first_pair:]]
            return at + 1
        if token[3] in ("+", "-"):
            inner = -inner if token[3] == "-" else inner
            is_first = True
            at += 1
            continue
        if token[3] or not (is_first or token[0]):
            raise words.fault(at, "between brackets stand terms such as '3 x ^ 2' and '3 x * y'")
        tokens = words.tokens[at + 1 : at + 3]
        value = inner * coefficient(token)
        if tokens and tokens[0][3][:1] == "^":
            pairs.append((token[2], token[2], value))
            at += 2
        elif len(tokens) == 2 and tokens[0][3] == "*" and tokens[1][2] and not tokens[1][0]:
            pairs.append((token[2], tokens[1][2], value * coefficient(tokens[1])))
            at += 3
        else:
            raise words.fault(at, f"'{token[2]}' isn't followed by '^ 2' or by '*' and a variable")
        is_first, inner = False, 1.0
    raise words.fault(at, "a bracket isn't closed")
