"""A model's data as plain arrays, numbers and texts, for pickles and copies.

What comes back from a pickle was written by somebody else: all that native code walks is checked
here, so that a damaged pickle is an error and never a crash.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pickle import UnpicklingError
from typing import Any

import numpy as np

from ._tvo import TVO
from .data.attributes import (
    ATTRIBUTES,
    CHARACTERS,
    DOUBLE,
    KIND_NAMES,
    OF_SOLUTION,
    ON_DEMAND,
)
from .data.basis import Basis
from .data.elements import Elements
from .data.locks import CHANGING, SOLVING
from .data.model_data import ModelData
from .data.quadratic import QuadraticTerms
from .data.rows import Columns, Rows, Store
from .data.solution import Solution
from .data.trees import CONSTANT, OPERATIONS, Trees
from .data.trees import VARIABLE as VARIABLE_NODE
from .session import Session

FORMAT = 2  # grows with each change of what `packed` gives
State = dict[str, Any]
_STATUSES = {int(code): code for code in vars(TVO.Status).values() if isinstance(code, int)}
_BINARY = np.isin(OPERATIONS, ("plus", "minus", "multiply", "divide", "pow"))
_MOST_CODE = {name: len(text) - 1 for name, text in CHARACTERS.items()} | {"sense": 2, "value": 1}


def packed(data: ModelData) -> State:
    """All data of a model, and nothing of its engine.

    Arrays of coefficients are those of the model, which never change; all others are copies.
    """
    with _held_still(data):
        linear = data.linear  # first: it takes in the buffered rows
        return {
            "format": FORMAT,
            "name": data.name,
            "engine": data.session.wanted,
            "options": data.session.options.state(),
            "elements": {kind: data.elements_of(kind).state() for kind in KIND_NAMES},
            "linear": _lines_state(data.linear_rows, linear.size),
            "quadratic": _lines_state(data.quadratic_rows, data.quadratic.size),
            "pairs": _lines_state(data.quadratic_pairs, data.quadratic.size),
            "trees": _lines_state(data.trees, data.general.size),
            "indicators": _lines_state(data.indicator_rows, data.general.size),
            "objective": _objective_state(data),
            "solution": _solution_state(data.solution),
        }


def copied(data: ModelData) -> ModelData:
    """A second model's data; both share what never changes."""
    copy = _restored(packed(data), trusted=True)
    copy.solution.share(data.solution)
    return copy


def unpacked(state: object) -> ModelData:
    """The data of a model that `packed` gave; UnpicklingError where they can't be its."""
    found = state.get("format") if isinstance(state, dict) else None
    if not isinstance(state, dict) or type(found) is not int:
        raise UnpicklingError(
            "The pickle holds no model: it was damaged, or made by something else"
        )
    if found != FORMAT:
        raise UnpicklingError(
            f"The pickle holds a model in format {found}, but this version of taviropy reads "
            f"format {FORMAT}: use one version on both sides, or write() and read()"
        )
    try:
        return _restored(state, trusted=False)
    except UnpicklingError:
        raise
    except Exception as error:
        raise UnpicklingError(
            f"The pickle's model is damaged: {type(error).__name__}: {error}; write it anew"
        ) from error


@contextmanager
def _held_still(data: ModelData) -> Iterator[None]:
    """Nobody changes the model meanwhile. While it is being solved nobody can, and the lock is that
    of the solve, which may end at any time."""
    data.check_open()
    if data.lock is SOLVING:
        yield
        return
    if data.lock:
        data.refuse_locked()
    data.lock = CHANGING
    try:
        yield
    finally:
        data.lock = ""


