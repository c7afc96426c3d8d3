r"""Design of a spring
==================

The lightest tension/compression spring: a nonlinear problem with a published optimum,

.. math::

   \min_{d, D, N} \; (N + 2) D d^2 \quad \text{s.t.} \quad 1 - \frac{D^3 N}{71785 \, d^4} \le 0,
   \quad 1 - \frac{140.45 \, d}{D^2 N} \le 0, \quad d + D \le 1.5, \quad \ldots

A wire of diameter d is wound to N active coils of diameter D (inches). The weight (N + 2) D d^2 is
least under limits on deflection, shear stress, surge frequency and outer diameter. The problem is
of Belegundu (1982) and Arora, Introduction to Optimum Design (1989); the optimum 0.012665233 is
given by Zhang, Luo and Wang, Information Sciences 178 (2008). SCIP (pip install 'taviropy[scip]')
solves it globally.
"""

from importlib.util import find_spec

import numpy as np

import taviropy as tv

PUBLISHED = {"d": 0.051689, "D": 0.356718, "N": 11.288966, "weight": 0.012665233}

m = tv.Model("spring")
m.setOption("log", False)
m.setOption("gap", 1e-3)  # the proof takes the time: the best design is found at once
m.setOption("numerics/feastol", 1e-8)  # SCIP's own name: its 1e-6 is coarse beside the weight

d = m.addVar(lb=0.05, ub=2.0, name="d")
D = m.addVar(lb=0.25, ub=1.3, name="D")
N = m.addVar(lb=2.0, ub=15.0, name="N")
weight = m.addVar(name="weight")

# Each limit is the upper bound of a variable that a nonlinear constraint defines.
deflection = m.addVar(lb=-1000.0, ub=0.0, name="deflection")
shear = m.addVar(lb=-1000.0, ub=1.0, name="shear")
surge = m.addVar(lb=-1000.0, ub=0.0, name="surge")
m.addConstr(weight == (N + 2) * D * d**2)
m.addConstr(deflection == 1 - D**3 * N / (71785 * d**4))
m.addConstr(shear == (4 * D**2 - d * D) / (12566 * (D * d**3 - d**4)) + 1 / (5108 * d**2))
m.addConstr(surge == 1 - 140.45 * d / (D**2 * N))
m.addConstr(d + D <= 1.5)
m.setObjective(weight)
m.optimize()

print(f"{'':>10} {'found':>12} {'published':>12}")
for variable in (d, D, N, weight):
    print(f"{variable.VarName:>10} {variable.X:12.9f} {PUBLISHED[variable.VarName]:>12}")
print(f"\n{'limit':>10} {'value':>12} {'at most':>12}")
for limit in (deflection, shear, surge):
    print(f"{limit.VarName:>10} {limit.X:12.6f} {limit.UB:12.6f}")
print(f"{'diameter':>10} {d.X + D.X:12.6f} {1.5:12.6f}")
print(f"\n{m.Status} in {m.SolveTime:.1f} s; no design weighs less than {m.Bound:.6f}")
assert abs(m.Objective / PUBLISHED["weight"] - 1) <= 1e-4, "not the published weight"

if find_spec("matplotlib"):
    import matplotlib.pyplot as plt

    turns = np.linspace(0, 2 * np.pi * N.X, 2000)
    figure = plt.figure(figsize=(4, 6))
    axis = figure.add_subplot(projection="3d")
    axis.plot(D.X / 2 * np.cos(turns), D.X / 2 * np.sin(turns), turns * 0.02, linewidth=3)
    axis.set_box_aspect((1, 1, 2))
    axis.set_title(f"{N.X:.1f} coils, {D.X:.3f} inches wide")
    plt.show()
