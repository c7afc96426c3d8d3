r"""Production planning
===================

What to make and what to keep in store over a year, on two machines, for a demand that has a season:

.. math::

   \max_{p, s, q} \; \sum_t r^\top q_t - c^\top p_t - h^\top s_t - o^\top z_t \quad \text{s.t.}
   \quad
   s_t = s_{t-1} + p_t - q_t, \quad A p_t \le a + z_t, \quad q_t \le d_t, \quad z_t \le \bar z,

with production :math:`p`, store :math:`s`, sales :math:`q` and overtime :math:`z`, each an array
with a row a month. The dual value of a machine's hours says what another hour would be worth.
"""

from importlib.util import find_spec

import numpy as np

import taviropy as tv

months = np.arange(12)
products = ["chairs", "tables", "shelves"]
demand = np.array([300, 120, 200]) * (
    1 + 0.5 * np.sin(2 * np.pi * (months[:, None] - [6, 8, 3]) / 12)
)
price, cost, keeping = (
    np.array([60.0, 140, 85]),
    np.array([22.0, 60, 30]),
    np.array([1.0, 2.5, 1.2]),
)
hours_a_piece = np.array([[0.5, 1.2, 0.8], [0.4, 1.0, 0.3]])  # on the saw, on the bench
hours, overtime, extra = np.array([420.0, 300.0]), np.array([80.0, 60.0]), np.array([18.0, 15.0])

m = tv.Model("furniture")
m.setOption("log", False)
shape = (len(months), len(products))
made = m.addMVar(shape, obj=-cost, name="made")
kept = m.addMVar(shape, obj=-keeping, name="kept")
sold = m.addMVar(shape, ub=demand, obj=price, name="sold")
late = m.addMVar((len(months), 2), ub=overtime, obj=-extra, name="late")
m.ObjSense = "max"
m.addConstr(kept[0] == made[0] - sold[0], name="store0")
m.addConstr(kept[1:] == kept[:-1] + made[1:] - sold[1:], name="store")
machine = m.addConstr(made @ hours_a_piece.T - late <= hours, name="machine")
m.optimize()

print(f"{m.Status}: a profit of {m.Objective:,.0f} on sales of {(price * sold.X).sum():,.0f}")
print("worth of another hour, by month:")
for name, worth in zip(("saw", "bench"), machine.Dual.T, strict=True):
    print(f"{name:>6} " + " ".join(f"{value:5.1f}" for value in worth))

assert m.Status == "OPTIMAL" and m.check()
# What is sold was made; an hour is worth at most what overtime costs, where some of that is left.
assert np.isclose(made.X.sum(), sold.X.sum() + kept.X[-1].sum())
assert np.all(
    machine.Dual[overtime - 1e-6 > late.X]
    <= np.tile(extra, (12, 1))[overtime - 1e-6 > late.X] + 1e-6
)

if find_spec("matplotlib"):
    import matplotlib.pyplot as plt

    figure, axes = plt.subplots(3, 1, figsize=(7, 7), sharex=True)
    for k, (axis, name) in enumerate(zip(axes, products, strict=True)):
        axis.bar(months + 1, made.X[:, k], color="C0", label="made")
        axis.plot(months + 1, kept.X[:, k], "C2-", label="in store")
        axis.step(months + 1, demand[:, k], "k:", where="mid", label="demand")
        axis.plot(months + 1, sold.X[:, k], "C1.", label="sold")
        axis.set_ylabel(name)
    axes[0].legend(ncols=4, loc="lower center", bbox_to_anchor=(0.5, 1.0))
    axes[-1].set_xlabel("month")
    plt.show()
