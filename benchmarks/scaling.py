"""python benchmarks/scaling.py: time at n and at 10 n for every family of operations.

The exponent is log10 of the ratio: 1 is linear. `--check` fails where ten times the data cost
more than twelve times the time.

Memory that is given back stays with the process, for the next round: what the operating system
takes for fresh pages, which blocks above some size would need each time, stands outside.
"""

import gc
import math
import os
import sys
import time
import warnings
from functools import cached_property

import numpy as np
import scipy.sparse as sp

import taviropy as tv

N = 50_000  # beyond the caches also at the smaller size
KEEP_MEMORY = {
    "PYTHONMALLOC": "malloc", "MALLOC_MMAP_MAX_": "0", "MALLOC_TRIM_THRESHOLD_": str(2**40),
}  # fmt: skip
LIMIT = 12.0


def matrix(rows, columns, per_row=5):
    """A CSR matrix with entries at and right of its diagonal.

    Near ones, so that the caches don't see ten times the data as something else than ten times
    the work.
    """
    start = np.arange(rows, dtype=np.int32)[:, None]
    indices = np.sort((start + np.arange(per_row, dtype=np.int32)) % columns, axis=1)
    indptr = np.arange(0, rows * per_row + 1, per_row, dtype=np.int32)
    data = np.random.default_rng(rows).random(rows * per_row)
    return sp.csr_matrix((data, indices.ravel(), indptr), (rows, columns))


class Operands:
    """What the operations work on, n elements each; fresh for every measurement."""

    def __init__(self, n):
        self.n = n
        self.m = tv.Model()
        self.x, self.y = self.m.addMVar(n), self.m.addMVar(n)
        self.X = self.m.addMVar((n // 100, 100))
        self.m.update()
        self.A = matrix(n, n)
        self.A100 = matrix(n // 100, n // 100)
        self.b = np.random.default_rng(0).random(n)
        self.e = self.A @ self.x + self.b

    @cached_property
    def f(self):
        return 1.0 * self.X + 1.0

    @cached_property
    def full(self):
        return self.e._to_full()

    @cached_property
    def q(self):
        return (self.x + self.b) * self.y


OPERATIONS = {
    "addMVar": lambda o: o.m.addMVar(o.n),
    "A @ x": lambda o: o.A @ o.x,
    "x @ A": lambda o: o.x @ o.A,
    "A @ X": lambda o: o.A100 @ o.X,
    "X.sum()": lambda o: o.X.sum(),
    "X.sum(axis=0)": lambda o: o.X.sum(axis=0),
    "X.sum(axis=1)": lambda o: o.X.sum(axis=1),
    "e + b": lambda o: o.e + o.b,
    "e + x": lambda o: o.e + o.x,
    "e += x": lambda o: o.e.__iadd__(o.x),
    "e * b": lambda o: o.e * o.b,
    "2 * e": lambda o: 2 * o.e,
    "A @ e": lambda o: o.A @ o.e,
    "e.copy()": lambda o: o.e.copy(),
    "e._to_full()": lambda o: o.e._to_full(),
    "full + full": lambda o: o.full + o.full,
    "full += full": lambda o: o.full.__iadd__(o.full),
    "full * b": lambda o: o.full * o.b,
    "full.sum()": lambda o: o.full.sum(),
    "full.copy()": lambda o: o.full.copy(),
    "full[1:-1]": lambda o: o.full[1:-1],
    "full[mask]": lambda o: o.full[o.b > 0.5],
    "full[...] = b": lambda o: o.full.__setitem__(slice(None), o.b),
    "f + 1": lambda o: o.f + 1,
    "x.LB": lambda o: o.x.LB,
    "x.UB = b": lambda o: o.x.setAttr("UB", o.b),
    "addConstr(e <= b)": lambda o: (o.m.addConstr(o.e <= o.b), o.m.update()),
    "addConstr(full <= b)": lambda o: (o.m.addConstr(o.full <= o.b), o.m.update()),
    "x @ Q @ x": lambda o: o.x @ o.A @ o.x,
    "x * y": lambda o: o.x * o.y,
    "q + q": lambda o: o.q + o.q,
    "q.sum()": lambda o: o.q.sum(),
    "x ** 3": lambda o: o.x**3,
    "x ** 3 / (1 + y)": lambda o: o.x**3 / (1 + o.y),
}


def seconds(operation, n, rounds):
    """Best time of an operation; what it works on is made before."""
    used = set(operation.__code__.co_names) & {"f", "full", "q"}
    best = math.inf
    for _ in range(rounds):
        operands = Operands(n)
        for name in used:
            getattr(operands, name)
        gc.collect()
        start = time.perf_counter()
        kept = operation(operands)
        best = min(best, time.perf_counter() - start)
        del kept
    return best


def main():
    if not KEEP_MEMORY.items() <= os.environ.items():
        os.execve(sys.executable, [sys.executable, *sys.argv], os.environ | KEEP_MEMORY)
    warnings.simplefilter("ignore")
    check = "--check" in sys.argv
    worst = 0.0
    print(f"Milliseconds at n = {N} and at 10 n elements.\n")
    print("| Operation | n | 10 n | exponent |\n|---|---:|---:|---:|")
    for name, operation in OPERATIONS.items():
        for _ in range(3):  # a busy machine is asked again
            small, large = seconds(operation, N, rounds=5), seconds(operation, 10 * N, rounds=3)
            if large / small <= LIMIT:
                break
        worst = max(worst, large / small)
        exponent = math.log10(large / small)
        print(f"| `{name}` | {1e3 * small:.2f} | {1e3 * large:.2f} | {exponent:.2f} |")
    if check and worst > LIMIT:
        sys.exit(f"ten times the data cost {worst:.1f} times the time; at most {LIMIT} is meant")


if __name__ == "__main__":
    main()
