"""python benchmarks/bench_scalars.py: scalar expressions beside highspy's and hand-written Python.

Each line is one operation, timed in turns with its counterpart in one run: highspy's linear
expressions for the operators, plain lists, dictionaries and comprehensions for the bulk passes.
The last column is the counterpart's time over ours.
"""

import timeit

import highspy
import numpy as np

import taviropy as tv
from taviropy._scalars import gather_linear

N = 100_000


def scopes():
    m = tv.Model()
    block = m.addMVar(N)
    m.update()
    variables = block.tolist()
    h = highspy.Highs()
    h.setOptionValue("output_flag", False)
    u, w = h.addVariable(), h.addVariable()
    x, y = variables[:2]
    ours = {
        "tv": tv, "np": np, "m": m, "x": x, "y": y, "e": 2.0 * x + y, "f": x - 3.0 * y,
        "variables": variables, "long": tv.LinExpr([1.0] * N, variables), "vararr": block._vararr,
        "rows": [2.0 * v + x for v in variables], "gather_linear": gather_linear,
        "added_up": added_up,
    }  # fmt: skip
    theirs = {
        "np": np, "h": h, "x": u, "y": w, "e": 2.0 * u + w, "f": u - 3.0 * w,
        "N": N, "coeffs": [1.0] * N, "places": list(range(N)),
        "rows": [([2.0, 1.0], [k, 0]) for k in range(N)],
        "merge": merge_by_dictionary, "flatten": flatten_by_hand,
    }  # fmt: skip
    return ours, theirs


def added_up(variables):
    total = tv.LinExpr()
    for v in variables:
        total += v
    return total


def merge_by_dictionary(coeffs, places):
    merged = {}
    for coeff, place in zip(coeffs, places, strict=True):
        merged[place] = merged.get(place, 0.0) + coeff
    return list(merged.values()), list(merged)


def flatten_by_hand(rows):
    indptr = np.cumsum([0] + [len(coeffs) for coeffs, _ in rows])
    coeffs = np.array([c for coeffs, _ in rows for c in coeffs])
    return indptr, np.array([p for _, places in rows for p in places], dtype=np.int32), coeffs


PAIRS = [
    ("2.0 * x", "2.0 * x", "highspy"),
    ("x + y", "x + y", "highspy"),
    ("e + f", "e + f", "highspy"),
    ("e <= 1.0", "e <= 1.0", "highspy"),
    ("np.float64(2.0) * x", "np.float64(2.0) * x", "highspy"),
    ("added_up(variables[:1000])", "h.qsum([x] * 1000)", "highspy, its own sum"),
    ("long.copy()._normalize()", "merge(coeffs, places)", "a dictionary"),
    ("gather_linear(m, rows)", "flatten(rows)", "comprehensions"),
    ("m._ids(1, vararr)", "np.array([k for k in places], dtype=np.int32)", "a comprehension"),
    ("m._elements(1, range(100_000))", "[object() for _ in range(N)]", "bare objects"),
]


def best_times(pair, scope_pair, rounds=7):
    best = [float("inf")] * 2
    timers = [timeit.Timer(s, globals=g) for s, g in zip(pair, scope_pair, strict=True)]
    numbers = [max(1, int(0.005 / max(t.timeit(1), 1e-7))) for t in timers]
    for _ in range(rounds):
        for k in range(2):
            best[k] = min(best[k], timers[k].timeit(numbers[k]) / numbers[k])
    return best


def main():
    scope_pair = scopes()
    print(f"{'operation':34}{'us':>12}{'other, us':>12}{'ratio':>8}  other")
    for ours, theirs, name in PAIRS:
        mine, other = best_times((ours, theirs), scope_pair)
        print(f"{ours:34}{1e6 * mine:12.2f}{1e6 * other:12.2f}{other / mine:8.1f}  {name}")


if __name__ == "__main__":
    main()
