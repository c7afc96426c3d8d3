"""Expression trees sorted by structure: those that differ in their variables and constants alone.

A solver that differentiates by itself is given each structure once, with arrays of the columns and
constants that it stands for, however many elements a model has.
"""

from __future__ import annotations

from collections.abc import Iterator
from typing import NamedTuple

import numpy as np
from numpy.typing import NDArray

from ..data.trees import CONSTANT, OPERATIONS, VARIABLE, Trees
from ..data.values import Floats, Ids

_POW = OPERATIONS.index("pow")


class Structure(NamedTuple):
    """Trees of one structure.

    ``codes``, ``first`` and ``second`` are those of each tree, as in `Trees`. ``variable`` says
    which of the k variables an operation is, ``parameter`` which of the q constants, -1 for none;
    a constant exponent is no parameter but has its value in ``exponents``, NaN elsewhere.
    ``columns`` has the shape (k, trees), ``constants`` (q, trees); ``numbers`` are the trees'.
    """

    codes: NDArray[np.uint8]
    first: Ids
    second: Ids
    variable: NDArray[np.intp]
    parameter: NDArray[np.intp]
    exponents: Floats
    columns: NDArray[np.intp]
    constants: Floats
    numbers: NDArray[np.intp]


def structures(trees: Trees) -> Iterator[Structure]:
    """The structures of some trees, which aren't empty."""
    lengths = np.diff(trees.indptr)
    for length in np.unique(lengths).tolist():
        numbers = np.flatnonzero(lengths == length)
        at = trees.indptr[numbers][:, None] + np.arange(length)
        codes, second = trees.codes[at], trees.second[at]
        is_variable, is_constant = codes == VARIABLE, codes == CONSTANT
        local = _first_places(trees.first[at], is_variable)
        first = np.where(is_variable, local, np.where(is_constant, -1, trees.first[at]))
        exponents = _exponents(codes, second, trees.numbers[at])
        key = np.concatenate([codes, first, second, exponents.view(np.int64)], axis=1, dtype="i8")
        for same in _groups(key):
            k = int(same[0])
            variables = np.flatnonzero(is_variable[k] & (first[k] == np.arange(length)))
            constants = np.flatnonzero(is_constant[k] & np.isnan(exponents[k]))
            yield Structure(
                codes[k],
                first[k],
                second[k],
                np.where(is_variable[k], np.searchsorted(variables, first[k]), -1),
                _numbered(constants, length),
                exponents[k],
                trees.first[at[same]][:, variables].T.astype(np.intp),
                trees.numbers[at[same]][:, constants].T,
                numbers[same],
            )


def _first_places(ids: Ids, is_variable: NDArray[np.bool]) -> NDArray[np.intp]:
    """For each variable of a row the place where that variable comes first in it."""
    wanted = np.where(is_variable, ids.astype(np.int64), -1)
    order = np.argsort(wanted, axis=1, kind="stable")
    ordered = np.take_along_axis(wanted, order, axis=1)
    starts = np.zeros(ids.shape, np.intp)
    is_new = ordered[:, 1:] != ordered[:, :-1]
    starts[:, 1:] = np.where(is_new, np.arange(1, ids.shape[1]), 0)
    np.maximum.accumulate(starts, axis=1, out=starts)
    found = np.empty(ids.shape, np.intp)
    np.put_along_axis(found, order, np.take_along_axis(order, starts, axis=1), axis=1)
    return found


def _exponents(codes: NDArray[np.uint8], second: Ids, numbers: Floats) -> Floats:
    """The values of the constants that are exponents, NaN elsewhere."""
    found = np.full(codes.shape, np.nan)
    row, place = np.nonzero(codes == _POW)
    exponent = second[row, place]
    is_constant = codes[row, exponent] == CONSTANT
    row, exponent = row[is_constant], exponent[is_constant]
    found[row, exponent] = numbers[row, exponent]
    return found


def _groups(keys: NDArray[np.int64]) -> list[NDArray[np.intp]]:
    """The numbers of equal rows, one array for each kind."""
    whole = np.ascontiguousarray(keys).view(np.dtype((np.void, keys.shape[1] * 8))).reshape(-1)
    inverse = np.unique(whole, return_inverse=True)[1]
    order = np.argsort(inverse, kind="stable")
    return np.split(order, np.flatnonzero(np.diff(inverse[order])) + 1)


def _numbered(places: NDArray[np.intp], length: int) -> NDArray[np.intp]:
    """0, 1, ... at these places, -1 elsewhere."""
    found = np.full(length, -1)
    found[places] = np.arange(len(places))
    return found
