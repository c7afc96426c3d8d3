r"""Support vector machine
======================

Which of two kinds of wine is in the bottle: a plane between two clouds of points, with as wide a
margin as possible, and a price :math:`C` for points on the wrong side:

.. math::

   \min_{w, b, \xi} \; \tfrac12 w^\top w + C \sum_i \xi_i \quad \text{s.t.} \quad
   y_i (x_i^\top w + b) \ge 1 - \xi_i, \quad \xi \ge 0 .

Cortes and Vapnik, Support-vector networks, Machine Learning 20, 1995. The wines are those of Forina
et al. that come with scikit-learn, whose own machine is the check. Points whose constraint has a
dual value are the support vectors.
"""

from importlib.util import find_spec

import numpy as np
from sklearn.datasets import load_wine
from sklearn.svm import SVC

import taviropy as tv

wine = load_wine()
kept = wine.target != 2
X = wine.data[kept][:, [0, 6]]  # alcohol and flavanoids
X = (X - X.mean(axis=0)) / X.std(axis=0)
y = np.where(wine.target[kept] == 0, 1.0, -1.0)
C = 1.0

m = tv.Model("margin")
m.setOption("log", False)
w = m.addMVar(2, lb=-np.inf, name="w")
b = m.addMVar(1, lb=-np.inf, name="b")
xi = m.addMVar(len(y), name="xi")
side = m.addConstr((y[:, np.newaxis] * X) @ w + y * b + xi >= 1, name="side")
m.setObjective(0.5 * (w @ w) + C * xi.sum())
m.optimize()

right = (X @ w.X + b.X) * y > 0
support = side.Dual > 1e-5
print(f"{m.Status}: {right.mean():.1%} on the right side, {support.sum()} support vectors")

other = SVC(kernel="linear", C=C, tol=1e-8).fit(X, y)
assert np.allclose(w.X, other.coef_[0], atol=1e-3) and np.allclose(b.X, other.intercept_, atol=1e-3)
assert np.allclose(w.X, (side.Dual * y) @ X, atol=1e-4)  # the plane is made of support vectors
print("the same plane as scikit-learn's")

if find_spec("matplotlib"):
    import matplotlib.pyplot as plt

    figure, axis = plt.subplots(figsize=(6, 5))
    for sign, colour, name in ((1, "C0", wine.target_names[0]), (-1, "C1", wine.target_names[1])):
        axis.plot(*X[y == sign].T, "o", color=colour, markersize=4, label=name)
    axis.plot(
        *X[support].T, "o", color="k", fillstyle="none", markersize=9, label="support vectors"
    )
    along = np.array([X[:, 0].min(), X[:, 0].max()])
    for level, style in ((0, "-"), (1, ":"), (-1, ":")):
        axis.plot(along, (level - b.X - w.X[0] * along) / w.X[1], "k" + style, linewidth=1)
    axis.set_ylim(X[:, 1].min() - 0.3, X[:, 1].max() + 0.3)
    axis.set_xlabel("alcohol, in standard deviations")
    axis.set_ylabel("flavanoids, in standard deviations")
    axis.legend()
    plt.show()
