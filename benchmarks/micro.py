"""python benchmarks/micro.py: microseconds an operation on arrays of 3 and of 100 variables.

taviropy beside cvxpy and PySCIPOpt's matrix variables where they are installed, interleaved; the
best of several rounds, which is what the code costs when nothing else disturbs it.
"""

import importlib.util
import timeit
import warnings

import numpy as np

OPERATIONS = ["x + 1", "2 * x", "x + y", "A @ x + b", "x.sum()", "x[2]", "x <= 1"]
AIMS = {
    "x + 1": 8, "2 * x": 8, "x + y": 10, "A @ x + b": 14, "x.sum()": 2.8, "x[2]": 0.7,
    "x <= 1": 0.2,
}  # fmt: skip


def names_taviropy(n):
    import taviropy as tv

    m = tv.Model()
    x, y = m.addMVar(n), m.addMVar(n)
    m.update()
    return m, x, y


def names_cvxpy(n):
    import cvxpy as cp

    return None, cp.Variable(n), cp.Variable(n)


def names_pyscipopt(n):
    import pyscipopt as ps

    m = ps.Model()
    return m, m.addMatrixVar(n), m.addMatrixVar(n)


MAKERS = {"taviropy": names_taviropy, "cvxpy": names_cvxpy, "pyscipopt": names_pyscipopt}


def table(n, rounds=7):
    """operation -> library -> best microseconds."""
    scopes = {}
    for library, make in MAKERS.items():
        if importlib.util.find_spec(library):
            model, x, y = make(n)
            scope = {"x": x, "y": y, "A": np.ones((n, n)), "b": np.ones(n), "m": model}
            scopes[library] = scope
    best = {op: dict.fromkeys(scopes, float("inf")) for op in OPERATIONS}
    for _ in range(rounds):
        for op in OPERATIONS:
            for library, scope in scopes.items():
                timer = timeit.Timer(op, globals=scope)
                number = max(1, int(0.004 / max(timer.timeit(1), 2e-7)))
                best[op][library] = min(best[op][library], 1e6 * timer.timeit(number) / number)
    return best


def main():
    warnings.simplefilter("ignore")
    small, large = table(3), table(100)
    libraries = list(next(iter(small.values())))
    print("Microseconds on 3 variables; in brackets on 100.\n")
    print("| Operation | " + " | ".join(libraries) + " | aim |")
    print("|---|" + "---:|" * (len(libraries) + 1))
    for op in OPERATIONS:
        cells = (f"{small[op][k]:.2f} ({large[op][k]:.2f})" for k in libraries)
        print(f"| `{op}` | " + " | ".join(cells) + f" | {AIMS[op]} |")


if __name__ == "__main__":
    main()
