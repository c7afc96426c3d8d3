r"""Sudoku
======

An array of 9 x 9 x 9 binary variables, row, column and digit, each sum of which is one:

.. math::

   \sum_k x_{ijk} = \sum_j x_{ijk} = \sum_i x_{ijk} = \sum_{(i,j) \in S} x_{ijk} = 1 .

The grid was made by Arto Inkala in 2012, and went through the newspapers as the hardest of all.
"""

from importlib.util import find_spec

import numpy as np

import taviropy as tv

GRID = """
8 . . . . . . . .
. . 3 6 . . . . .
. 7 . . 9 . 2 . .
. 5 . . . 7 . . .
. . . . 4 5 7 . .
. . . 1 . . . 3 .
. . 1 . . . . 6 8
. . 8 5 . . . 1 .
. 9 . . . . 4 . .
"""
given = np.array([0 if c == "." else int(c) for c in GRID.split()]).reshape(9, 9)

m = tv.Model("sudoku")
m.setOption("log", False)
x = m.addMVar((9, 9, 9), vtype="B", name="x")
m.addConstr(x.sum(axis=2) == 1, name="cell")  # one digit in each cell
m.addConstr(x.sum(axis=1) == 1, name="row")  # each digit once in each row
m.addConstr(x.sum(axis=0) == 1, name="column")
for i in range(0, 9, 3):
    for j in range(0, 9, 3):
        m.addConstr(x[i : i + 3, j : j + 3].sum(axis=(0, 1)) == 1, name=f"square{i}{j}")
row, column = np.nonzero(given)
m.addConstr(x[row, column, given[row, column] - 1] == 1, name="given")
m.optimize()

solution = x.X.argmax(axis=2) + 1
for line in solution:
    print(*line)

assert m.Status == "OPTIMAL" and np.array_equal(solution[given > 0], given[given > 0])
squares = solution.reshape(3, 3, 3, 3).swapaxes(1, 2).reshape(9, 9)
for group in (*solution, *solution.T, *squares):
    assert sorted(group) == list(range(1, 10))

# There is one solution alone: without it the model is infeasible.
m.addConstr((x * x.X.round()).sum() <= 80, name="another")
m.optimize()
assert m.Status == "INFEASIBLE"
print("\nand no other")

if find_spec("matplotlib"):
    import matplotlib.pyplot as plt

    figure, axis = plt.subplots(figsize=(4, 4))
    for (i, j), digit in np.ndenumerate(solution):
        axis.text(j, -i, digit, ha="center", va="center", color="k" if given[i, j] else "C0")
    for k in range(10):
        axis.plot([-0.5, 8.5], [0.5 - k] * 2, "k", linewidth=2 if k % 3 == 0 else 0.5)
        axis.plot([k - 0.5] * 2, [0.5, -8.5], "k", linewidth=2 if k % 3 == 0 else 0.5)
    axis.set_aspect("equal")
    axis.set_axis_off()
    plt.show()
