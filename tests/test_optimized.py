"""Under `python -O` no assertion of ours runs, and every result is the same."""

import json
import subprocess
import sys

PROGRAM = """
import json, sys
import numpy as np, scipy.sparse as sp
import taviropy as tv

def outcome(function):
    try:
        return repr(function())
    except Exception as error:
        return f"{type(error).__name__}: {error}"

m = tv.Model()
m.setOption("log", False)
x = m.addMVar(3, ub=[1.0, 2.0, 3.0], name="x")
X = m.addMVar((2, 3), ub=1.0, name="X")
m.update()
A = sp.csr_matrix([[1.0, 0.0, 2.0], [0.0, 3.0, 0.0]])
e = A @ x + np.array([1.0, 2.0])
programs = [
    lambda: e, lambda: 2 * e, lambda: e + e, lambda: e[0], lambda: e.sum(), lambda: A @ X.T,
    lambda: X.sum(axis=0), lambda: X.sum(axis=4), lambda: e @ np.ones(5), lambda: e + np.ones(4),
    lambda: e * np.nan, lambda: e * np.array([np.inf, 1.0]), lambda: e / 0, lambda: e != 1,
    lambda: x.diagonal(), lambda: X.diagonal(), lambda: tv.MVar.fromlist([x[0].item(), 2]),
    lambda: x.setAttr("UB", np.ones((3, 1))), lambda: e.getConstant(), lambda: x @ 2,
    lambda: x * x if hasattr(tv, "MQuadExpr") else None, lambda: x ** 3 if hasattr(tv, "MNLExpr") else None,
]
results = [outcome(program) for program in programs]
m.addConstr(e <= np.array([3.0, 4.0]))
m.addConstr(X.sum(axis=1) <= 2)
m.setObjective(x.sum() + X.sum(), sense="max")
m.optimize()
results += [m.Objective, x.X.tolist(), e.getValue().tolist(), sys.flags.optimize and None]
try:
    tv.MConstr([1, 2])
    results.append("built")
except AssertionError:
    results.append("AssertionError")
except Exception as error:
    results.append(type(error).__name__)
print(json.dumps(results))
"""


def run(*options):
    command = [sys.executable, *options, "-c", PROGRAM]
    done = subprocess.run(command, capture_output=True, text=True, check=True)
    return json.loads(done.stdout)


def test_results_do_not_depend_on_assertions():
    plain, optimized = run(), run("-O")
    assert plain[:-2] == optimized[:-2]
    # The constructor's assertion vanishes; what follows meets the list that isn't an array.
    assert plain[-1] == "AssertionError"
    assert optimized[-1] == "AttributeError"
