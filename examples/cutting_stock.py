r"""Cutting stock by columns
========================

Rolls of width :math:`W` are cut into ordered widths :math:`w`; patterns :math:`P` are made as
prices :math:`\pi`, the dual values of the orders, ask for them:

.. math::

   \min_{r \ge 0} \; \mathbf 1^\top r \;\; \text{s.t.} \; P r \ge d \qquad\text{and}\qquad
   \max_{p \in \mathbb Z_+} \; \pi^\top p \;\; \text{s.t.} \; w^\top p \le W .

Gilmore and Gomory, A linear programming approach to the cutting-stock problem, Operations Research
9, 1961. Rolls of width 100 are cut into the widths that are ordered. The linear program knows a few
patterns; its dual values price the widths, a knapsack finds the pattern that is worth most, and it
enters as a column, until none is worth more than a roll. Rounding up gives whole rolls.
"""

from importlib.util import find_spec

import numpy as np

import taviropy as tv

WIDTH = 100.0
widths = np.array([45.0, 36.0, 31.0, 14.0])
orders = np.array([97.0, 610.0, 395.0, 211.0])  # of the article

master = tv.Model("rolls")
master.setOption("log", False)
patterns = np.diag(WIDTH // widths)  # at first each width is cut alone
rolls = master.addMVar(len(widths), obj=1.0, name="rolls")
demand = master.addConstr(patterns @ rolls >= orders, name="demand")

knapsack = tv.Model("pattern")
knapsack.setOption("log", False)
pieces = knapsack.addMVar(len(widths), vtype="I", ub=WIDTH // widths, name="pieces")
knapsack.addConstr(widths @ pieces <= WIDTH)

while True:
    master.optimize()
    knapsack.setObjective(demand.Dual @ pieces, "max")
    knapsack.optimize()
    print(f"{master.Objective:9.3f} rolls; the best new pattern is worth {knapsack.Objective:.4f}")
    if knapsack.Objective <= 1 + 1e-9:
        break
    pattern = np.round(pieces.X)
    patterns = np.column_stack([patterns, pattern])
    master.addMVar(1, obj=1.0, name=f"rolls{patterns.shape[1]}", columns=(demand, pattern[:, None]))

bound = master.Objective
used = master.getVars()
used.VType = "I"
master.optimize()
cut = np.round(used.X)

print(f"\n{master.Objective:.0f} rolls; no cutting takes fewer than {np.ceil(bound - 1e-6):.0f}")
for number, pattern in zip(cut[cut > 0], patterns.T[cut > 0], strict=True):
    parts = [f"{int(n)} x {w:g}" for n, w in zip(pattern, widths, strict=True) if n]
    print(f"{int(number):5d} rolls into " + ", ".join(parts))

# The known optimum, and what was promised.
assert abs(bound - 452.25) < 1e-6 and master.Objective == 453
assert np.all(patterns @ cut >= orders) and np.all(widths @ patterns <= WIDTH)

if find_spec("matplotlib"):
    import matplotlib.pyplot as plt

    figure, axis = plt.subplots(figsize=(7, 3))
    used_patterns, number = patterns[:, cut > 0], cut[cut > 0]
    for k, (pattern, count) in enumerate(zip(used_patterns.T, number, strict=True)):
        left = 0.0
        for width, colour, pieces in zip(widths, ("C0", "C1", "C2", "C3"), pattern, strict=True):
            for _ in range(int(pieces)):
                axis.barh(k, width, left=left, color=colour, edgecolor="w")
                left += width
        axis.text(WIDTH + 1, k, f"{count:.0f} rolls", va="center")
    axis.set_xlim(0, 1.2 * WIDTH)
    axis.set(xlabel="width", title="What is white is waste", yticks=[])
    plt.show()
