"""Which warehouses to open: a facility model with indicator constraints over arrays.

An open warehouse ships at least 20 and at most its capacity, a closed one ships nothing. Each rule
is one indicator constraint for all warehouses, so no big number has to be chosen. SCIP (pip install
'taviropy[scip]') solves it.
"""

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
