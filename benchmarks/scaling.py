"""python benchmarks/scaling.py: time at n and at 10 n for every family of operations.

The exponent is log10 of the ratio: 1 is linear. `--check` fails where ten times the data cost
more than twelve times the time.
"""

import math
import sys
import time
import warnings

import numpy as np
import scipy.sparse as sp

import taviropy as tv

N = 20_000
LIMIT = 12.0


def matrix(rows, columns, per_row=5):
    rng = np.random.default_rng(rows)
    indices = rng.integers(0, columns, rows * per_row, dtype=np.int32)
    indptr = np.arange(0, rows * per_row + 1, per_row, dtype=np.int32)
    return sp.csr_matrix((rng.random(rows * per_row), indices, indptr), (rows, columns))


class Operands:
    """What the operations work on, n elements each; fresh for every measurement."""

    def __init__(self, n):
        self.n = n
        self.m = tv.Model()
        self.x, self.y = self.m.addMVar(n), self.m.addMVar(n)
        self.X = self.m.addMVar((n // 100, 100))
        self.A = matrix(n, n)
        self.A100 = matrix(n // 100, n // 100)
        self.b = np.random.default_rng(0).random(n)
        self.e = self.A @ self.x + self.b
        self.f = 1.0 * self.X + 1.0
        self.full = self.e._to_full()
        self.q = self.full * self.y


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


def seconds(operation, n, rounds=5):
    best = math.inf
    for _ in range(rounds):
        operands = Operands(n)
        start = time.perf_counter()
        kept = operation(operands)
        best = min(best, time.perf_counter() - start)
        del kept
    return best


def main():
    warnings.simplefilter("ignore")
    check = "--check" in sys.argv
    worst = 0.0
    print(f"Milliseconds at n = {N} and at 10 n elements.\n")
    print("| Operation | n | 10 n | exponent |\n|---|---:|---:|---:|")
    for name, operation in OPERATIONS.items():
        small, large = seconds(operation, N), seconds(operation, 10 * N, rounds=3)
        worst = max(worst, large / small)
        exponent = math.log10(large / small)
        print(f"| `{name}` | {1e3 * small:.2f} | {1e3 * large:.2f} | {exponent:.2f} |")
    if check and worst > LIMIT:
        sys.exit(f"ten times the data cost {worst:.1f} times the time; at most {LIMIT} is meant")


if __name__ == "__main__":
    main()
