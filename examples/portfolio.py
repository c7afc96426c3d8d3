"""A mean-variance portfolio on weekly stock prices, with its efficient frontier as a picture.

Markowitz, Portfolio Selection, Journal of Finance 7, 1952: of all portfolios with an expected
return of at least `target`, the one with the least variance. The prices (six stocks, 2018 and
2019) come with plotly. The frontier goes to efficient_frontier.png, or to the path given on the
command line.
"""

import sys

import matplotlib
import numpy as np
import plotly.data

import taviropy as tv

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402  (after the choice of the backend)

prices = plotly.data.stocks(indexed=False).set_index("date")
weekly = prices.pct_change().dropna()
names = list(weekly.columns)
mu = 52 * weekly.mean().to_numpy()  # yearly
sigma = 52 * weekly.cov().to_numpy()

m = tv.Model("portfolio")
m.setOption("log", False)
x = m.addMVar(len(names), ub=0.4, name="share")
m.addConstr(x.sum() == 1, name="budget")
least = m.addConstr(mu @ x >= -np.inf, name="return")
m.setObjective(x @ sigma @ x)

# The targets change one right-hand side; each solve starts from the last.
m.optimize()
lowest = float(mu @ x.X)
best = float(np.sort(mu)[-2:] @ [0.4, 0.4] + 0.2 * np.sort(mu)[-3])
risks, returns, shares = [], [], []
for target in np.linspace(lowest, best, 25):
    least.RHS = target
    m.optimize()
    risks.append(np.sqrt(m.Objective))
    returns.append(float(mu @ x.X))
    shares.append(x.X)

print(f"{'return':>8} {'risk':>8}  " + " ".join(f"{name:>6}" for name in names))
for k in range(0, 25, 6):
    print(f"{returns[k]:8.2%} {risks[k]:8.2%}  " + " ".join(f"{abs(s):6.1%}" for s in shares[k]))

figure, axis = plt.subplots(figsize=(7, 4.5), layout="constrained")
axis.plot(risks, returns, "-o", markersize=3, label="efficient frontier")
axis.scatter(np.sqrt(np.diag(sigma)), mu, color="tab:red", zorder=3)
for name, risk, gain in zip(names, np.sqrt(np.diag(sigma)), mu, strict=True):
    axis.annotate(name, (risk, gain), xytext=(5, 4), textcoords="offset points")
axis.set_xlabel("risk (standard deviation a year)")
axis.set_ylabel("expected return a year")
axis.set_title("At most 40 % in one stock")
axis.legend(loc="lower right")
path = sys.argv[1] if len(sys.argv) > 1 else "efficient_frontier.png"
figure.savefig(path, dpi=130)
print(f"\nthe frontier is drawn in {path}")
