"""Factors of convex quadratic terms: F with x' Q x = |F x|^2, and the test that there is one.

All is measured on the matrix with its diagonal scaled to one, so that it doesn't matter in which
units the variables are, and connected block by connected block.

Source: Higham, Analysis of the Cholesky decomposition of a semi-definite matrix, in: Reliable
Numerical Computation (1990): Cholesky's method with complete pivoting finds the rank.
"""

from __future__ import annotations

from typing import Any

import numpy as np
import scipy.sparse as sp

from ..data.quadratic import QuadraticTerms
from ..data.values import Floats, Ids

TOLERANCE = 1e-7  # what may be left of the scaled matrix
_DENSE = 3000  # variables of a block up to which it is factored as a dense one
_FULL = 0.2  # share of nonzeros from which it is, too


class NotConvex(Exception):
    """There is a direction of negative curvature; the text is part of a sentence."""


class Factor:
    """``x' Q x = |F x|^2`` as triplets of F; `rank` is the number of its rows."""

    def __init__(self, rows: Ids, columns: Ids, data: Floats, rank: int) -> None:
        self.rows = rows
        self.columns = columns
        self.data = data
        self.rank = rank


def factor(terms: QuadraticTerms) -> Factor:
    """The factor of terms in which each pair stands once; NotConvex where there is none."""
    on_diagonal = terms.ids1 == terms.ids2
    columns, squares = terms.ids1[on_diagonal], terms.data[on_diagonal]
    if (squares < 0.0).any():
        raise NotConvex("has a negative square")
    columns, squares = columns[squares > 0.0], squares[squares > 0.0]
    products = ~on_diagonal & (terms.data != 0.0)
    first, second, data = terms.ids1[products], terms.ids2[products], terms.data[products] / 2.0
    if not len(data):
        return Factor(np.arange(len(columns)), columns, np.sqrt(squares), len(columns))
    order = np.argsort(columns)
    columns, scale = columns[order], np.sqrt(squares[order])
    at = [np.searchsorted(columns, ids) for ids in (first, second)]
    for place, ids in zip(at, (first, second), strict=True):
        if (place == len(columns)).any() or (columns[place] != ids).any():
            raise NotConvex("has a product of a variable without its square")
    scaled = data / (scale[at[0]] * scale[at[1]])
    if (abs(scaled) > 1.0 + TOLERANCE).any():
        raise NotConvex("has a product that outweighs the squares of its variables")
    half = sp.coo_array((scaled, (at[0], at[1])), shape=(len(columns),) * 2).tocsr()
    matrix = (half + half.T + sp.eye_array(len(columns), format="csr")).tocsr()
    return _by_blocks(matrix, columns, scale)


def _by_blocks(matrix: Any, columns: Ids, scale: Floats) -> Factor:
    from scipy.sparse.csgraph import connected_components

    count, labels = connected_components(matrix, directed=False)
    order = np.argsort(labels, kind="stable")
    bounds = np.searchsorted(labels[order], np.arange(count + 1))
    rank, parts = 0, []
    for block in range(count):
        at = order[bounds[block] : bounds[block + 1]]
        part = matrix if count == 1 else matrix[at][:, at]
        found = _factor_of_block(part)
        parts.append((found.coords[0] + rank, at[found.coords[1]], found.data))
        rank += found.shape[0]
    rows, places, data = (np.concatenate(arrays) for arrays in zip(*parts, strict=True))
    return Factor(rows, columns[places], data * scale[places], rank)


def _factor_of_block(matrix: Any) -> Any:
    """The factor of a matrix with a diagonal of ones, as a coo_array."""
    size = matrix.shape[0]
    if size == 1:
        return matrix.tocoo()
    if size <= _DENSE or matrix.nnz > _FULL * size**2:
        return _dense_factor(matrix.toarray())
    return _sparse_factor(matrix)


def _dense_factor(matrix: Floats) -> Any:
    from scipy.linalg.lapack import dpstrf

    size = len(matrix)
    upper, pivots, rank, _ = dpstrf(np.asfortranarray(matrix), tol=size * 1e-13)
    found = np.zeros((rank, size))
    found[:, pivots - 1] = np.triu(upper[:rank])
    _check_rest(abs(matrix - found.T @ found).max())
    return sp.coo_array(found)


def _sparse_factor(matrix: Any) -> Any:
    """The factor of the matrix with the tolerance added to its diagonal, by LDL'.

    SuperLU keeps to the diagonal in its symmetric mode; where it leaves it, or meets a pivot that
    isn't positive, the matrix isn't positive definite.
    """
    from scipy.sparse.linalg import splu

    shifted = (matrix + TOLERANCE * sp.eye_array(matrix.shape[0])).tocsc()
    found = splu(
        shifted,
        permc_spec="MMD_AT_PLUS_A",
        diag_pivot_thresh=0.0,
        options={"SymmetricMode": True},
    )
    pivots = found.U.diagonal()
    if not (pivots > 0.0).all() or (found.perm_r != found.perm_c).any():
        raise NotConvex("has a direction of negative curvature")
    lower = (sp.diags_array(np.sqrt(pivots)) @ found.L.T).tocsc()[:, found.perm_c]
    _check_rest(abs(matrix - lower.T @ lower).max())
    return lower.tocoo()


def _check_rest(rest: float) -> None:
    if not rest <= 2.0 * TOLERANCE:
        raise NotConvex("has a direction of negative curvature")
