"""MPS files, in the free format (fields between blanks) and the fixed one (fields at columns).

The first row of type N is the objective, others of type N are left out, as they bound nothing.
Bounds and sides from 1e20 on are infinite.
"""

from __future__ import annotations

import re
from collections.abc import Callable, Iterator

import numpy as np
from numpy.typing import NDArray

from .._exception import TaviroError
from .._files import column_entries
from .._tvo import TVO
from ..data.rows import Rows, sums_at
from ..data.values import Floats
from .contents import Columns, Contents, Lines, Terms, infinite, rows_of
from .mps_bounds import WITHOUT_NUMBER, BoundLines
from .names import Table
from .storage import Source

_SECTIONS = (
    *("NAME", "ROWS", "COLUMNS", "RHS", "RANGES", "BOUNDS", "ENDATA", "OBJSENSE", "OBJNAME"),
    *("QUADOBJ", "QMATRIX", "QCMATRIX", "INDICATORS"),
)
_SENSES = {"MAX": -1, "MAXIMIZE": -1, "MIN": 1, "MINIMIZE": 1}
_FIXED = ((1, 3), (4, 12), (14, 22), (24, 36), (39, 47), (49, 61))


def read_mps(source: Source) -> Contents:
    """The model in an MPS file; TaviroError names the line that can't be read."""
    table = Table(re.findall(r"^\*(~.*)", source.text, re.MULTILINE))
    try:
        return _Reader(source, str.split).read(table)
    except TaviroError as error:
        # In the fixed format names may hold blanks, with which the free one has too many fields.
        try:
            return _Reader(source, _fixed_fields).read(table)
        except TaviroError:
            raise error from None


def _fixed_fields(line: str) -> list[str]:
    fields = (line[first:end].strip() for first, end in _FIXED)
    return [field for field in fields if field]


