"""Median and quantile regressions as linear programs, on the diabetes data (442 patients, 10
features).

The q-quantile regression fits the plane that leaves a share q of the observations below it
(Koenker and Bassett, Regression Quantiles, Econometrica 46, 1978). It is the linear program

    min  q * sum(over) + (1 - q) * sum(under)
    s.t. X @ beta + intercept + over - under == y,   over, under >= 0

whose optimum is compared with that of scikit-learn's QuantileRegressor.
"""

import time

import numpy as np
from sklearn.datasets import load_diabetes
from sklearn.linear_model import QuantileRegressor

import taviropy as tv

data = load_diabetes()
X, y = data.data, data.target
n, p = X.shape

for q in (0.5, 0.1, 0.9):
    start = time.perf_counter()
    m = tv.Model(f"quantile {q}")
    beta = m.addMVar(p, lb=-np.inf, name="beta")
    intercept = m.addVar(lb=-np.inf, name="intercept")
    over = m.addMVar(n, name="over")
    under = m.addMVar(n, name="under")
    m.addConstr(X @ beta + intercept + over - under == y, name="fit")
    m.setObjective(q * over.sum() + (1 - q) * under.sum())
    m.load()
    seconds = time.perf_counter() - start
    print(
        f"\n== {q}-quantile: {m.NumVars} variables, {m.NumConstrs} constraints, "
        f"{m.NumNonzeros} nonzeros, built in {1e3 * seconds:.1f} ms\n"
    )
    m.optimize()

    peer = QuantileRegressor(quantile=q, alpha=0, solver="highs").fit(X, y)
    residual = y - peer.predict(X)
    other = np.maximum(q * residual, (q - 1) * residual).sum()
    print(f"\n{'intercept':>10} {intercept.X:12.4f}")
    for name, value in zip(data.feature_names, beta.X, strict=True):
        print(f"{name:>10} {value:12.4f}")
    print(f"objective {m.Objective:.8f}, of QuantileRegressor {other:.8f}")
    assert abs(m.Objective - other) <= 1e-6 * abs(other), "the two optima differ"
