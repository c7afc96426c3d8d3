"""python benchmarks/full_form.py [K]: products and sums that make an array of expressions.

X is a K x K block of variables, A a sparse K x K matrix with 10 entries a row. Nanoseconds a term,
beside a Python loop over taviropy's scalar objects and beside hand-written NumPy code that makes
the CSR arrays of the same rows; in turns in one process, the best of several rounds.
"""

import gc
import sys
import time

import data
import numpy as np

import taviropy as tv


def product_by_loop(scope):
    A, X = scope["A"], scope["scalars"]
    rows = zip(A.indptr[:-1], A.indptr[1:], strict=True)
    return [
        [
            tv.LinExpr(A.data[begin:end].tolist(), [X[k][j] for k in A.indices[begin:end]])
            for j in range(len(X))
        ]
        for begin, end in rows
    ]


def column_sums_by_loop(scope):
    X = scope["scalars"]
    return [sum((row[j] for row in X), tv.LinExpr()) for j in range(len(X))]


def row_sums_by_loop(scope):
    return [sum(row, tv.LinExpr()) for row in scope["scalars"]]


def product_by_arrays(scope):
    A, k = scope["A"], scope["A"].shape[0]
    per_row = np.diff(A.indptr)
    counts = np.repeat(per_row, k)
    indptr = np.zeros(k * k + 1, dtype=np.int32)
    np.cumsum(counts, out=indptr[1:])
    place = np.repeat(np.repeat(A.indptr[:-1], k) - indptr[:-1], counts) + np.arange(A.nnz * k)
    column = np.repeat(np.tile(np.arange(k, dtype=np.int32), k), counts)
    return indptr, A.indices[place] * k + column, A.data[place]


def column_sums_by_arrays(scope):
    k = scope["A"].shape[0]
    grid = np.arange(k * k, dtype=np.int32).reshape(k, k)
    return np.arange(0, k * k + 1, k, dtype=np.int32), grid.T.ravel(), np.ones(k * k)


def row_sums_by_arrays(scope):
    k = scope["A"].shape[0]
    return (
        np.arange(0, k * k + 1, k, dtype=np.int32),
        np.arange(k * k, dtype=np.int32),
        np.ones(k * k),
    )


#: operation -> (terms by k, the operation, a Python loop, hand-written arrays)
OPERATIONS = {
    "A @ X": (lambda k: 10 * k * k, lambda s: s["A"] @ s["X"], product_by_loop, product_by_arrays),
    "X.sum(axis=0)": (
        lambda k: k * k, lambda s: s["X"].sum(axis=0), column_sums_by_loop, column_sums_by_arrays,
    ),
    "X.sum(axis=1)": (
        lambda k: k * k, lambda s: s["X"].sum(axis=1), row_sums_by_loop, row_sums_by_arrays,
    ),
}  # fmt: skip


def seconds(operation, scope):
    start = time.perf_counter()
    result = operation(scope)
    elapsed = time.perf_counter() - start
    del result
    return elapsed


def measure(k, rounds=5):
    """operation -> [taviropy, Python loop, arrays] in best seconds."""
    m = tv.Model()
    X = m.addMVar((k, k))
    m.update()
    scope = {"A": data.w4(k).A, "X": X, "scalars": X.tolist()}
    best = {}
    for name, (_, *ways) in OPERATIONS.items():
        best[name] = [float("inf")] * len(ways)
        for _ in range(rounds):
            for place, way in enumerate(ways):
                gc.collect()
                best[name][place] = min(best[name][place], seconds(way, scope))
    return best


def main():
    k = int(sys.argv[1]) if len(sys.argv) > 1 else 300
    print(f"Nanoseconds a term, X of shape ({k}, {k}).\n")
    print("| Operation | terms | taviropy | Python loop | arrays |\n|---|---:|---:|---:|---:|")
    for name, times in measure(k).items():
        terms = OPERATIONS[name][0](k)
        cells = " | ".join(f"{1e9 * each / terms:.1f}" for each in times)
        print(f"| `{name}` | {terms} | {cells} |", flush=True)


if __name__ == "__main__":
    main()
