"""What notebooks show of models, blocks and constraints: small tables, cut where they are long."""

from __future__ import annotations

from collections.abc import Sequence
from html import escape
from typing import Any

import numpy as np

from .._exception import TaviroError
from .._scalars import data_of
from ..data.attributes import COUNTS, OF_SOLUTION, VARIABLE
from ..data.locks import CLOSED
from ..data.model_data import ModelData
from ..data.view import View
from .frames import COLUMNS, NAMES, handles_of
from .rowtext import row_texts

_SHOWN = 10  # elements of a block
_TEXT = 4000  # characters of an expression


def table(
    title: str, header: Sequence[str], rows: Sequence[Sequence[str]], notes: Sequence[str] = ()
) -> str:
    """A table; all texts are plain and become HTML here."""
    head = "".join(f"<th>{escape(each)}</th>" for each in header)
    body = "".join(
        "<tr>"
        + "".join(f"<td style='text-align:left'>{escape(cell)}</td>" for cell in row)
        + "</tr>"
        for row in rows
    )
    head = f"<thead><tr>{head}</tr></thead>" if header else ""
    below = "".join(f"<div>{escape(note)}</div>" for note in notes)
    return f"<div><b>{escape(title)}</b><table>{head}<tbody>{body}</tbody></table>{below}</div>"


def model_html(data: ModelData) -> str:
    """A model: how many elements of each kind, and the last answer."""
    if data.lock is CLOSED:
        return table("taviropy.Model (closed)", [], [])
    numberings = {name: data.numbering(kind) for name, kind in COUNTS.items()}
    lines = [
        (name, f"{numbering.count():,}")
        for name, numbering in numberings.items()
        if numbering.count()
    ]
    solution = data.solution
    lines.append(("Status", str(solution.status)))
    if "X" in solution.values:
        lines.append(("Objective", f"{solution.objective:.10g}"))
    waiting = sum(each.size() - each.count() for each in numberings.values())
    notes = [f"{waiting} more wait for m.update()"] if waiting else []
    notes.append("m.summary() tells more")
    return table(f"taviropy.Model {data.name}".strip(), [], lines, notes)


def elements_html(block: Any) -> str:
    """Variables or constraints: the first of them with names, data and values."""
    kind, shape, title = block._typeenum, block.shape, f"{type(block).__name__} {block.shape}"
    handles = handles_of(block)[:_SHOWN]
    if block._cmodel is None or not len(handles):
        return table(title, [], [])
    data = data_of(block)
    if data.lock is CLOSED:
        return table(f"{title} of a closed model", [], [])
    ids = data.ids(kind, handles, True)
    numbers = data.numbering(kind).numbers(ids)
    names = [data.element_name(kind, int(each)) for each in ids]
    more = [f"and {block.size - _SHOWN:,} more"] if block.size > _SHOWN else []
    if (numbers < 0).any():
        states = {-1: "waits for m.update()", -2: "removed"}
        rows = [[name, states.get(n, "")] for name, n in zip(names, numbers.tolist(), strict=True)]
        return table(title, [], rows, more)
    header, columns = [NAMES[kind]], [names]
    if kind != VARIABLE:
        header.append("")
        columns.append(_texts(data, kind, numbers))
    for name in COLUMNS[kind]:
        if name in ("RHS", "Sense", "QRHS", "QSense"):  # the text has them
            continue
        try:
            values = data.read(name, numbers)
        except TaviroError:  # there is no answer, or it has none of these
            if name not in OF_SOLUTION:
                raise
            continue
        if name == "Start" and np.isnan(values).all():
            continue
        header.append(name)
        columns.append([each if isinstance(each, str) else f"{each:.6g}" for each in values])
    if len(shape) == 0:
        title = type(block).__name__
    return table(title, header, list(zip(*columns, strict=True)), more)


def _texts(data: ModelData, kind: int, numbers: Any) -> list[str]:
    """Constraints written out; a text on why not, where the data can't be read."""
    try:
        return row_texts(View(data), kind, numbers)
    except TaviroError as error:
        return [error.message] * len(numbers)


def expression_html(block: Any) -> str:
    """An expression: its text, as `repr` gives it."""
    text = repr(block)
    if len(text) > _TEXT:
        text = text[: _TEXT - 4].rpartition("\n")[0] + "\n..."
    title, _, text = text.partition("\n")
    return f"<div><b>{escape(title.strip('<>').strip())}</b><pre>{escape(text)}</pre></div>"