class _Reader:
    """What was read so far, and the line that is being read."""

    def __init__(self, source: Source, split: Callable[[str], list[str]]) -> None:
        self._source = source
        self._split = split
        self._lines = source.text.split("\n")
        self._line = 0
        self._sense = 1
        self._wanted = ""  # the objective's name, where the file chooses one
        self._types: list[str] = []  # of the rows, without N
        self._rows: dict[str, int] = {}  # numbers of rows; the objective is -1, other N rows -2
        self._columns: dict[str, int] = {}
        self._bounds = BoundLines(np.zeros(0, bool), self._fault)
        self._costs = np.empty(0)
        self._matrix = Rows.empty(0)
        self._offset = 0.0
        self._rhs = self._width = np.empty(0)
        self._terms: list[tuple[int, int, int, float]] = []
        self._quadratic: set[int] = set()
        self._indicators: dict[int, tuple[int, int]] = {}

    def _fault(self, why: str, code: int = TVO.Error.FILE) -> TaviroError:
        return self._source.fault(self._line, why, code)

    def read(self, table: Table) -> Contents:
        """The contents of the file."""
        name, seen = "", set()
        for section, rest, first, end in self._sections():
            if section in seen and section != "QCMATRIX":
                raise self._fault(f"the section {section} comes a second time")
            seen.add(section)
            if section == "NAME":
                name = rest
            elif section in ("OBJSENSE", "OBJNAME"):
                self._read_choice(section, rest, first, end)
            elif section == "ROWS":
                self._read_rows(first, end)
            elif section == "COLUMNS":
                self._read_columns(first, end)
            elif section in ("RHS", "RANGES"):
                self._read_sides(section, first, end)
            elif section == "BOUNDS":
                self._read_bounds(first, end)
            elif section == "INDICATORS":
                self._read_indicators(first, end)
            elif section != "ENDATA":
                self._read_terms(section, rest, first, end)
        for section, why in (
            ("ENDATA", "it may be cut off"),
            ("COLUMNS", "it may be of another format"),
        ):
            if section not in seen:
                self._line = max(len(self._lines) - 1, 0)
                raise self._fault(f"the file ends here without the section {section}: {why}")
        return self._contents(name if table.model is None else table.model, table)

    def _sections(self) -> Iterator[tuple[str, str, int, int]]:
        """Sections: the word, what stands behind it, the first line of data, the end of them."""
        starts = [k for k, line in enumerate(self._lines) if line and line[0] not in " \t*"]
        ends = [*starts[1:], len(self._lines)] if starts else []
        for first, end in zip(starts, ends, strict=True):
            word, _, rest = self._lines[first].replace("\t", " ").partition(" ")
            word = word.upper()
            self._line = first
            if word not in _SECTIONS:
                raise self._fault(
                    f"'{word}' is no section that can be read: leave it out (a line of data has "
                    f"to begin with a blank)"
                )
            yield word, rest.strip(), first + 1, end
            if word == "ENDATA":
                return

    def _fields(self, first: int, end: int) -> Iterator[list[str]]:
        """The fields of each line that isn't empty or a comment; `_line` follows."""
        for k in range(first, end):
            line = self._lines[k]
            if line[:1] == "*":
                continue
            if " $" in line:
                line = re.sub(r"\s\$(\s.*)?$", "", line)
            fields = self._split(line)
            if fields:
                self._line = k
                yield fields

    # Looking up

    def _row(self, name: str) -> int:
        """A row's number, -1 for the objective, -2 for another row of type N."""
        if name not in self._rows:
            raise self._fault(f"there is no row '{name}' in the section ROWS")
        return self._rows[name]

    def _column(self, name: str) -> int:
        if name not in self._columns:
            raise self._fault(f"there is no column '{name}' in the section COLUMNS")
        return self._columns[name]

    def _number(self, text: str, is_finite: bool = True) -> float:
        try:
            value = float(text)
        except ValueError:
            value = self._fortran_number(text)
        if value != value or (is_finite and abs(value) == np.inf):
            raise self._fault(f"'{text}' is no{' finite' if is_finite else ''} number")
        return value

    @staticmethod
    def _fortran_number(text: str) -> float:
        """A number with "D" for its exponent, NaN for anything else."""
        try:
            return float(re.sub("[dD]", "e", text))
        except ValueError:
            return np.nan

    # Sections

    def _read_choice(self, section: str, rest: str, first: int, end: int) -> None:
        for word in [rest] if rest else [fields[0] for fields in self._fields(first, end)]:
            if section == "OBJNAME":
                self._wanted = word
            elif word.upper() in _SENSES:
                self._sense = _SENSES[word.upper()]
            else:
                raise self._fault(f"'{word}' is no sense: use MAX or MIN")

    def _read_rows(self, first: int, end: int) -> None:
        objective = self._wanted
        for fields in self._fields(first, end):
            kind = fields[0].upper()
            if len(fields) != 2 or kind not in ("N", "L", "G", "E"):
                raise self._fault("a row has a type, N, L, G or E, and a name")
            name = fields[1]
            if name in self._rows:
                raise self._fault(f"there is a row '{name}' already")
            if kind != "N":
                self._rows[name] = len(self._types)
                self._types.append(kind)
                continue
            objective = objective or name
            self._rows[name] = -1 if name == objective else -2
        if self._wanted and self._rows.get(self._wanted) != -1:
            raise self._fault(f"the objective '{self._wanted}' is no row of type N")
        self._rhs = np.zeros(len(self._types))
        self._width = np.full(len(self._types), np.nan)

    def _read_columns(self, first: int, end: int) -> None:
        text = "\n".join(self._lines[first:end])
        found = None
        if text.isascii() and self._split is str.split:
            found = column_entries(text, self._rows)
        names, column, row, values, toggles = found or self._entries(first, end)
        self._columns = {name: k for k, name in enumerate(names)}
        self._sort_entries(first, end, column, row, values)
        toggles.append(len(column))
        is_integer = np.zeros(len(names), bool)
        for start, stop in zip(toggles[::2], toggles[1::2], strict=False):
            is_integer[column[start:stop]] = True
        self._bounds = BoundLines(is_integer, self._fault)

    def _entries(
        self, first: int, end: int
    ) -> tuple[list[str], NDArray[np.int64], NDArray[np.int64], Floats, list[int]]:
        """Names of columns; of each entry the column, the row and the value; and at which entries
        integers begin and end, in turn. An error for the first line that isn't right."""
        numbers: dict[str, int] = {}
        columns: list[int] = []
        rows: list[int] = []
        values: list[float] = []
        toggles: list[int] = []
        for fields in self._fields(first, end):
            if len(fields) == 3 and fields[1].upper() == "'MARKER'":
                if fields[2].upper() != ("'INTEND'" if len(toggles) % 2 else "'INTORG'"):
                    raise self._fault("markers are 'INTORG' and 'INTEND', in turn")
                toggles.append(len(columns))
                continue
            if len(fields) not in (3, 5):
                raise self._fault("a line has a column, and a row and a number, once or twice")
            column = numbers.setdefault(fields[0], len(numbers))
            for row, text in zip(fields[1::2], fields[2::2], strict=True):
                columns.append(column)
                rows.append(self._row(row))
                values.append(self._number(text))
        arrays = np.array(columns, np.int64), np.array(rows, np.int64), np.array(values, np.float64)
        return list(numbers), *arrays, toggles

    def _sort_entries(
        self,
        first: int,
        end: int,
        column: NDArray[np.int64],
        row: NDArray[np.int64],
        values: Floats,
    ) -> None:
        count = len(self._columns)
        places = np.sort(row[row > -2] * count + column[row > -2])
        if (places[1:] == places[:-1]).any():
            self._refuse_second_entry(first, end)
        is_cost, is_entry = row == -1, row >= 0
        self._costs = sums_at(column[is_cost], values[is_cost], count)
        self._matrix = rows_of(
            len(self._types), count, row[is_entry], column[is_entry], values[is_entry]
        )

    def _refuse_second_entry(self, first: int, end: int) -> None:
        seen = set()
        for fields in self._fields(first, end):
            for row in fields[1::2]:
                if (fields[0], row) in seen and self._rows.get(row, -2) > -2:
                    raise self._fault(f"'{fields[0]}' has an entry in the row '{row}' already")
                seen.add((fields[0], row))

    def _read_sides(self, section: str, first: int, end: int) -> None:
        """Lines of a set's name, which may be missing, and one or two rows with their numbers."""
        values = self._rhs if section == "RHS" else self._width
        chosen = None
        for fields in self._fields(first, end):
            if not 2 <= len(fields) <= 5:
                raise self._fault("a line has a row and a number, once or twice")
            name = fields.pop(0) if len(fields) % 2 else ""
            if name != chosen:
                chosen = self._one_set(chosen, name)
            for row_name, text in zip(fields[::2], fields[1::2], strict=True):
                row, value = self._row(row_name), self._number(text, False)
                if row >= 0:
                    values[row] = value
                elif row == -1 and section == "RHS":
                    self._offset = -self._number(text)

    def _one_set(self, chosen: str | None, name: str) -> str:
        if chosen not in (None, name):
            raise self._fault(
                f"there are two sets of data, '{chosen}' and '{name}': leave one in the file"
            )
        return name

    def _read_bounds(self, first: int, end: int) -> None:
        chosen = None
        for fields in self._fields(first, end):
            kind = fields[0].upper()
            count = len(fields)
            # Types without a number may have one all the same; the set's name may be missing.
            if kind in WITHOUT_NUMBER and 2 <= count <= 4:
                has_set = count == 4 or (count == 3 and fields[2] in self._columns)
            elif kind not in WITHOUT_NUMBER and 3 <= count <= 4:
                has_set = count == 4
            else:
                raise self._fault("a bound has a type, a set, a column and, mostly, a number")
            name = fields[1] if has_set else ""
            if name != chosen:
                chosen = self._one_set(chosen, name)
            name = fields[2 if has_set else 1]
            value = 0.0 if kind in WITHOUT_NUMBER else self._number(fields[-1], False)
            self._bounds.set(kind, name, self._column(name), value)

    def _read_indicators(self, first: int, end: int) -> None:
        for fields in self._fields(first, end):
            if len(fields) != 4 or fields[0].upper() != "IF" or fields[3] not in ("0", "1"):
                raise self._fault("an indicator has IF, a row, a column, and 0 or 1")
            row = self._row(fields[1])
            if row < 0 or row in self._indicators:
                raise self._fault(f"the row '{fields[1]}' can't have this indicator")
            self._indicators[row] = self._column(fields[2]), int(fields[3])

    def _read_terms(self, section: str, name: str, first: int, end: int) -> None:
        """QUADOBJ has one half of a matrix and QMATRIX all of it, both to be halved; QCMATRIX all
        of it as it is."""
        row = -1
        if section == "QCMATRIX":
            row = self._row(name)
            if row in self._quadratic or row < 0:
                raise self._fault(f"the row '{name}' can't have this section")
            self._quadratic.add(row)
        seen = set()
        for fields in self._fields(first, end):
            if len(fields) != 3:
                raise self._fault("a quadratic term has two columns and a number")
            i, j, value = self._column(fields[0]), self._column(fields[1]), self._number(fields[2])
            if (i, j) in seen or (section == "QUADOBJ" and (j, i) in seen):
                raise self._fault("there is an entry for these two columns already")
            seen.add((i, j))
            is_half = section == "QMATRIX" or (section == "QUADOBJ" and i == j)
            self._terms.append((row, i, j, 0.5 * value if is_half else value))

    # The end

    def _contents(self, name: str, table: Table) -> Contents:
        column_names = list(self._columns)
        columns = Columns(column_names, self._costs, *self._bounds.finished(column_names))
        names = [name for name, k in self._rows.items() if k >= 0]
        lines = Lines(names, self._matrix, *self._row_sides())
        for k in self._quadratic & self._indicators.keys():
            raise TaviroError(
                TVO.Error.NOT_SUPPORTED,
                f"'{self._source.path}': the row '{names[k]}' has an indicator, and is quadratic: "
                f"a variable that is equal to the quadratic terms makes it linear",
            )
        return Contents(
            name,
            self._sense,
            self._offset,
            columns,
            lines,
            Terms.of(self._terms),
            self._quadratic,
            self._indicators,
            table,
        )

    def _row_sides(self) -> tuple[Floats, Floats]:
        """Both sides of rows. A range reaches down from an upper side and up from a lower one; of
        an equation, to where its sign tells."""
        types, rhs, width = np.array(self._types, "U1"), self._rhs, self._width
        lower = np.where(types == "L", -np.inf, rhs)
        upper = np.where(types == "G", np.inf, rhs)
        has = ~np.isnan(width)
        down = has & ((types == "L") | ((types == "E") & (width < 0)))
        up = has & ((types == "G") | ((types == "E") & (width > 0)))
        lower[down] = rhs[down] - np.abs(width[down])
        upper[up] = rhs[up] + np.abs(width[up])
        return infinite(lower), infinite(upper)