def _restored(state: State, trusted: bool) -> ModelData:
    data = ModelData(_text(state["name"]))
    data.session = Session(_text(state["engine"]))
    data.session.options.restore(state["options"])
    for kind in KIND_NAMES:
        elements = data.elements_of(kind)
        elements.restore(state["elements"][kind], takes_arrays=trusted)
        if not trusted:
            _check_columns(elements)
    lines = _Lines(data.variables.numbering.next_id(), trusted)
    parts: tuple[tuple[str, Store[Any], Elements, Callable[[Any], Any]], ...] = (
        ("linear", data.linear_rows, data.linear, lines.rows),
        ("quadratic", data.quadratic_rows, data.quadratic, lines.rows),
        ("pairs", data.quadratic_pairs, data.quadratic, lines.pairs),
        ("trees", data.trees, data.general, lines.trees),
        ("indicators", data.indicator_rows, data.general, lines.rows),
    )
    for name, store, elements, make in parts:
        made = make(state[name])
        if made.count != elements.size:
            raise ValueError(f"{made.count} lines '{name}' for {elements.size} constraints")
        store.add(0, made)
    _restore_objective(data, state["objective"], lines)
    data.solution = _restored_solution(state["solution"])
    return data


# Elements


def _check_columns(elements: Elements) -> None:
    """Codes must have a meaning, and numbers must be some; a start may be missing."""
    for name, column in elements.columns():
        if name in _MOST_CODE and len(column) and column.max() > _MOST_CODE[name]:
            raise ValueError(f"{name} has the code {column.max()}")
        if column.dtype == np.float64 and name != "Start" and np.isnan(column).any():
            raise ValueError(f"{name} holds NaN")


# Coefficients and trees


def _lines_state(store: Store[Any], count: int) -> tuple[Any, ...]:
    lines = store.whole(count)
    if isinstance(lines, Columns):
        return "columns", lines.count, lines.indptr, lines.rows, lines.data
    if isinstance(lines, Trees):
        return tuple(getattr(lines, name) for name in Trees.__slots__)
    return "rows", lines.indptr, lines.ids, lines.data, lines.finite, lines.rising


class _Lines:
    """Makes lines of their state; ids of variables must be below `known`."""

    def __init__(self, known: int, trusted: bool) -> None:
        self._known = known
        self.trusted = trusted

    def rows(self, state: tuple[Any, ...]) -> Any:
        if state[0] == "columns":
            _, count, indptr, ids, values = state
            if not self.trusted:
                _check_sparse(indptr, ids, values)
                _check_range("rows", ids, count)
                if len(indptr) - 1 > self._known:
                    raise ValueError(f"{len(indptr) - 1} columns of {self._known} variables")
            return Columns(count, indptr, ids, values)
        return self._plain_rows(state, self._check_ids)

    def pairs(self, state: tuple[Any, ...]) -> Rows:
        return self._plain_rows(state, self._check_pairs)

    def _plain_rows(self, state: tuple[Any, ...], check_ids: Any) -> Rows:
        _, indptr, ids, values, finite, rising = state
        if not self.trusted:
            _check_sparse(indptr, ids, values)
            check_ids(ids)
            finite = bool(np.isfinite(values).all())
        return Rows(indptr, ids, values, finite=finite, rising=bool(rising))

    def _check_ids(self, ids: Any) -> None:
        _check_range("variables", ids, self._known)

    def _check_pairs(self, pairs: Any) -> None:
        if not len(pairs):
            return
        _check_array(pairs, np.int64)
        _check_range("variables", pairs >> 32, self._known)
        _check_range("variables", pairs & 0xFFFFFFFF, self._known)

    def trees(self, state: tuple[Any, ...]) -> Trees:
        trees = Trees(*state)
        if not self.trusted:
            self._check_trees(trees)
        return trees

    def _check_trees(self, trees: Trees) -> None:
        _check_sparse(trees.indptr, trees.first, trees.numbers)
        for array, dtype in ((trees.codes, np.uint8), (trees.second, np.int32)):
            _check_array(array, dtype)
            if len(array) != len(trees.numbers):
                raise ValueError("a tree's arrays have different lengths")
        _check_range("operations", trees.codes, len(OPERATIONS))
        at_variables = trees.codes == VARIABLE_NODE
        _check_range("variables", trees.first[at_variables], self._known)
        inner = ~at_variables & (trees.codes != CONSTANT)
        place = np.arange(len(inner)) - np.repeat(trees.indptr[:-1], np.diff(trees.indptr))
        least = np.where(_BINARY[trees.codes], 0, -1)
        for argument, floor in ((trees.first, 0), (trees.second, least)):
            if (inner & ((argument < floor) | (argument >= place))).any():
                raise ValueError("an operation of a tree uses one that doesn't come before it")


