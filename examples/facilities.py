"""Which warehouses to open: a facility model with indicator constraints over arrays.

An open warehouse ships at least 20 and at most its capacity; a closed one ships nothing. Both
rules are indicators on an array of binaries, so no big number has to be chosen. SCIP (pip install
'taviropy[scip]') solves it.
"""

import numpy as np

import taviropy as tv

rng = np.random.default_rng(7)
sites, customers = 6, 15
place, home = rng.random((sites, 2)), rng.random((customers, 2))
cost = 10 * np.linalg.norm(place[:, None] - home, axis=2)
demand = rng.integers(5, 15, customers)
capacity = rng.integers(50, 90, sites)
fixed = rng.integers(40, 120, sites)

m = tv.Model("facilities")
m.setOption("log", False)
opened = m.addMVar(sites, vtype="B", obj=fixed, name="open")
ship = m.addMVar((sites, customers), obj=cost, name="ship")
m.addConstr(ship.sum(axis=0) == demand, name="demand")
m.addGenConstrIndicator(opened, True, ship.sum(axis=1) <= capacity, name="capacity")
m.addGenConstrIndicator(opened, True, ship.sum(axis=1) >= 20, name="least")
m.addGenConstrIndicator(opened, False, ship.sum(axis=1) <= 0, name="closed")
m.optimize()

print(f"total cost {m.Objective:.2f}")
for i in np.flatnonzero(opened.X > 0.5):
    load = ship[i].X.sum()
    served = np.count_nonzero(ship[i].X > 1e-6)
    print(f"  warehouse {i} ships {load:5.1f} of {capacity[i]} to {served} customers")
