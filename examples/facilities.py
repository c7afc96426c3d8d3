r"""Facility location
=================

Which warehouses to open: fixed costs against the way to the customers, with rules for those open
and those closed,

.. math::

   \min_{y, x} \; f^\top y + \sum_{ij} c_{ij} x_{ij} \quad \text{s.t.} \quad
   \sum_i x_{ij} = d_j, \quad y_i = 1 \Rightarrow 20 \le \sum_j x_{ij} \le u_i, \quad
   y_i = 0 \Rightarrow \sum_j x_{ij} \le 0 .

An open warehouse ships at least 20 and at most its capacity, a closed one ships nothing. Each rule
is one indicator constraint for all warehouses, so no big number has to be chosen. SCIP (pip install
'taviropy[scip]') solves it.
"""

from importlib.util import find_spec

import numpy as np

import taviropy as tv

rng = np.random.default_rng(7)
sites, customers = 6, 15
site, customer = rng.random((sites, 2)), rng.random((customers, 2))
cost = 10 * np.linalg.norm(site[:, None] - customer, axis=2)  # a unit shipped, by distance
demand = rng.integers(5, 15, customers)
capacity = rng.integers(50, 90, sites)
fixed = rng.integers(40, 120, sites)

m = tv.Model("facilities")
m.setOption("log", False)
is_open = m.addMVar(sites, vtype="B", obj=fixed, name="open")
ship = m.addMVar((sites, customers), obj=cost, name="ship")
load = ship.sum(axis=1)

m.addConstr(ship.sum(axis=0) == demand, name="demand")
m.addGenConstrIndicator(is_open, True, load >= 20, name="worthwhile")
m.addGenConstrIndicator(is_open, True, load <= capacity, name="capacity")
m.addGenConstrIndicator(is_open, False, load <= 0, name="closed")
m.optimize()

opened = np.flatnonzero(is_open.X > 0.5)
rent = fixed[opened].sum()
print(m)
print(f"{m.Status}: {rent} for sites + {m.Objective - rent:.2f} for transport = {m.Objective:.2f}")
for i in opened:
    served = ", ".join(map(str, np.flatnonzero(ship[i].X > 1e-6)))
    print(f"warehouse {i} ships {load[i].getValue():4.1f} of {capacity[i]} to customers {served}")

assert m.Status == "OPTIMAL" and m.check()
assert np.all(load.getValue()[is_open.X > 0.5] <= capacity[is_open.X > 0.5] + 1e-6)

if find_spec("matplotlib"):
    import matplotlib.pyplot as plt

    figure, axis = plt.subplots(figsize=(5, 5))
    for i, j in zip(*np.nonzero(ship.X > 1e-6), strict=True):
        axis.plot(*np.array([site[i], customer[j]]).T, "0.7", linewidth=ship.X[i, j] / 5, zorder=0)
    axis.scatter(*customer.T, s=8 * demand, label="customers")
    axis.plot(*site.T, "s", color="0.6", label="closed")
    axis.plot(*site[opened].T, "s", color="C3", markersize=10, label="open")
    axis.set_axis_off()
    axis.legend(loc="lower right")
    plt.show()
