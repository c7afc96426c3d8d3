r"""The lasso path
==============

Which measurements tell of the progress of diabetes: least squares with a budget for the weights,

.. math::

   \min_{w, r} \; r^\top r \quad \text{s.t.} \quad X w + r = y, \quad \|w\|_1 \le s .

Tibshirani, Regression shrinkage and selection via the lasso, Journal of the Royal Statistical
Society B 58, 1996; data of Efron et al., Least angle regression, Annals of Statistics 32, 2004, as
they come with scikit-learn. Residuals are variables, so that the objective's matrix is diagonal;
along the path only the right-hand side of one row changes. scikit-learn's own path is the check.
"""

from importlib.util import find_spec

import numpy as np
from sklearn.datasets import load_diabetes
from sklearn.linear_model import Lasso

import taviropy as tv

data = load_diabetes()
X, y = data.data, data.target - data.target.mean()
rows, columns = X.shape

m = tv.Model("lasso")
m.setOption("log", False)
weight = m.addMVar(columns, lb=-np.inf, name="weight")
size = m.addMVar(columns, name="size")  # |weight|
residual = m.addMVar(rows, lb=-np.inf, name="residual")
m.addConstr(X @ weight + residual == y)
m.addConstr(size >= weight)
m.addConstr(size >= -weight)
budget = m.addConstr(size.sum() <= 0, name="budget")
m.setObjective(residual @ residual)
m.update()

print("budget  penalty  " + " ".join(f"{name:>6}" for name in data.feature_names))
budgets, weights = np.linspace(200, 2000, 10), []
for amount in budgets:
    budget.RHS = amount
    m.optimize()
    assert m.Status == "OPTIMAL"
    weights.append(weight.X)
    # The price of the budget is the penalty that gives the same weights.
    penalty = -budget.Dual.item() / (2 * rows)
    print(f"{amount:6.0f} {penalty:8.4f}  " + " ".join(f"{w:6.0f}" for w in weight.X))
    other = Lasso(alpha=penalty, fit_intercept=False, tol=1e-10, max_iter=100_000).fit(X, y)
    assert np.allclose(other.coef_, weight.X, atol=0.05), abs(other.coef_ - weight.X).max()

print("\nthe same weights as scikit-learn's at each of the penalties")

if find_spec("matplotlib"):
    import matplotlib.pyplot as plt

    figure, axis = plt.subplots(figsize=(7, 4))
    axis.plot(budgets, weights, label=data.feature_names)
    axis.set_xlabel("budget")
    axis.set_ylabel("weights")
    axis.legend(ncols=2, fontsize=8)
    plt.show()
