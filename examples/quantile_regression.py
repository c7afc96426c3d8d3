r"""Quantile regression
===================

Median and quantile regressions on the diabetes data (442 patients, 10 features). The q-quantile
regression fits the plane that leaves a share q of the observations below it (Koenker and Bassett,
Regression Quantiles, Econometrica 46, 1978). It is the linear program

.. math::

   \min \; q \, \mathbf 1^\top o + (1 - q) \, \mathbf 1^\top u \quad \text{s.t.} \quad
   X \beta + \alpha + o - u = y, \quad o, u \ge 0,

whose optimum is compared with that of scikit-learn's QuantileRegressor.
"""

import time
from importlib.util import find_spec

import numpy as np
from sklearn.datasets import load_diabetes
from sklearn.linear_model import QuantileRegressor

import taviropy as tv

data = load_diabetes()
X, y = data.data, data.target
n, p = X.shape

fits = {}
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

    fits[q] = X @ beta.X + intercept.X
    peer = QuantileRegressor(quantile=q, alpha=0, solver="highs").fit(X, y)
    residual = y - peer.predict(X)
    other = np.maximum(q * residual, (q - 1) * residual).sum()
    print(f"\n{'intercept':>10} {intercept.X:12.4f}")
    for name, value in zip(data.feature_names, beta.X, strict=True):
        print(f"{name:>10} {value:12.4f}")
    print(f"objective {m.Objective:.8f}, of QuantileRegressor {other:.8f}")
    assert abs(m.Objective - other) <= 1e-6 * abs(other), "the two optima differ"

if find_spec("matplotlib"):
    import matplotlib.pyplot as plt

    order = np.argsort(fits[0.5])
    figure, axis = plt.subplots(figsize=(7, 4))
    axis.plot(y[order], ".", color="0.6", label="patients")
    for q, fit in sorted(fits.items()):
        axis.plot(
            fit[order], linewidth=1, label=f"{q:g}-quantile: {np.mean(y <= fit + 1e-6):.0%} below"
        )
    axis.set_xlabel("patients, by the median that is foretold")
    axis.set_ylabel("progress of the disease")
    axis.legend()
    plt.show()
