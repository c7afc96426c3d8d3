"""Small random models as plain arrays, and what their answers must be, found out independently.

Whether there is a point, and a ray along which the objective never ends, is read from programs that
always have an optimum: least violation, steepest ray in a box. Solvers make no mistakes there.

    python tests/answers.py KIND ENGINE COUNT SEED

compares that many models of a kind (lp, mip, qp, miqp) and prints what differs.
"""

import itertools
import sys
from dataclasses import dataclass, field, replace

import numpy as np
from scipy.optimize import Bounds, LinearConstraint, linprog, milp

import taviropy as tv
from taviropy import TVO

OPTIMAL, INFEASIBLE, UNBOUNDED = (
    TVO.Status.OPTIMAL,
    TVO.Status.INFEASIBLE,
    TVO.Status.UNBOUNDED,
)
TOLERANCE = 1e-5
_LARGE = 1e4  # no vertex of these models comes near it


@dataclass
class Plain:
    """Optimize ``x @ Q @ x + c @ x + offset``; rows are `pairs` of columns and coefficients, which
    may name a column twice, with a sense and a right-hand side each."""

    sense: int
    c: np.ndarray
    lower: np.ndarray
    upper: np.ndarray
    types: str
    pairs: list
    senses: str
    rhs: np.ndarray
    offset: float = 0.0
    Q: np.ndarray | None = None
    matrix: np.ndarray = field(init=False)

    def __post_init__(self):
        self.matrix = np.zeros((len(self.pairs), len(self.c)))
        for row, (columns, coefficients) in zip(self.matrix, self.pairs, strict=True):
            np.add.at(row, columns, coefficients)

    @property
    def sides(self):
        """Lower and upper sides of the rows."""
        senses = np.array(list(self.senses), dtype="U1")
        return (
            np.where(senses == "<", -np.inf, self.rhs),
            np.where(senses == ">", np.inf, self.rhs),
        )

    @property
    def integers(self):
        """Which variables are integer."""
        return np.array([kind != "C" for kind in self.types], bool)

    @property
    def bounds(self):
        """The bounds that hold: cut for binaries, rounded inwards for integers."""
        binary = np.array([kind == "B" for kind in self.types], bool)
        lower = np.where(binary, np.maximum(self.lower, 0.0), self.lower)
        upper = np.where(binary, np.minimum(self.upper, 1.0), self.upper)
        whole = self.integers
        return np.where(whole, np.ceil(lower), lower), np.where(whole, np.floor(upper), upper)

    def value(self, x):
        """The objective at a point."""
        return self.c @ x + self.offset + (0.0 if self.Q is None else x @ self.Q @ x)

    def violation(self, x):
        """By how much a point misses what it must hold, at most."""
        activity, (low, high), (lower, upper) = self.matrix @ x, self.sides, self.bounds
        whole = x[self.integers]
        parts = low - activity, activity - high, lower - x, x - upper, abs(whole - np.round(whole))
        return max(float(np.max(part, initial=0.0)) for part in parts)


# Drawing


def draw(kind, rng):
    """A model of a kind."""
    n, m = int(rng.integers(0 if kind in ("lp", "mip") else 1, 6)), int(rng.integers(0, 5))
    if kind == "miqp":
        n = min(n, 4)
    types = "".join(rng.choice(list("CIB"), n, p=[0.4, 0.4, 0.2])) if kind[0] == "m" else "C" * n
    if kind == "miqp" and "C" in types:  # the enumeration takes but one, the first
        types = "C" + types.replace("C", "I")[1:]
    pairs = []
    for _ in range(m):
        count = int(rng.integers(0, n + 2)) if n else 0
        columns = rng.integers(0, n, count) if n else np.empty(0, int)
        pairs.append((columns, _coefficients(rng, count)))
    lower, upper = _bounds(kind, rng, n)
    model = Plain(
        sense=int(rng.choice([TVO.MINIMIZE, TVO.MAXIMIZE])),
        c=np.where(rng.random(n) < 0.2, 0.0, _coefficients(rng, n)),
        lower=lower,
        upper=upper,
        types=types,
        pairs=pairs,
        senses="".join(rng.choice(list("<>="), m, p=[0.4, 0.4, 0.2])),
        rhs=_coefficients(rng, m) * 2.0,
        offset=float(rng.choice([0.0, 3.5])),
    )
    if kind[-2:] == "qp":
        model.Q = _quadratic(kind, rng, n, model.sense)
    return model


