"""Products, masks, slices and assignments of expression blocks, with the rows that come out.

Every step prints the expression, element by element, and the end prints the rows of the model.
"""

import numpy as np
import scipy.sparse as sp

import taviropy as tv

m = tv.Model("blocks")
x = m.addMVar(3, name="x")
y = m.addMVar(2, name="y")
m.update()

A = sp.csr_matrix([[1.0, 2.0, 0.0], [0.0, 3.0, 0.0], [0.0, 0.0, 4.0], [5.0, 0.0, 6.0]])
A2 = np.array([[1.0, 1.0], [0.0, 2.0]])
D = sp.diags_array([1.0, 10.0, 100.0, 1000.0])
b = np.array([1.0, 0.0, 2.0, 3.0])
s = np.array([1.0, 2.0, 4.0, 5.0])
mask = np.array([True, False, True, False])

# Rows picked by a mask: a copy, as with arrays of numbers.
print("(A @ x)[mask] >= b[mask] with", (A @ x)[mask])
m.addConstr((A @ x)[mask] >= b[mask], name="picked")

# In place into a slice, which is a view; then numbers into chosen elements.
e = A @ x + b
e[1:3] += A2 @ y
print("\ne[1:3] += A2 @ y gives", e)
e[[0, 2]] = 5.0
print("\ne[[0, 2]] = 5.0 gives", e)
m.addConstr(e <= 7.0, name="assigned")

# A chain of products stays sparse from the data to the solver.
print("\nD @ (A @ x + b) / s is", D @ (A @ x + b) / s)
m.addConstr(D @ (A @ x + b) / s <= 1000 * np.ones(4), name="scaled")

m.setObjective(x.sum() + y.sum(), sense="max")
m.setOption("log", False)
m.optimize()

print("\nThe rows of the model, as (A, sense, right-hand side):")
for constraint in m.getConstrs().tolist():
    print(f"  {constraint.ConstrName}: {m.getRow(constraint)} {constraint.Sense} {constraint.RHS}")
print("\noptimum", m.Objective, "at x =", x.X, "and y =", y.X)
