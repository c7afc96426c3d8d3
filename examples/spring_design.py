"""The lightest tension/compression spring: a nonlinear design problem with a published optimum.

Arora, Introduction to Optimum Design (1989); the best known weight is 0.012665233. The wire's
diameter d, the coil's diameter D and the number of active coils N minimize (N + 2) D d^2 under
limits on deflection, shear stress, surge frequency and outer diameter. SCIP (pip install
'taviropy[scip]') solves it globally.
"""

import taviropy as tv

m = tv.Model("spring")
m.setOption("gap", 1e-5)
m.setOption("timeLimit", 60)
d = m.addVar(lb=0.05, ub=2.0, name="d")
D = m.addVar(lb=0.25, ub=1.3, name="D")
N = m.addVar(lb=2.0, ub=15.0, name="N")
weight = m.addVar(name="weight")

deflection = m.addVar(ub=0.0, lb=-1e3, name="deflection")
shear = m.addVar(ub=1.0, lb=-1e3, name="shear")
surge = m.addVar(ub=0.0, lb=-1e3, name="surge")
m.addGenConstrNL(weight, (N + 2) * D * d**2)
m.addGenConstrNL(deflection, 1 - D**3 * N / (71785 * d**4))
m.addGenConstrNL(shear, (4 * D**2 - d * D) / (12566 * (D * d**3 - d**4)) + 1 / (5108 * d**2))
m.addGenConstrNL(surge, 1 - 140.45 * d / (D**2 * N))
m.addConstr(d + D <= 1.5)
m.setObjective(weight)
m.optimize()

print(f"\nd = {d.X:.6f}, D = {D.X:.6f}, N = {N.X:.4f}")
print(f"weight {m.Objective:.8f}, best known 0.012665233")
