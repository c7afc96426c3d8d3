"""Names as a file can hold them, and comments that keep those it can't.

A format has names that it can't say: with blanks, with the characters of its operators, equal to
its keywords. The file gets others instead, each one once, and tells in comments what they stand
for. Other programs skip the comments and read the same model; `tv.read` gives the names back.

The comments begin with the format's comment character and "~":

    ~ model "any text"               the model's name
    ~ column ["x_y", "x y"]          a column's name in the file, and in the model
    ~ row ["end~1", "end"]           the same for a row
    ~ brackets                       "(" stands for "[" and ")" for "]" in all names not listed
    ~ lower ["c~lower", "c"]         the first row has the lower side of the second one
"""

from __future__ import annotations

import json
import re
from collections.abc import Callable, Iterable, Iterator, Sequence
from typing import NamedTuple

LONGEST = 250  # characters; some readers cut what is longer than 255
_TO_ROUND = str.maketrans("[]", "()")
_TO_SQUARE = str.maketrans("()", "[]")


class Fit(NamedTuple):
    """What a format's names are like: a pattern of those it can hold, and how others are mended."""

    safe: re.Pattern[str]
    mend: Callable[[str], str]
    brackets: bool = False  # whether mending makes round brackets of square ones


def fitted(names: Sequence[str], fit: Fit) -> list[str]:
    """Names that the format can hold, each one once; those that it can hold already stay."""
    is_safe = fit.safe.fullmatch
    fit_names = [name if is_safe(name) else fit.mend(name)[:LONGEST] for name in names]
    taken = set(fit_names)
    if len(taken) == len(fit_names):
        return fit_names
    seen: set[str] = set()
    count: dict[str, int] = {}
    for place, base in enumerate(fit_names):
        name = base
        while name in seen or (name is not base and name in taken):
            count[base] = count.get(base, 0) + 1
            name = f"{base[:LONGEST]}~{count[base]}"
        seen.add(name)
        fit_names[place] = name
    return fit_names


def comments(
    fit: Fit,
    columns: tuple[Sequence[str], Sequence[str]],
    rows: tuple[Sequence[str], Sequence[str]],
) -> Iterator[str]:
    """The comments, without comment character, that tell which names stand for which.

    Each pair holds the names of the file and those of the model.
    """
    uses_brackets = fit.brackets and any(
        new != old and new == old.translate(_TO_ROUND)
        for pair in (columns, rows)
        for new, old in zip(*pair, strict=True)
    )
    if uses_brackets:
        yield "~ brackets"
    for kind, pair in (("column", columns), ("row", rows)):
        for new, old in zip(*pair, strict=True):
            if (new.translate(_TO_SQUARE) if uses_brackets else new) != old:
                yield said(kind, new, old)


def said(kind: str, *texts: str) -> str:
    """One comment, without comment character."""
    return f"~ {kind} {json.dumps(texts[0] if len(texts) == 1 else texts)}"


class Table:
    """What the comments of a file tell."""

    def __init__(self, lines: Iterable[str]) -> None:
        self.model: str | None = None
        self.lower: dict[str, str] = {}
        self._brackets = False
        self._names: dict[str, dict[str, str]] = {"column": {}, "row": {}}
        for line in lines:
            self._read(line)

    def _read(self, line: str) -> None:
        """Take in a comment, from the "~" on; what isn't of the kind above is somebody else's."""
        kind, _, text = line[1:].strip().partition(" ")
        if kind == "brackets" and not text:
            self._brackets = True
            return
        try:
            value = json.loads(text)
        except ValueError:
            return
        if kind == "model" and isinstance(value, str):
            self.model = value
        elif isinstance(value, list) and [type(each) for each in value] == [str, str]:
            if kind in self._names:
                self._names[kind][value[0]] = value[1]
            elif kind == "lower":
                self.lower[value[0]] = value[1]

    def originals(self, kind: str, names: list[str]) -> list[str]:
        """The model's names of columns or rows, by those of the file."""
        known = self._names[kind]
        if self._brackets:
            return [known[name] if name in known else name.translate(_TO_SQUARE) for name in names]
        return [known.get(name, name) for name in names] if known else names
