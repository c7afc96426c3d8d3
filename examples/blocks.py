r"""Blocks
======

Products, masks, slices and assignments of blocks, :math:`A x + b \le c` and what else an array can
stand in, with the rows of the model that come out.
"""

import tempfile
from importlib.util import find_spec
from pathlib import Path

import numpy as np
import scipy.sparse as sp

import taviropy as tv

A = sp.csr_array([[1.0, 2.0, 0.0], [0.0, 3.0, 0.0], [0.0, 0.0, 4.0], [5.0, 0.0, 6.0]])
A2 = np.array([[1.0, 1.0], [0.0, 2.0]])
D = sp.diags_array([1.0, 10.0, 100.0, 1000.0])
b = np.array([1.0, 0.0, 2.0, 3.0])
c = np.array([50.0, 60.0, 700.0, 8000.0])
s = np.array([1.0, 2.0, 4.0, 5.0])
mask = np.array([True, False, True, False])

m = tv.Model("blocks")
m.setOption("log", False)
x = m.addMVar(3, name="x")
y = m.addMVar(2, name="y")

print("Rows picked by a mask: (A @ x)[mask] >= b[mask]")
picked = (A @ x)[mask] >= b[mask]
print(picked)
m.addConstr(picked, name="picked")

print("\nAn expression added into a slice, which is a view: e[1:3] += A2 @ y")
e = A @ x + b
e[1:3] += A2 @ y
print(e)

print("\nA number assigned to chosen elements: e[[0, 2]] = 5.0")
e[[0, 2]] = 5.0
print(e)
m.addConstr(e <= 7.0, name="assigned")

print("\nA chain of products, sparse from the data to the solver: D @ (A @ x + b) / s <= c")
chain = D @ (A @ x + b) / s <= c
print(chain)
m.addConstr(chain, name="chain")

m.setObjective(x.sum() + y[0], sense="max")
m.optimize()
print(f"\noptimum {m.Objective:.6g} at x = {x.X} and y = {y.X}")

print("\nThe model, as an LP file:")
with tempfile.TemporaryDirectory() as folder:
    path = Path(folder, "blocks.lp")
    m.write(path)
    print(path.read_text())

if find_spec("matplotlib"):
    import matplotlib.pyplot as plt

    m.spy(plt.subplots(figsize=(5, 4))[1])
    plt.show()
