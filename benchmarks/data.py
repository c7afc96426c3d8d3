"""The data of the works, the same for every library: NumPy and SciPy arrays from a fixed seed."""

from types import SimpleNamespace

import numpy as np
import scipy.sparse as sp


def sparse_rows(rng, rows, columns, per_row):
    """A CSR matrix with `per_row` entries in each row, one from each strip of columns."""
    edges = np.linspace(0, columns, per_row + 1).astype(np.int32)
    indices = rng.integers(edges[:-1], edges[1:], (rows, per_row), dtype=np.int32)
    indptr = np.arange(0, rows * per_row + 1, per_row, dtype=np.int32)
    return sp.csr_matrix((rng.random(rows * per_row), indices.ravel(), indptr), (rows, columns))


def w1(n):
    """min c'x, A x + b <= r, x >= 0; A sparse n x n, 10 entries a row."""
    rng = np.random.default_rng(1)
    A = sparse_rows(rng, n, n, 10)
    return SimpleNamespace(n=n, A=A, b=rng.random(n), r=1 + rng.random(n), c=rng.random(n))


def w2(n=2000):
    """The same with A dense."""
    rng = np.random.default_rng(2)
    return SimpleNamespace(
        n=n, A=rng.random((n, n)), b=rng.random(n), r=1 + rng.random(n), c=rng.random(n)
    )


def w3(blocks=10_000, n=1000):
    """Small blocks one by one: a @ x[idx] <= r of 10 terms each."""
    rng = np.random.default_rng(3)
    idx = np.array([rng.permutation(n)[:10] for _ in range(blocks)])
    return SimpleNamespace(n=n, idx=idx, a=rng.random((blocks, 10)), r=1 + rng.random(blocks))


def w4(k=300):
    """X of shape (k, k): A @ X <= B with A sparse, X.sum(axis=0) == 1, X.sum(axis=1) <= s."""
    rng = np.random.default_rng(4)
    return SimpleNamespace(
        k=k, A=sparse_rows(rng, k, k, 10), B=1 + rng.random((k, k)), s=1 + rng.random(k)
    )


def w5(n=100_000):
    """min x'Qx + c'x with Q sparse, symmetric and diagonally dominant, about 5 entries a row."""
    rng = np.random.default_rng(5)
    half = sparse_rows(rng, n, n, 2)
    Q = half + half.T
    Q = (Q + sp.diags_array(np.asarray(Q.sum(axis=1)).ravel() + 1.0)).tocsr()
    return SimpleNamespace(n=n, Q=sp.csr_matrix(Q), c=rng.random(n))


def w5_dense(n=1000):
    """The same with Q dense."""
    rng = np.random.default_rng(6)
    Q = rng.random((n, n))
    return SimpleNamespace(n=n, Q=Q + Q.T + 2 * n * np.eye(n), c=rng.random(n))


def w6(n=100_000):
    """x**3 / (1 + y), element by element."""
    return SimpleNamespace(n=n)


#: name -> (generator of the data, its sizes)
WORKS = {
    "w1_small": (w1, 10_000),
    "w1": (w1, 100_000),
    "w1_large": (w1, 1_000_000),
    "w2": (w2, 2000),
    "w3": (w3, 10_000),
    "w4": (w4, 300),
    "w5": (w5, 100_000),
    "w5_dense": (w5_dense, 1000),
    "w6": (w6, 100_000),
}
