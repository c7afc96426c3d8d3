"""Whether a quadratic objective is convex: whether no direction has negative curvature.

All curvature is measured on the matrix with its diagonal scaled to one, so that it doesn't matter
in which units the variables are. What is below the tolerance there is lost in rounding: HiGHS's
regularization and SCIP's own comparisons don't see it either.
"""

from __future__ import annotations

from typing import Any

import numpy as np

from .._tvo import TVO
from ..data.quadratic import QuadraticTerms
from ..data.values import Floats, Ids
from ..data.view import View

_TOLERANCE = 1e-7
_RISK = 1e-9  # probability that the Lanczos process overlooks more than _OVERLOOKED
_OVERLOOKED = 1e-6
_LARGEST_BAND = 2**27  # entries, 1 GiB


def is_convex(view: View, final: bool = True) -> bool:
    """Whether the quadratic objective is convex to minimize, or concave to maximize.

    The answer is kept until the terms, the sense or the variables change. Without `final`, no
    new one is looked for and True stands for an unknown one.
    """
    stamp = (view.quadratic_version, view.sense)
    known = view.recall("convexity", stamp)
    if known is not None:
        return bool(known)
    if not final or view.quadratic_objective is None:
        return True
    sign = 1.0 if view.sense == TVO.MINIMIZE else -1.0
    answer = _is_semidefinite(view.quadratic_objective, sign)
    view.remember("convexity", stamp, answer)
    return answer


def _is_semidefinite(terms: QuadraticTerms, sign: float) -> bool:
    """Whether ``sign`` times the sum of the terms, each pair once, is nowhere negative."""
    on_diagonal = terms.ids1 == terms.ids2
    size = 1 + int(terms.ids2.max(initial=-1))
    diagonal = np.zeros(size)
    diagonal[terms.ids1[on_diagonal]] = 2.0 * sign * terms.data[on_diagonal]
    if (diagonal < 0.0).any():
        return False
    rows, columns = terms.ids1[~on_diagonal], terms.ids2[~on_diagonal]
    data = sign * terms.data[~on_diagonal]
    if not (diagonal[rows] > 0.0).all() or not (diagonal[columns] > 0.0).all():
        return False  # x * y, and no square of x
    scale = 1.0 / np.sqrt(np.where(diagonal > 0.0, diagonal, 1.0))
    scaled = data * scale[rows] * scale[columns]
    if (abs(scaled) > 1.0 + _TOLERANCE).any():
        return False  # by two variables alone
    if _is_dominant(diagonal, rows, columns, data) or _is_dominant(
        np.ones(size), rows, columns, scaled
    ):
        return True
    return _has_no_negative_eigenvalue(rows, columns, scaled, size)


def _is_dominant(diagonal: Floats, rows: Ids, columns: Ids, data: Floats) -> bool:
    """Whether each diagonal entry is at least the sum of the others in its row, by magnitude."""
    size, magnitude = len(diagonal), abs(data)
    others = np.bincount(rows, magnitude, size) + np.bincount(columns, magnitude, size)
    return bool((others <= diagonal * (1.0 + _TOLERANCE)).all())


def _has_no_negative_eigenvalue(rows: Ids, columns: Ids, data: Floats, size: int) -> bool:
    """The same for entries above a diagonal of ones, by what costs less to find out."""
    import scipy.sparse as sp
    from scipy.sparse.csgraph import reverse_cuthill_mckee

    used = np.unique(np.concatenate([rows, columns]))
    place = np.zeros(size, np.int32)
    place[used] = np.arange(len(used), dtype=np.int32)
    size, rows, columns = len(used), place[rows], place[columns]
    half = sp.coo_array((data, (rows, columns)), shape=(size, size)).tocsr()
    matrix = half + half.T.tocsr() + sp.eye_array(size, format="csr")
    place[reverse_cuthill_mckee(matrix, symmetric_mode=True)] = np.arange(size, dtype=np.int32)
    rows, columns = place[rows], place[columns]
    width = 1 + int(abs(rows - columns).max())
    by_band = float(size) * width**2
    by_products = 8.0 * _most_steps(size) * (matrix.nnz + 4 * size)
    if by_band <= by_products and size * width <= _LARGEST_BAND:
        return _has_cholesky_factor(rows, columns, data, size, width)
    return _finds_no_negative_curvature(matrix)


def _has_cholesky_factor(rows: Ids, columns: Ids, data: Floats, size: int, width: int) -> bool:
    """Whether the band matrix, shifted by the tolerance, has a Cholesky factor.

    Source: Golub and Van Loan, Matrix Computations, section 4.2: a symmetric matrix has one
    exactly when it is positive definite.
    """
    from scipy.linalg import LinAlgError, cholesky_banded

    band = np.zeros((width, size), order="F")
    band[0] = 1.0 + _TOLERANCE
    band[abs(rows - columns), np.minimum(rows, columns)] = data
    try:
        cholesky_banded(band, overwrite_ab=True, lower=True, check_finite=False)
    except LinAlgError:
        return False
    return True


def _most_steps(size: int) -> int:
    """Steps of the Lanczos process after which no curvature of _OVERLOOKED stays unseen."""
    return int(np.log(1.648 * np.sqrt(size) / _RISK) / np.sqrt(_OVERLOOKED) / 2.0) + 1


def _finds_no_negative_curvature(matrix: Any) -> bool:
    """Whether the Lanczos process meets no negative curvature.

    A negative answer is certain: there is a direction for it. The positive one is right but for
    the risk and the share of the spectrum's width that the constants name. It comes early where
    the lowest value found is far enough above zero, or settled: what lies below it would have
    grown faster, had the start not all but lacked it.

    Source: Kuczynski and Wozniakowski, Estimating the largest eigenvalue by the power and Lanczos
    algorithms with a random start, SIAM J. Matrix Anal. Appl. 13 (1992), theorem 4.2: after k
    steps the relative error exceeds e with a probability of at most
    1.648 sqrt(n) exp(-sqrt(e) (2 k - 1)), whatever the eigenvalues.
    """
    size = matrix.shape[0]
    vector = np.random.default_rng(0).normal(size=size)
    vector /= np.linalg.norm(vector)
    before, offset = np.zeros(size), 0.0
    diagonal: list[float] = []
    offsets: list[float] = []
    most = _most_steps(size)
    for step in range(1, most + 1):
        product = matrix @ vector
        product -= offset * before
        diagonal.append(float(product @ vector))
        product -= diagonal[-1] * vector
        offset = float(np.linalg.norm(product))
        is_complete = offset <= 1e-12 * abs(diagonal[0])  # nothing new in any further product
        if is_complete or step == most or (step >= 16 and step & (step - 1) == 0):
            (low,), lowest = _ritz_pair(diagonal, offsets, 0)
            (high,), _ = _ritz_pair(diagonal, offsets, step - 1)
            if low < -_TOLERANCE * max(1.0, high):
                return False
            unseen = (np.log(1.648 * np.sqrt(size) / _RISK) / (2 * step - 1)) ** 2
            is_settled = offset * abs(lowest[-1, 0]) <= _RISK
            if is_complete or is_settled or low > unseen * (high - low):
                return True
        offsets.append(offset)
        before, vector = vector, product / offset
    return True


def _ritz_pair(diagonal: list[float], offsets: list[float], k: int) -> tuple[Any, Any]:
    """The k-th eigenvalue of a symmetric tridiagonal matrix and its eigenvector, as arrays."""
    from scipy.linalg import eigh_tridiagonal

    pair: tuple[Any, Any] = eigh_tridiagonal(diagonal, offsets, select="i", select_range=(k, k))
    return pair
