"""Random models as plain arrays, solved, changed and solved again, before the judge.

    python tests/machine/test_random.py KIND ENGINE COUNT SEED

does that with so many models of a kind (lp, mip, qp, miqp, semi) and prints what is wrong.
"""

import sys

import numpy as np
import pytest
from judge import Answer, complaint
from shadow import Problem, domains, side

import taviropy as tv

INF = np.inf


class Drawn:
    """A random model of a kind. Rows are columns, of which one may come twice, and coefficients."""

    def __init__(self, kind, rng):
        self.kind, self.rng = kind, rng
        n = int(rng.integers(0 if kind in ("lp", "mip") else 1, 5 if kind == "miqp" else 6))
        self.types = rng.choice(list("CIB"), n, p=[0.4, 0.4, 0.2]) if kind[0] == "m" else ["C"] * n
        if kind == "semi":
            self.types = rng.choice(list("SNCIB"), n)
        counts = [int(rng.integers(0, n + 2)) if n else 0 for _ in range(rng.integers(0, 5))]
        self.rows = [(rng.integers(0, max(n, 1), k), self.halves(k)) for k in counts]
        self.senses = rng.choice(list("<>="), len(counts), p=[0.4, 0.4, 0.2])
        self.sense, self.offset = int(rng.choice([1, -1])), float(rng.choice([0.0, 3.5]))
        self.square = np.zeros((n, n))
        if kind == "qp":
            factor = rng.integers(-3, 4, (int(rng.integers(1, n + 1)), n)) / rng.choice([1, 2, 32])
            self.square = self.sense * (factor.T @ factor)
        elif kind == "miqp":
            self.square = rng.integers(-4, 5, (n, n)).astype(float)
        self.change()

    def halves(self, count):
        """Numbers from -6 to 6."""
        return self.rng.integers(-6, 7, count) / float(self.rng.choice([1, 1, 2]))

    def change(self):
        """Other costs, bounds and right-hand sides."""
        rng, n = self.rng, len(self.types)
        self.costs = np.where(rng.random(n) < 0.2, 0.0, self.halves(n))
        self.rhs = self.halves(len(self.rows)) * 2.0
        width = rng.integers(-1, 24, n) / 2.0
        self.lower = rng.integers(-24, 9, n) / 4.0
        self.upper = self.lower + (np.minimum(width, 5.0) if self.kind == "miqp" else width)
        if self.kind != "miqp":
            share = 0.15 if self.kind == "mip" else 0.3
            self.lower[rng.random(n) < share] = -INF
            self.upper[rng.random(n) < share] = INF
        if self.kind == "semi" and rng.random() < 0.6:  # rather some that every engine takes
            self.lower = rng.integers(0, 20, n) / 4.0
            self.upper = self.lower + abs(width) + (rng.random(n) < 0.1) * 1e6

    def problem(self):
        """What the judge needs to know."""
        rows = np.zeros((len(self.rows), len(self.types)))
        for row, (columns, coefficients) in zip(rows, self.rows, strict=True):
            np.add.at(row, columns[: len(coefficients)], coefficients)
        sides = [side(*each) for each in zip(self.rhs, self.senses, strict=True)]
        lower, upper, whole, semi = domains(self.types, self.lower, self.upper)
        return Problem(
            self.sense, self.offset, self.costs, (self.square + self.square.T) / 2,
            lower, upper, whole,
            rows, np.array([low for low, _ in sides]), np.array([high for _, high in sides]), semi,
        )  # fmt: skip

    def build(self, m):
        """The model in `m`: its variables and rows."""
        x = m.addMVar(len(self.types), lb=self.lower, ub=self.upper, vtype=list(self.types))
        rows = []
        for (columns, coefficients), *how in zip(self.rows, self.senses, self.rhs, strict=True):
            left = coefficients @ x[columns] if len(columns) else tv.LinExpr()
            rows.append(m.addConstr(tv.TempConstr(left, *how)))
        return x, rows

    def set_objective(self, m, x):
        """The model's objective."""
        expr = (self.costs @ x if len(self.costs) else tv.LinExpr()) + self.offset
        m.setObjective(expr + x @ self.square @ x if self.square.any() else expr, self.sense)


def answer_of(m):
    """What a solved model says."""

    def read(get):
        try:
            return get()
        except tv.TaviroError:
            return None

    return Answer(
        str(m.Status),
        read(lambda: m.Objective),
        read(lambda: m.Bound),
        read(lambda: m.getVars().X),
        dual=read(lambda: m.getConstrs().Dual),
        reduced_costs=read(lambda: m.getVars().ReducedCost),
    )


def complaints(kind, engine, count, seed):
    """What is wrong with the answers to so many random models."""
    for k in range(count):
        drawn = Drawn(kind, np.random.default_rng([seed, k]))
        with tv.Model(engine=engine) as m:
            m.setOption("log", False)
            m.setOption("timeLimit", 20.0)
            m.setOption("gap", 0.0)
            x, rows = drawn.build(m)
            for again in (False, True):
                if again:
                    drawn.change()
                    x.LB, x.UB = drawn.lower, drawn.upper
                    for row, rhs in zip(rows, drawn.rhs, strict=True):
                        row.RHS = rhs
                drawn.set_objective(m, x)
                try:
                    m.optimize()
                    wrong = complaint(drawn.problem(), answer_of(m))
                except tv.TaviroError as error:
                    wrong = f"TaviroError: {error}"
                if wrong:
                    yield f"{kind} {engine} seed [{seed}, {k}] {again=}: {wrong}"


@pytest.mark.parametrize(
    "kind, engine, count",
    [("lp", "highs", 100), ("mip", "highs", 60), ("qp", "clarabel", 60), ("qp", "highs", 60),
     ("lp", "scip", 30), ("mip", "scip", 30), ("miqp", "auto", 30),
     ("semi", "auto", 60), ("semi", "scip", 30)],
)  # fmt: skip
def test_random_models(kind, engine, count):
    wrong = list(complaints(kind, engine, count, seed=10))
    assert not wrong, "\n".join(wrong)


if __name__ == "__main__":
    found = list(complaints(*sys.argv[1:3], *map(int, sys.argv[3:])))
    print(*found, f"{len(found)} wrong of {2 * int(sys.argv[3])} answers", sep="\n")