def _check_array(array: Any, *dtypes: Any) -> None:
    if type(array) is not np.ndarray or array.ndim != 1 or array.dtype not in dtypes:
        what = f"{array.dtype} array" if isinstance(array, np.ndarray) else type(array).__name__
        names = " or ".join(np.dtype(dtype).name for dtype in dtypes)
        raise TypeError(f"a {what} where a one-dimensional array of {names} is needed")
    if not array.flags.c_contiguous or not array.flags.aligned:
        raise ValueError("an array isn't contiguous")


def _check_sparse(indptr: Any, ids: Any, values: Any) -> None:
    _check_array(indptr, np.int32, np.int64)
    _check_array(ids, np.int32, np.int64)
    _check_array(values, np.float64)
    whole = len(indptr) and indptr[0] == 0 and indptr[-1] == len(ids) == len(values)
    if not whole or (indptr[1:] < indptr[:-1]).any():
        raise ValueError("the starts of the rows don't rise from 0 to the number of coefficients")


def _check_range(what: str, numbers: Any, count: int) -> None:
    if len(numbers) and not (numbers.min() >= 0 and numbers.max() < count):
        raise IndexError(f"numbers from {numbers.min()} to {numbers.max()} for {count} {what}")


# Objective and solution


def _objective_state(data: ModelData) -> tuple[Any, ...]:
    objective, terms = data.objective, data.objective.quadratic
    arrays = None if terms is None else (terms.ids1, terms.ids2, terms.data)
    trees = objective.nonlinear
    nodes = None if trees is None else tuple(getattr(trees, name) for name in Trees.__slots__)
    return objective.sense, objective.offset, arrays, nodes


def _restore_objective(data: ModelData, state: tuple[Any, ...], lines: _Lines) -> None:
    sense, offset, arrays, nodes = state
    if sense not in (1, -1) or type(offset) is not float:
        raise ValueError(f"an objective of the sense {sense!r} and the offset {offset!r}")
    terms = None if arrays is None else QuadraticTerms(*arrays)
    if terms is not None and not lines.trusted:
        for ids in (terms.ids1, terms.ids2):
            _check_array(ids, np.int32)
            _check_range("variables", ids, data.variables.numbering.next_id())
        _check_array(terms.data, np.float64)
        if not len(terms.ids1) == len(terms.ids2) == len(terms.data):
            raise ValueError("the arrays of the quadratic objective have different lengths")
    trees = None if nodes is None else lines.trees(nodes)
    data.objective.replace(sense, offset, terms, trees)


def _solution_state(solution: Solution) -> State:
    basis = solution.known_basis
    return {
        "status": int(solution.status),
        "objective": solution.objective,
        "bound": solution.bound,
        "values": {n: solution.array(n) for n in solution.values if n not in ON_DEMAND},
        "basis": None if basis is None else ["".join(part) for part in basis],
        "missing": dict(solution.missing),
        "seconds": solution.seconds,
        "engine": solution.engine,
        "nodes": solution.nodes,
        "iterations": solution.iterations,
    }


def _restored_solution(state: State) -> Solution:
    for name, array in state["values"].items():
        if name not in OF_SOLUTION or ATTRIBUTES[name].datatype != DOUBLE:
            raise KeyError(name)
        _check_array(array, np.float64)
    solution = Solution(
        _STATUSES[state["status"]],
        state["objective"],
        state["bound"],
        dict(state["values"]),
        dict(state["missing"]),
    )
    if state["basis"] is not None:
        solution.basis = Basis(*(np.array(list(_text(part)), "U1") for part in state["basis"]))
    solution.seconds = float(state["seconds"])
    solution.engine = _text(state["engine"])
    solution.nodes, solution.iterations = int(state["nodes"]), int(state["iterations"])
    return solution


def _text(value: object) -> str:
    if not isinstance(value, str):
        raise TypeError(f"a {type(value).__name__} where a text is needed")
    return value
