r"""Stochastic program with scenarios
=================================

Capacities for an uncertain demand: 200 scenarios, by Benders cuts, all solved by solveAll,

.. math::

   \min_{x \ge 0} \; c^\top x + \frac1S \sum_s \min_{y_s \in Y(x, d_s)} q^\top y_s .

First capacities are built, then the demand shows, and each scenario is served at least cost; what
can't be served is bought dear. The master problem knows the scenarios by cuts alone: at each round
all scenarios are solved with the master's capacities, and each gives one cut. The extensive form,
which holds all scenarios at once, has the same optimum.
"""

from importlib.util import find_spec

import numpy as np

import taviropy as tv

PLANTS, CUSTOMERS, SCENARIOS = 8, 15, 200
rng = np.random.default_rng(11)
plants, customers = rng.uniform(0, 1, (PLANTS, 2)), rng.uniform(0, 1, (CUSTOMERS, 2))
build_cost = rng.uniform(4.0, 6.0, PLANTS)
ship_cost = 10 * np.linalg.norm(plants[:, np.newaxis] - customers, axis=2)
shortage_cost = 40.0
demand = rng.gamma(4.0, 2.5, (SCENARIOS, CUSTOMERS))


def recourse():
    """The second stage; its two blocks of rows wait for their sides."""
    m = tv.Model("recourse")
    ship = m.addMVar((PLANTS, CUSTOMERS), obj=ship_cost, name="ship")
    short = m.addMVar(CUSTOMERS, obj=shortage_cost, name="short")
    capacity = m.addConstr(ship.sum(axis=1) <= 0.0, name="capacity")
    served = m.addConstr(ship.sum(axis=0) + short >= 0.0, name="served")
    return m, capacity, served


def benders(tolerance=1e-7):
    """Optimal capacities, and (lower bound, upper bound) by round."""
    stage, capacity, served = recourse()
    master = tv.Model("master")
    master.setOption("log", False)
    x = master.addMVar(PLANTS, obj=build_cost, name="x")
    theta = master.addMVar(SCENARIOS, obj=1 / SCENARIOS, name="theta")  # cost of each scenario
    bounds = []
    while True:
        master.optimize()
        built = x.X
        results = tv.solveAll(
            stage,
            {"RHS": [(capacity, np.tile(built, (SCENARIOS, 1))), (served, demand)]},
            {"price": (capacity, "Dual")},
        )
        cost = np.array([result.objective for result in results])
        price = np.array([result["price"] for result in results])
        upper = build_cost @ built + cost.mean()
        bounds.append((master.Objective, min(upper, *(old for _, old in bounds), np.inf)))
        if bounds[-1][1] - bounds[-1][0] <= tolerance * bounds[-1][1]:
            return built, bounds
        master.addConstr(theta - price @ x >= cost - price @ built)


def extensive_form():
    """All scenarios in one model."""
    m = tv.Model("extensive form")
    m.setOption("log", False)
    x = m.addMVar(PLANTS, obj=build_cost)
    ship = m.addMVar((SCENARIOS, PLANTS, CUSTOMERS), obj=ship_cost / SCENARIOS)
    short = m.addMVar((SCENARIOS, CUSTOMERS), obj=shortage_cost / SCENARIOS)
    m.addConstr(ship.sum(axis=2) <= x)
    m.addConstr(ship.sum(axis=1) + short >= demand)
    m.optimize()
    return m.Objective


if __name__ == "__main__":
    built, bounds = benders()
    print(f"capacities {built.round(2)}")
    whole = extensive_form()
    print(f"Benders {bounds[-1][1]:.6f}, extensive form {whole:.6f}")
    assert abs(bounds[-1][1] - whole) <= 1e-5 * whole
    if find_spec("matplotlib"):
        import matplotlib.pyplot as plt

        figure, axis = plt.subplots(figsize=(6, 4))
        axis.plot(np.array(bounds), label=["lower bound", "upper bound"])
        axis.set_ylim(bounds[0][0], 1.3 * whole)
        axis.set_xlabel("round")
        axis.set_ylabel("expected cost")
        axis.legend()
        plt.show()