def changed(model, kind, rng):
    """The same model with other costs, bounds and right-hand sides."""
    lower, upper = _bounds(kind, rng, len(model.c))
    c, rhs = _coefficients(rng, len(model.c)), _coefficients(rng, len(model.rhs))
    return replace(model, c=c, rhs=rhs, lower=lower, upper=upper)


def _coefficients(rng, count):
    return rng.integers(-6, 7, count) / float(rng.choice([1, 1, 2]))


def _bounds(kind, rng, n):
    lower, width = rng.integers(-24, 9, n) / 4.0, rng.integers(-1, 24, n) / 2.0
    if kind == "miqp":
        return lower, lower + np.minimum(width, 5.0)
    is_free = rng.random((2, n)) < (0.3 if kind in ("lp", "qp") else 0.15)
    return np.where(is_free[0], -np.inf, lower), np.where(is_free[1], np.inf, lower + width)


def _quadratic(kind, rng, n, sense):
    if kind == "miqp":
        return rng.integers(-4, 5, (n, n)).astype(float)
    factor = rng.integers(-3, 4, (int(rng.integers(1, n + 1)), n)) / float(rng.choice([1, 2, 32]))
    return sense * (factor.T @ factor)


# What the answer must be


def verdict(model):
    """(status, objective); the objective is None where there is no optimum, or it isn't known."""
    lower, upper = model.bounds
    if (lower > upper).any() or not _has_point(model, lower, upper):
        return INFEASIBLE, None
    if model.Q is not None and model.integers.any():
        return OPTIMAL, _best_by_enumeration(model, lower, upper)
    if _has_ray(model, lower, upper):
        return UNBOUNDED, None
    if model.Q is not None:
        return OPTIMAL, None
    if not len(model.c):
        return OPTIMAL, model.offset
    found = milp(
        model.sense * model.c,
        integrality=model.integers,
        bounds=Bounds(np.maximum(lower, -_LARGE), np.minimum(upper, _LARGE)),
        constraints=_linear(model.matrix, *model.sides),
    )
    assert found.status == 0, found.message
    return OPTIMAL, model.value(found.x)


def _linear(matrix, low, high):
    return [LinearConstraint(matrix, low, high)] if matrix.size else []


def _has_point(model, lower, upper):
    """Whether the least sum of violations of the rows is zero."""
    (low, high), (rows, n) = model.sides, model.matrix.shape
    if not rows:
        return True
    if not n:
        return bool(((low <= 0.0) & (high >= 0.0)).all())
    slack = np.eye(rows)
    found = milp(
        np.append(np.zeros(n), np.ones(2 * rows)),
        integrality=np.append(model.integers, np.zeros(2 * rows)),
        bounds=Bounds(
            np.append(np.maximum(lower, -_LARGE), np.zeros(2 * rows)),
            np.append(np.minimum(upper, _LARGE), np.full(2 * rows, np.inf)),
        ),
        constraints=_linear(np.hstack([model.matrix, slack, -slack]), low, high),
    )
    assert found.status == 0, found.message
    return found.fun < TOLERANCE


def _has_ray(model, lower, upper):
    """Whether the objective of a convex model never ends from any point; data are rational, so
    that integers stay whole along some multiple of the ray."""
    n = len(model.c)
    if not n:
        return False
    low, high = model.sides
    flat = np.zeros((0, n)) if model.Q is None else model.Q + model.Q.T
    matrix = np.vstack([model.matrix, flat])
    zeros = np.zeros(len(flat))
    cone = [np.where(np.isfinite(side), 0.0, side) for side in (low, high)]
    found = milp(
        model.sense * model.c,
        bounds=Bounds(np.where(np.isfinite(lower), 0.0, -1.0), np.where(np.isfinite(upper), 0, 1)),
        constraints=_linear(matrix, np.append(cone[0], zeros), np.append(cone[1], zeros)),
    )
    assert found.status == 0, found.message
    return found.fun < -TOLERANCE


def _best_by_enumeration(model, lower, upper):
    """The best value over all whole points; a variable that is continuous comes first and gets its
    best place along each."""
    ranges = [
        range(int(low), int(high) + 1) if whole else (0,)
        for low, high, whole in zip(lower, upper, model.integers, strict=True)
    ]
    best = np.inf
    for point in itertools.product(*ranges):
        x = np.array(point, float)
        for candidate in [x] if model.integers[0] else _along_first(model, x, lower[0], upper[0]):
            if model.violation(candidate) < 1e-9:
                best = min(best, model.sense * model.value(candidate))
    return model.sense * best


