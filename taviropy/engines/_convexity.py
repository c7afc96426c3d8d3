"""Whether a quadratic objective is convex, by the pivots of a Cholesky factorization.

Source: Golub and Van Loan, Matrix Computations, section 4.2: a symmetric matrix is positive
definite exactly when its factorization comes through with positive pivots.
"""

from __future__ import annotations

import numpy as np

from .._quadratic import column_numbers
from .._tvo import TVO

_TOLERANCE = 1e-9  # relative shift of the diagonal, so that semidefinite matrices pass
_DENSE_SIZE = 2000
_DENSE_SHARE = 0.1


def is_convex(model):
    """Whether the quadratic objective is convex to minimize, or concave to maximize.

    The answer is kept until the terms, the sense or the variables change.
    """
    objective = model._objective
    key = (objective.version, objective.sense, model._tables[1].created, _placed(model))
    if objective.convexity[0] != key:
        terms = objective.quadratic.by_column(column_numbers(model))
        answer = _is_semidefinite(terms, 1.0 if objective.sense == TVO.MINIMIZE else -1.0)
        objective.convexity = (key, answer)
    return objective.convexity[1]


def _placed(model):
    return model._tables[1].placed


def _is_semidefinite(terms, sign):
    import scipy.sparse as sp

    used, places = np.unique(np.concatenate([terms.ids1, terms.ids2]), return_inverse=True)
    size = len(used)
    if not size:
        return True
    pairs = places[: len(terms.ids1)], places[len(terms.ids1) :]
    matrix = sp.csc_matrix((sign * terms.data, pairs), shape=(size, size))
    matrix = (matrix + matrix.T).tocsc()
    diagonal = matrix.diagonal()
    if (diagonal < 0).any():
        return False
    if matrix.nnz == np.count_nonzero(diagonal):
        return True
    shift = _TOLERANCE * max(abs(matrix.data).max(), 1e-300)
    matrix = matrix + shift * sp.eye_array(size, format="csc")
    if size <= _DENSE_SIZE or matrix.nnz > _DENSE_SHARE * size * size:
        return _has_cholesky_factor(matrix.toarray())
    return _has_positive_pivots(matrix)


def _has_cholesky_factor(matrix):
    try:
        np.linalg.cholesky(matrix)
    except np.linalg.LinAlgError:
        return False
    return True


def _has_positive_pivots(matrix):
    """The same for a large sparse matrix: elimination along the diagonal alone."""
    from scipy.sparse.linalg import splu

    try:
        factors = splu(
            matrix.tocsc(),
            permc_spec="MMD_AT_PLUS_A",
            diag_pivot_thresh=0.0,
            options={"SymmetricMode": True},
        )
    except RuntimeError:  # a pivot is exactly zero
        return False
    stayed = np.array_equal(factors.perm_r, factors.perm_c)
    return stayed and bool((factors.U.diagonal() > 0).all())
