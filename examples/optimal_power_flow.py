r"""Optimal power flow
==================

Which generators serve the loads of a grid at least cost, when currents follow physics and lines
have limits. In the linear ("direct current") form

.. math::

   \min_{p, \theta} \; \sum_g a_g p_g^2 + b_g p_g \quad \text{s.t.} \quad G p - d = B \theta, \quad
   |f| \le \bar f, \quad f_{ij} = (\theta_i - \theta_j) / x_{ij},

with injections :math:`p` and angles :math:`\theta`. The dual value of a bus's row is its price;
where a line is full, prices differ. The grid is the nine-bus one of Chow (1982) with the data of
Zimmerman, Murillo-Sanchez and Thomas, IEEE Transactions on Power Systems 26, 2011; its optimum is
5216.03 dollars an hour.
"""

from importlib.util import find_spec

import numpy as np
import scipy.sparse as sp

import taviropy as tv

# Branches: from, to, reactance per unit of 100 MVA, limit in MW.
branches = np.array(
    [[1, 4, 0.0576, 250], [4, 5, 0.092, 250], [5, 6, 0.17, 150], [3, 6, 0.0586, 300],
     [6, 7, 0.1008, 150], [7, 8, 0.072, 250], [8, 2, 0.0625, 250], [8, 9, 0.161, 250],
     [9, 4, 0.085, 250]]
)  # fmt: skip
(start, end), limit = branches[:, :2].astype(int).T - 1, branches[:, 3]
load = np.array([0.0, 0, 0, 0, 90, 0, 100, 0, 125])
least, most = np.array([10.0, 10.0, 10.0]), np.array([250.0, 300.0, 270.0])
square, linear = np.array([0.11, 0.085, 0.1225]), np.array([5.0, 1.2, 1.0])
fixed = 150.0 + 600.0 + 335.0

ones, lines = np.ones(9), np.arange(9)
incidence = sp.csr_array((ones, (lines, start))) - sp.csr_array((ones, (lines, end)), shape=(9, 9))
flow_of = sp.diags_array(100.0 / branches[:, 2]) @ incidence

m = tv.Model("grid")
m.setOption("log", False)
p = m.addMVar(3, lb=least, ub=most, name="p")  # at the buses 1, 2 and 3
angle = m.addMVar(9, lb=-np.inf, name="angle")
m.addConstr(angle[0] == 0)
injected = sp.eye_array(9, 3, format="csr") @ p
balance = m.addConstr(injected - (incidence.T @ flow_of).tocsr() @ angle == load, name="balance")
upper = m.addConstr(flow_of @ angle <= limit, name="upper")
lower = m.addConstr(flow_of @ angle >= -limit, name="lower")
m.setObjective(p @ sp.diags_array(square) @ p + linear @ p + fixed)
m.optimize()
print(f"{m.Status}: {m.Objective:.2f} $/h, generation {p.X.round(2)} MW")
assert abs(m.Objective - 5216.03) < 0.01  # as published

upper[7].RHS, lower[7].RHS = 40.0, -40.0  # the line from bus 8 to bus 9
m.optimize()
flow = flow_of @ angle.X
print(f"with 40 MW on one line: {m.Objective:.2f} $/h, prices {balance.Dual.round(2)}")
assert m.check(1e-4) and abs(flow[7]) <= 40.0 + 1e-4 and np.ptp(balance.Dual) > 1.0

if find_spec("matplotlib"):
    import matplotlib.pyplot as plt

    at = np.array([[0, 1], [4, 3], [4, -1], [1, 1], [2, 0], [3, -0.3], [3.6, 1], [3, 2.3], [2, 2]])
    figure, axis = plt.subplots(figsize=(7, 5))
    for k in lines:
        axis.plot(
            *at[[start[k], end[k]]].T,
            color="C3" if k == 7 else "0.6",
            lw=1 + abs(flow[k]) / 20,
            zorder=0,
        )
        axis.annotate(f"{abs(flow[k]):.0f} MW", at[[start[k], end[k]]].mean(axis=0), fontsize=8)
    dots = axis.scatter(*at.T, c=balance.Dual, s=400, cmap="coolwarm", edgecolors="k")
    for bus, place in enumerate(at):
        axis.annotate(str(bus + 1), place, ha="center", va="center")
    figure.colorbar(dots, label="price, $/MWh")
    axis.set_axis_off()
    plt.show()
