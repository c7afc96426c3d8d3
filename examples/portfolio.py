r"""Portfolio frontier
==================

Mean-variance portfolios of six stocks, with their efficient frontier as a picture:

.. math::

   \min_{x \ge 0} \; x^\top \Sigma x \quad \text{s.t.} \quad \mu^\top x \ge \rho, \quad
   \mathbf 1^\top x = 1 .

Markowitz, Portfolio Selection, Journal of Finance 7, 1952: of all portfolios with an expected
return of at least `target`, the one with the least variance. The weekly prices (2018 and 2019) come
with plotly. Clarabel solves the quadratic programs. The frontier goes to efficient_frontier.png in
the system's folder for temporary files, or to the path given on the command line.
"""

import sys
import tempfile
from pathlib import Path

import matplotlib
import numpy as np
import plotly.data

import taviropy as tv

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402  (after the choice of the backend)

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

# Between them only a right-hand side changes.
risks, returns, shares = [], [], []
for target in np.linspace(lowest, highest, 25):
    least.RHS = target
    m.optimize()
    risks.append(np.sqrt(m.Objective))
    returns.append(mu @ x.X)
    shares.append(x.X)

print(f"{len(weekly)} weeks, {weekly.index[0]} to {weekly.index[-1]}; at most 40 % in one stock\n")
print(f"{'return':>7} {'risk':>7} " + " ".join(f"{name:>6}" for name in names))
for gain, risk, share in list(zip(returns, risks, shares, strict=True))[::4]:
    print(f"{gain:7.2%} {risk:7.2%} " + " ".join(f"{abs(part):6.1%}" for part in share))

figure, axis = plt.subplots(figsize=(7, 4.5), layout="constrained")
axis.plot(risks, returns, "-o", markersize=3, label="efficient frontier")
alone = np.sqrt(np.diag(sigma))
axis.scatter(alone, mu, color="tab:red", zorder=3, label="one stock alone")
for name, risk, gain in zip(names, alone, mu, strict=True):
    axis.annotate(name, (risk, gain), xytext=(5, 4), textcoords="offset points")
axis.margins(x=0.1)
axis.set_xlabel("risk (standard deviation a year)")
axis.set_ylabel("expected return a year")
axis.set_title("At most 40 % in one stock")
axis.legend(loc="lower right")
path = sys.argv[1] if len(sys.argv) > 1 else Path(tempfile.gettempdir(), "efficient_frontier.png")
figure.savefig(path, dpi=130)
print(f"\nthe frontier is drawn in {path}")
