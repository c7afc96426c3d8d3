"""python benchmarks/bench_nonlinear.py [N]: building nonlinear expressions over N variables.

taviropy's MNLExpr beside CasADi's scalar graphs (SX) where it is installed, the libraries taking
turns in one process; the best of several rounds, freeing the result included. Without CasADi
taviropy's own times are printed.
"""

import importlib.util
import sys
import time

import numpy as np

#: operation -> the multiple of CasADi's time that we mean to stay below
OPERATIONS = {
    "x**3 / (1 + y)": 0.8,
    "x**3": 0.8,
    "1 / x": None,
    "p * q": None,
    "p + 2.5": None,
    "p - b": None,
    "exp(x)": None,
    "total(p)": None,
}


def scope_taviropy(n):
    import taviropy as tv

    m = tv.Model()
    x, y = m.addMVar(n), m.addMVar(n)
    scope = {"m": m, "x": x, "y": y, "p": x**3, "q": 1 / y, "b": np.arange(float(n))}
    return scope | {"exp": tv.exp, "total": tv.MNLExpr.sum}


def scope_casadi(n):
    import casadi

    x, y = casadi.SX.sym("x", n), casadi.SX.sym("y", n)
    scope = {"x": x, "y": y, "p": x**3, "q": 1 / y, "b": np.arange(float(n))}
    return scope | {"exp": casadi.exp, "total": casadi.sum1}


def milliseconds(code, scope):
    start = time.perf_counter()
    result = eval(code, scope)
    del result
    return 1e3 * (time.perf_counter() - start)


def measure(n, rounds=7):
    """operation -> library -> best milliseconds."""
    makers = {"taviropy": scope_taviropy}
    if importlib.util.find_spec("casadi"):
        makers["casadi"] = scope_casadi
    best = {op: dict.fromkeys(makers, float("inf")) for op in OPERATIONS}
    for op, times in best.items():
        scopes = {name: make(n) for name, make in makers.items()}
        code = compile(op, op, "eval")
        for _ in range(rounds):
            for name, scope in scopes.items():
                times[name] = min(times[name], milliseconds(code, scope))
    return best


def main():
    n = int(sys.argv[1]) if len(sys.argv) > 1 else 100_000
    print(f"Milliseconds, n = {n}.\n")
    print("| Operation | taviropy | casadi | x | aim |\n|---|---:|---:|---:|---:|")
    for op, times in measure(n).items():
        ours, theirs = times["taviropy"], times.get("casadi")
        cells = (f"{theirs:.1f}", f"{ours / theirs:.2f}") if theirs else ("", "")
        print(f"| `{op}` | {ours:.1f} | {' | '.join(cells)} | {OPERATIONS[op] or ''} |", flush=True)


if __name__ == "__main__":
    main()
