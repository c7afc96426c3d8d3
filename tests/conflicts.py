"""Infeasible random models with a planted contradiction, and whether `conflict` names one of theirs.

Whether members can hold together is judged by SciPy's milp from plain arrays.

    python tests/conflicts.py COUNT SEED

looks at that many models and prints what is wrong, and how many members and seconds there were.
"""

import sys
from dataclasses import dataclass
from time import perf_counter

import numpy as np
from scipy.optimize import Bounds, LinearConstraint, milp

import taviropy as tv

OPTIMAL, INFEASIBLE = 0, 2  # as milp has it
FAR = 1000.0  # no search ends among integers without bounds
PLANTS = ("sum", "bounds", "parity", "odd cycle")


@dataclass
class Plain:
    """Rows ``matrix @ x <sense> rhs``, bounds and types of a model."""

    matrix: np.ndarray
    senses: np.ndarray
    rhs: np.ndarray
    lower: np.ndarray
    upper: np.ndarray
    types: np.ndarray

    def model(self):
        """The same as a model."""
        m = tv.Model("planted")
        m.setOption("log", False)
        x = m.addMVar(len(self.types), lb=self.lower, ub=self.upper, vtype=self.types, name="x")
        c = m.addConstr(self.matrix @ x <= self.rhs, name="c")
        m.update()
        c.Sense = self.senses
        return m

    def is_feasible(self, rows, lower, upper):
        """Whether some rows, and the bounds of some columns, can hold together; binary variables
        have theirs anyway."""
        given, far = self.types == "B", np.where(self.types == "I", FAR, np.inf)
        low = np.where(lower | given, self.lower, -far)
        high = np.where(upper | given, self.upper, far)
        rhs, senses = self.rhs[rows], self.senses[rows]
        sides = np.where(senses == "<", -np.inf, rhs), np.where(senses == ">", np.inf, rhs)
        for presolve in (True, False):
            found = milp(
                np.zeros(len(low)),
                integrality=self.types != "C",
                bounds=Bounds(low, high),
                constraints=LinearConstraint(self.matrix[rows], *sides) if rows.any() else (),
                options={"presolve": presolve},
            )
            if found.status in (OPTIMAL, INFEASIBLE):
                return found.status == OPTIMAL
        raise AssertionError(found.message)


def drawn(rng):
    """A model whose rows have a common point, and what a contradiction adds to them."""
    n, k = int(rng.integers(5, 30)), int(rng.integers(5, 40))
    plant = str(rng.choice(PLANTS))
    whole = plant in ("parity", "odd cycle") or rng.random() < 0.4
    types = rng.choice(list("CIB"), n, p=[0.4, 0.4, 0.2]) if whole else np.full(n, "C")
    binary = types == "B"
    lower = np.where(binary, 0.0, rng.integers(-9, 1, n))
    upper = np.where(binary, 1.0, lower + rng.integers(1, 12, n))
    if plant == "odd cycle":
        types[:3], lower[:3], upper[:3] = "B", 0.0, 1.0
    if plant == "parity":
        types[:2], lower[:2], upper[:2] = "I", -9.0, 9.0
    inside = np.where(types == "C", rng.uniform(lower, upper), rng.integers(lower, upper + 1))
    matrix = rng.integers(-5, 6, (k, n)) * (rng.random((k, n)) < 0.4)
    senses = rng.choice(list("<>="), k, p=[0.45, 0.45, 0.1])
    room = np.select([senses == "<", senses == ">"], [1.0, -1.0], 0.0) * rng.integers(0, 4, k)
    rows, more_senses, more_rhs = _planted(plant, rng, n, lower, upper)
    order = rng.permutation(k + len(rows))
    return plant, Plain(
        np.vstack([matrix, rows])[order],
        np.append(senses, more_senses)[order],
        np.append(matrix @ inside + room, more_rhs)[order],
        lower,
        upper,
        types,
    )


def _planted(plant, rng, n, lower, upper):
    """Rows, senses and right-hand sides that can't hold together within the bounds."""
    if plant == "sum":  # so many rows, and one that says the contrary of their sum
        count = int(rng.integers(1, 6))
        rows, rhs = rng.integers(-4, 5, (count, n)), rng.integers(-9, 10, count)
        weights = rng.integers(1, 4, count)
        rows = np.vstack([rows, weights @ rows])
        return rows, ["<"] * count + [">"], np.append(rhs, weights @ rhs + rng.integers(1, 5))
    if plant == "bounds":  # a row beyond what the bounds let it come to
        row = rng.integers(-3, 4, n) * (np.arange(n) < rng.integers(1, 6))
        row[0] = 1
        most = np.where(row > 0, row * upper, row * lower).sum()
        return row[None], [">"], [most + rng.integers(1, 3)]
    row = np.zeros((4, n))
    if plant == "parity":  # even is odd
        row[0, :2] = rng.choice([2, 4, -6], 2)
        return row[:1], ["="], [2 * rng.integers(-3, 4) + 1]
    row[:3, :3] = [[1, 1, 0], [0, 1, 1], [1, 0, 1]]
    row[3, :3] = 1
    return row, ["<", "<", "<", ">"], [1, 1, 1, 1.25]


def fault(plain):
    """What is wrong with the conflict of a model, empty where nothing is; and its size."""
    m = plain.model()
    conflict = m.conflict()
    rows = np.zeros(len(plain.rhs), bool)
    rows[[c._rowno for c in conflict.constrs]] = True
    ends = {which: np.zeros(len(plain.lower), bool) for which in ("LB", "UB")}
    for variable, which in conflict.bounds:
        ends[which][variable._colno] = True
    members = [rows, ends["LB"], ends["UB"]]
    if not conflict.is_minimal:
        return "it isn't said to be minimal", len(conflict)
    if plain.is_feasible(*members):
        return "its members can hold together", len(conflict)
    for mask in members:
        for place in np.flatnonzero(mask):
            mask[place] = False
            if not plain.is_feasible(*members):
                return "a member is idle", len(conflict)
            mask[place] = True
    return "", len(conflict)


def main(count, seed):
    """Look at so many models."""
    faults, sizes, plants = 0, [], dict.fromkeys(PLANTS, 0)
    started = perf_counter()
    for number in range(seed, seed + count):
        plant, plain = drawn(np.random.default_rng(number))
        found, size = fault(plain)
        sizes.append(size)
        plants[plant] += 1
        if found:
            faults += 1
            print(f"model {number} ({plant}): {found}")
    seconds = perf_counter() - started
    kinds = ", ".join(f"{n} {plant}" for plant, n in plants.items())
    print(f"{count} models ({kinds}): {faults} faults; {min(sizes)} to {max(sizes)} members; "
          f"{seconds:.1f} s")  # fmt: skip
    return faults


if __name__ == "__main__":
    sys.exit(bool(main(int(sys.argv[1]), int(sys.argv[2]))))
