r"""Portfolio frontier
==================

Mean-variance portfolios of six stocks, with their efficient frontier as a picture:

.. math::

   \min_{x \ge 0} \; x^\top \Sigma x \quad \text{s.t.} \quad \mu^\top x \ge \rho, \quad
   \mathbf 1^\top x = 1, \quad \#\{i : x_i > 0\} \le 3 .

Markowitz, Portfolio Selection, Journal of Finance 7, 1952: of all portfolios with an expected
return of at least :math:`\rho`, the one with the least variance. The weekly prices (2018 and 2019)
come with plotly. Clarabel solves the quadratic programs, SCIP those that count stocks.
"""

import copy
import itertools
from importlib.util import find_spec

import numpy as np
import plotly.data

import taviropy as tv

prices = plotly.data.stocks(indexed=False).set_index("date")
weekly = prices.pct_change().dropna()
names = list(weekly.columns)
mu = 52 * weekly.mean().to_numpy()  # expected return a year, shape (6,)
sigma = 52 * weekly.cov().to_numpy()  # its covariance, shape (6, 6)

m = tv.Model("portfolio")
m.setOption("log", False)
x = m.addMVar(len(names), lb=0.0, ub=0.4, name="share")
m.addConstr(x.sum() == 1, name="budget")
least = m.addConstr(mu @ x >= 0, name="return")

# The two ends of the frontier: the greatest return, and the return of the least variance.
m.setObjective(mu @ x, sense="max")
m.optimize()
highest = m.Objective
m.setObjective(x @ sigma @ x, sense="min")
m.optimize()
lowest = mu @ x.X

# Between them only a right-hand side changes; with few stocks a binary variable tells which.
targets = np.linspace(lowest, highest, 16)


def frontier(model, row):
    risks = []
    for target in targets:
        row.RHS = target
        model.optimize()
        risks.append(np.sqrt(model.Objective) if model.Status == "OPTIMAL" else np.nan)
    return np.array(risks)


risks = frontier(m, least)
few, few_x, few_least = copy.deepcopy((m, x, least))
held = few.addMVar(len(names), vtype="B", name="held")
few.addConstr(few_x <= 0.4 * held)
few.addConstr(held.sum() <= 3)
few_risks = frontier(few, few_least)

print(f"{len(weekly)} weeks, {weekly.index[0]} to {weekly.index[-1]}; at most 40 % in one stock\n")
for row in zip(targets[::3], risks[::3], few_risks[::3], strict=True):
    print("return {:.2%}: risk {:.2%}, with three stocks {:.2%}".format(*row))

# All sets of three stocks, one by one, have no less risk than the binary variables found.
least.RHS = targets[5]
variances = []
for chosen in itertools.combinations(range(len(names)), 3):
    x.UB = np.where(np.isin(np.arange(len(names)), chosen), 0.4, 0.0)
    m.optimize()
    variances.append(m.Objective if m.Status == "OPTIMAL" else np.inf)
assert abs(np.sqrt(min(variances)) - few_risks[5]) < 1e-4
assert np.all(few_risks >= risks - 1e-6)

if find_spec("matplotlib"):
    import matplotlib.pyplot as plt

    figure, axis = plt.subplots(figsize=(7, 4.5), layout="constrained")
    axis.plot(risks, targets, "-o", markersize=3, label="efficient frontier")
    axis.plot(few_risks, targets, "-o", markersize=3, label="with three stocks at most")
    alone = np.sqrt(np.diag(sigma))
    axis.scatter(alone, mu, color="tab:red", zorder=3, label="one stock alone")
    for name, *at in zip(names, alone, mu, strict=True):
        axis.annotate(name, at, xytext=(5, 4), textcoords="offset points")
    axis.set(xlabel="risk (standard deviation a year)", ylabel="expected return a year")
    axis.legend(loc="lower right")
    plt.show()
