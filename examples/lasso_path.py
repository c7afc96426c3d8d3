"""The lasso path on real data: which measurements tell of the progress of diabetes.

Tibshirani, Regression shrinkage and selection via the lasso, Journal of the Royal Statistical
Society B 58, 1996; data of Efron et al., Least angle regression, Annals of Statistics 32, 2004, as
they come with scikit-learn. Residuals are variables, so that the objective's matrix is diagonal;
along the path only the right-hand side of one row changes. scikit-learn's own path is the check.
"""

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
for amount in np.linspace(200, 2000, 10):
    budget.RHS = amount
    m.optimize()
    assert m.Status == "OPTIMAL"
    # The price of the budget is the penalty that gives the same weights.
    penalty = -budget.Dual.item() / (2 * rows)
    print(f"{amount:6.0f} {penalty:8.4f}  " + " ".join(f"{w:6.0f}" for w in weight.X))
    other = Lasso(alpha=penalty, fit_intercept=False, tol=1e-10, max_iter=100_000).fit(X, y)
    assert np.allclose(other.coef_, weight.X, atol=0.05), abs(other.coef_ - weight.X).max()

print("\nthe same weights as scikit-learn's at each of the penalties")