def _along_first(model, x, low, high):
    activity, column = model.matrix @ x, model.matrix[:, 0]
    for rest, slope, below, above in zip(activity, column, *model.sides, strict=True):
        ends = sorted([(below - rest) / slope, (above - rest) / slope]) if slope else (low, high)
        low, high = max(low, ends[0]), min(high, ends[1])
    places = [low, high]
    curvature, slope = model.Q[0, 0], model.c[0] + (model.Q[0] + model.Q[:, 0]) @ x
    if curvature:
        places.append(np.clip(-slope / (2.0 * curvature), low, high))
    return [np.append(place, x[1:]) for place in places]


def _promise(model, x):
    """By how much a convex objective can be better than at a feasible point, within a box round
    it: what its gradient promises."""
    gradient = model.sense * (model.c + (model.Q + model.Q.T) @ x)
    (low, high), (lower, upper) = model.sides, model.bounds
    reach, activity = 1.0 + abs(x), model.matrix @ x
    above, below = np.isfinite(high), np.isfinite(low)
    matrix = np.vstack([model.matrix[above], -model.matrix[below]])
    room = np.maximum(np.append((high - activity)[above], (activity - low)[below]), 0.0)
    ends = np.minimum(lower - x, 0.0), np.maximum(upper - x, 0.0)
    box = np.transpose([np.maximum(ends[0], -reach), np.minimum(ends[1], reach)])
    found = linprog(gradient, A_ub=matrix, b_ub=room, bounds=box)
    assert found.status == 0, found.message
    return -found.fun


# Comparing


def build(model, m):
    """The model as a tv.Model: the rows are returned."""
    n = len(model.c)
    x = m.addMVar(n, lb=model.lower, ub=model.upper, vtype=list(model.types), name="x")
    rows = []
    for (columns, coefficients), sense, rhs in zip(
        model.pairs, model.senses, model.rhs, strict=True
    ):
        expr = coefficients @ x[columns] if len(columns) else tv.LinExpr()
        rows.append(m.addConstr({"<": expr <= rhs, ">": expr >= rhs, "=": expr == rhs}[sense]))
    set_objective(model, m, x)
    return x, rows


def set_objective(model, m, x):
    """The model's objective."""
    expr = (model.c @ x if len(model.c) else tv.LinExpr()) + model.offset
    if model.Q is not None:
        expr = expr + x @ model.Q @ x
    m.setObjective(expr, model.sense)


def differences(model, m, x):
    """What is wrong with the answer that a tv.Model has; empty where nothing is."""
    status, objective = verdict(model)
    if m.Status != status:
        return f"{m.Engine}: status {m.Status!r}, right is {status!r}"
    if status != OPTIMAL:
        return ""
    point = np.array(x.X, float)
    scale = 1.0 + abs(model.value(point))
    wrong = []
    if abs(m.Objective - model.value(point)) > 1e-9 * scale:
        wrong.append(f"objective {m.Objective}, at X it is {model.value(point)}")
    if model.violation(point) > TOLERANCE:
        wrong.append(f"X = {point} misses by {model.violation(point)}")
    if objective is not None and abs(m.Objective - objective) > TOLERANCE * scale:
        wrong.append(f"objective {m.Objective}, right is {objective}")
    if model.Q is not None and not model.integers.any():
        promise = _promise(model, point)
        if promise > TOLERANCE * scale:
            wrong.append(f"objective {m.Objective} can be {promise} better")
    return f"{m.Engine}: {'; '.join(wrong)}" if wrong else ""


def compare(kind, engine, count, seed):
    """Yield (model, what differs) of so many random models; each is solved, changed and solved."""
    for k in range(count):
        rng = np.random.default_rng([seed, k])
        model = draw(kind, rng)
        with tv.Model(engine=engine) as m:
            m.setOption("log", False)
            m.setOption("timeLimit", 20.0)
            x, rows = build(model, m)
            for again in (False, True):
                if again:
                    model = changed(model, kind, rng)
                    x.LB, x.UB = model.lower, model.upper
                    for row, rhs in zip(rows, model.rhs, strict=True):
                        row.RHS = rhs
                    set_objective(model, m, x)
                try:
                    m.optimize()
                    text = differences(model, m, x)
                except tv.TaviroError as error:
                    text = f"TaviroError: {error}"
                if text:
                    yield f"{kind} {engine} seed [{seed}, {k}] {again=}: {text}", model


if __name__ == "__main__":
    found = 0
    for text, _ in compare(sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])):
        found += 1
        print(text)
    print(f"{sys.argv[1]} on {sys.argv[2]}: {found} wrong of {2 * int(sys.argv[3])} answers")
