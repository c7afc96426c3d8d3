"""Whether an answer is right, by arithmetic of its own where that proves it, else by other solvers.

Dual values that are feasible and complementary prove a convex answer. What a model without
quadratic or nonlinear terms can reach, SciPy says, for each choice of the indicators' variables; that it is
infeasible or unbounded, models say that are neither. A variable that may be zero outside its bounds
counts as an indicator that is a choice of its own. For the rest SCIP is called directly.
"""

from dataclasses import dataclass, replace
from itertools import product

import numpy as np
import pyscipopt
from pyscipopt import Model as Scip
from pyscipopt import quicksum
from scipy.optimize import Bounds, LinearConstraint, milp

INF = float("inf")
FEASIBLE = 1e-6  # relative to the side that is missed, where that is above one
SAME = 1e-5  # of objectives, relative likewise
CHOICES = 64  # of indicators' variables that are gone through


@dataclass
class Answer:
    """What a model says after a solve; None for what it doesn't have. Duals are by row."""

    status: str
    objective: float | None = None
    bound: float | None = None
    x: np.ndarray | None = None
    slack: np.ndarray | None = None
    dual: np.ndarray | None = None
    reduced_costs: np.ndarray | None = None
    quadratic_dual: np.ndarray | None = None


def complaint(problem, answer):
    """What is wrong with an answer, empty where it is right."""
    if answer.status == "OPTIMAL":
        if answer.x is None or answer.objective is None:
            return "OPTIMAL without a point or an objective"
        wrong = _wrong_point(problem, answer)
        if wrong:
            return wrong
        if len(problem.rows) and (answer.dual is None) != (answer.reduced_costs is None):
            return "Dual without ReducedCost, or the other way round"
        if answer.reduced_costs is not None:
            wrong = _wrong_duals(problem, answer)
            if wrong or (_is_convex(problem) and not (problem.integer | problem.semi).any()):
                return wrong
    status, best = truth(problem)
    if answer.status != status:
        return f"{answer.status}, right is {status} {best}"
    if best is not None and _differ(answer.objective, best, SAME):
        if _is_curved(problem) and problem.sense * answer.objective < problem.sense * best:
            return ""  # the point was looked at: it is the judge's solver that missed it
        return f"Objective {answer.objective}, right is {best}"
    return ""


def is_tame(problem):
    """Whether a quadratic part that isn't convex is over bounded variables, and thus soon solved."""
    squares = [problem.sense * problem.square]
    for square, _, lower, upper in problem.quadratics:
        squares += [square] * (upper < INF) + [-square] * (lower > -INF)
    wild = ~(np.isfinite(problem.lower) & np.isfinite(problem.upper))
    return all(_is_positive(square) or not square[wild].any() for square in squares)


def _is_curved(problem):
    return bool(problem.square.any() or problem.quadratics or problem.curves)


def _is_positive(square):
    return not square.any() or np.linalg.eigvalsh(square)[0] >= -1e-9


def _is_convex(problem):
    """Whether all is, but for integer variables; a nonlinear objective counts as if it weren't."""
    return (
        not problem.curves
        and _is_positive(problem.sense * problem.square)
        and all(
            (upper == INF or _is_positive(square)) and (lower == -INF or _is_positive(-square))
            for square, _, lower, upper in problem.quadratics
        )
    )


def _differ(first, second, tolerance):
    return not abs(first - second) <= tolerance * max(1.0, abs(first), abs(second))


# The point


def _wrong_point(problem, answer):
    x = answer.x
    is_zero = problem.semi & (abs(x) <= FEASIBLE)
    lower, upper = np.where(is_zero, -INF, problem.lower), np.where(is_zero, INF, problem.upper)
    sides = [(x, lower, upper, "bounds")]
    sides.append((problem.rows @ x, problem.row_lower, problem.row_upper, "rows"))
    for square, row, lower, upper in problem.quadratics:
        sides.append((x @ square @ x + row @ x, lower, upper, "a quadratic row"))
    for column, value, row, lower, upper in problem.indicators:
        if round(x[column]) == value:
            sides.append((row @ x, lower, upper, "an indicator"))
    for values, lower, upper, what in sides:
        size = np.maximum(1.0, np.where(lower > values, abs(lower), abs(upper)))
        missed = np.maximum(lower - values, values - upper)
        if not (missed <= FEASIBLE * 1.01 * size).all():
            return f"X misses {what} by {np.max(missed)}: {x}"
    if not (abs(x - np.round(x))[problem.integer] <= FEASIBLE * 1.01).all():
        return f"X isn't integer: {x}"
    if _differ(answer.objective, problem.objective(x), 1e-9):
        return f"Objective {answer.objective}, at X it is {problem.objective(x)}"
    if answer.bound is None or _differ(answer.bound, answer.objective, SAME):
        return f"Bound {answer.bound} of the objective {answer.objective}"
    return ""


def wrong_slacks(values, sides, slack):
    """What is wrong with slacks against the rows' values and right-hand sides."""
    right = np.asarray(sides) - values
    if slack is None or slack.shape != right.shape:
        return f"slacks {slack}, right are {right}"
    scale = 1e-9 * np.maximum(1.0, abs(np.asarray(sides)))
    return "" if (abs(slack - right) <= scale).all() else f"slacks {slack}, right are {right}"


# Dual values


def _wrong_duals(problem, answer):
    discrete = (problem.integer | problem.semi).any()
    if discrete or problem.indicators or len(problem.rows) and answer.dual is None:
        return "dual values of a model that has none"
    x, sense = answer.x, problem.sense
    pulls = [-problem.gradient(x), answer.reduced_costs]
    triples = [(answer.reduced_costs, x, problem.lower, problem.upper)]
    if len(problem.rows):
        pulls.append(problem.rows.T @ answer.dual)
        triples.append((answer.dual, problem.rows @ x, problem.row_lower, problem.row_upper))
    for k, (square, row, lower, upper) in enumerate(problem.quadratics):
        pulls.append(answer.quadratic_dual[k] * (2.0 * square @ x + row))
        triples.append((answer.quadratic_dual[k], x @ square @ x + row @ x, lower, upper))
    tolerance = (10.0 if problem.quadratics else 1.0) * SAME  # duals of cones are less exact
    if not (abs(sum(pulls)) <= tolerance * (1.0 + sum(map(abs, pulls)))).all():
        return f"stationarity is missed by {sum(pulls)}"
    gap = 0.0
    for dual, values, lower, upper in triples:
        way = np.where(sense * dual > 0, values - lower, upper - values)
        if (abs(dual)[~np.isfinite(way)] > 1e-6 * np.max(abs(dual), initial=1.0)).any():
            return f"dual values {dual} have a wrong sign"
        gap += float(np.sum(abs(dual) * np.where(np.isfinite(way), abs(way), 0.0)))
    scale = max(1.0, abs(answer.objective))
    return f"complementarity is missed by {gap}" if gap > tolerance * scale else ""


# The truth


def truth(problem):
    """The status, and the best objective where there is one."""
    if (problem.lower > problem.upper).any():
        return "INFEASIBLE", None
    if not len(problem.costs):
        sides = [*zip(problem.row_lower, problem.row_upper, strict=True)]
        sides += [each[2:] for each in problem.quadratics]
        holds = all(low <= 0.0 <= high for low, high in sides)
        return ("OPTIMAL", problem.offset) if holds else ("INFEASIBLE", None)
    problem = _with_switches(problem)
    columns = sorted({column for column, *_ in problem.indicators})
    if _is_curved(problem) or 2 ** len(columns) > CHOICES:
        return _truth_by_scip(problem)
    outcomes = [
        _linear_truth(_chosen(problem, columns, v)) for v in product((0, 1), repeat=len(columns))
    ]
    if any(status == "UNBOUNDED" for status, _ in outcomes):
        return "UNBOUNDED", None
    values = [value for status, value in outcomes if status == "OPTIMAL"]
    if not values:
        return "INFEASIBLE", None
    return "OPTIMAL", problem.sense * min(problem.sense * value for value in values)


def _with_switches(problem):
    """The same without semi-continuous variables: a binary one more for each says which it is."""
    semi = np.flatnonzero(problem.semi & ((problem.lower > 0.0) | (problem.upper < 0.0)))
    count, more = len(problem.costs), len(semi)
    zeros, lower, upper = np.zeros(more), problem.lower.copy(), problem.upper.copy()
    lower[semi], upper[semi] = np.minimum(lower[semi], 0.0), np.maximum(upper[semi], 0.0)

    def wider(row):
        return np.append(row, zeros)

    indicators = [(at, on, wider(row), *sides) for at, on, row, *sides in problem.indicators]
    for switch, at in enumerate(semi, count):
        row = np.eye(1, count + more, at)[0]
        indicators += [(switch, 0, row, 0.0, 0.0)]
        indicators += [(switch, 1, row, problem.lower[at], problem.upper[at])]
    return replace(
        problem,
        costs=wider(problem.costs),
        square=np.pad(problem.square, (0, more)),
        lower=wider(lower),
        upper=np.append(upper, zeros + 1.0),
        integer=np.append(problem.integer, zeros == 0.0),
        rows=np.pad(problem.rows, ((0, 0), (0, more))),
        semi=np.zeros(count + more, bool),
        quadratics=[(np.pad(q, (0, more)), wider(row), *s) for q, row, *s in problem.quadratics],
        indicators=indicators,
        curves=[(*curve, wider(row)) for *curve, row in problem.curves],
    )


def _chosen(problem, columns, values):
    """The problem where the indicators' columns have certain values."""
    chosen = dict(zip(columns, values, strict=True))
    on = [each for each in problem.indicators if chosen[each[0]] == each[1]]
    at = np.array(columns, int)
    lower, upper = problem.lower.copy(), problem.upper.copy()
    lower[at] = np.maximum(lower[at], values)
    upper[at] = np.minimum(upper[at], values)
    return replace(
        problem,
        lower=lower,
        upper=upper,
        rows=np.vstack([problem.rows, *(row for _, _, row, _, _ in on)]),
        row_lower=np.append(problem.row_lower, [low for *_, low, _ in on]),
        row_upper=np.append(problem.row_upper, [high for *_, high in on]),
        indicators=[],
    )


def _linear_truth(problem):
    if not _is_feasible(problem):
        return "INFEASIBLE", None
    costs = problem.sense * problem.costs
    if costs.any() and _falls_forever(problem, costs):
        return "UNBOUNDED", None
    found = milp(
        costs,
        integrality=problem.integer.astype(int),
        bounds=Bounds(problem.lower, problem.upper),
        constraints=_constraints(problem.rows, problem.row_lower, problem.row_upper),
        options={"mip_rel_gap": 0.0},
    )
    assert found.status == 0, f"the judge found no answer: {found.message}"
    return "OPTIMAL", problem.sense * found.fun + problem.offset


def _constraints(rows, lower, upper):
    return LinearConstraint(rows, lower, upper) if len(rows) else ()


def _is_feasible(problem):
    """Whether the least violation of the rows, by which all of them may be missed, is none."""
    if (problem.lower > problem.upper).any():
        return False
    if not len(problem.rows):
        return True
    ones = np.ones((len(problem.rows), 1))
    rows = np.vstack([np.hstack([problem.rows, ones]), np.hstack([problem.rows, -ones])])
    open_side = np.full(len(ones), INF)
    found = milp(
        np.append(np.zeros(len(problem.costs)), 1.0),
        integrality=np.append(problem.integer, 0).astype(int),
        bounds=Bounds(np.append(problem.lower, 0.0), np.append(problem.upper, INF)),
        constraints=_constraints(
            rows,
            np.append(problem.row_lower, -open_side),
            np.append(open_side, problem.row_upper),
        ),
    )
    assert found.status == 0, f"the judge found no least violation: {found.message}"
    return found.fun <= 1e-6


def _falls_forever(problem, costs):
    """Whether there is a direction that lowers the costs and leaves no side."""

    def open_to(lower, upper, far):
        return np.where(lower > -INF, 0.0, -far), np.where(upper < INF, 0.0, far)

    found = milp(
        costs,
        bounds=Bounds(*open_to(problem.lower, problem.upper, 1.0)),
        constraints=_constraints(problem.rows, *open_to(problem.row_lower, problem.row_upper, INF)),
    )
    assert found.status == 0, f"the judge found no direction: {found.message}"
    return found.fun < -1e-7


def _truth_by_scip(problem):
    if _is_convex(problem):
        flat = replace(problem, square=0 * problem.square)
        rows, lower, upper = [problem.rows], [problem.row_lower], [problem.row_upper]
        rows.append(problem.square)
        lower.append(np.zeros(len(problem.costs)))
        upper.append(np.zeros(len(problem.costs)))
        for square, row, low, high in problem.quadratics:
            rows += [square, row[None]]
            zeros = np.zeros(len(row))
            lower += [zeros, [low]]
            upper += [zeros, [high]]
        flat.rows, flat.row_lower, flat.row_upper = map(np.concatenate, (rows, lower, upper))
        if not problem.indicators and _falls_forever(flat, problem.sense * problem.costs):
            status, _ = _by_scip(replace(problem, costs=0 * problem.costs, square=flat.square))
            return ("UNBOUNDED" if status == "OPTIMAL" else status), None
    return _by_scip(problem)


def _by_scip(problem):
    scip = Scip()
    scip.hideOutput()
    scip.setParam("limits/time", 20.0)
    count = len(problem.costs)
    x = [
        scip.addVar(vtype="I" if whole else "C", lb=_none(low), ub=_none(high))
        for whole, low, high in zip(problem.integer, problem.lower, problem.upper, strict=True)
    ]

    def value(row, square=None):
        terms = [row[k] * x[k] for k in np.flatnonzero(row)]
        if square is not None:
            terms += [square[i, j] * x[i] * x[j] for i, j in zip(*np.nonzero(square), strict=True)]
        return quicksum(terms) + 0.0

    def add(expr, lower, upper, adder):
        if upper < INF:
            adder(expr <= upper)
        if lower > -INF:
            adder(expr >= lower)

    goal = scip.addVar(lb=None, ub=None)
    costs, square = problem.sense * problem.costs, problem.sense * problem.square
    curves = [
        problem.sense * by * getattr(pyscipopt, name, lambda argument: argument)(value(row) + at)
        for name, by, at, row in problem.curves
    ]
    scip.addCons(value(costs, square) + quicksum(curves) - goal <= 0.0)
    scip.setObjective(goal)
    for row, lower, upper in zip(problem.rows, problem.row_lower, problem.row_upper, strict=True):
        if row.any():
            add(value(row), lower, upper, scip.addCons)
        elif not lower <= 1e-9 or not upper >= -1e-9:
            return "INFEASIBLE", None
    for square, row, lower, upper in problem.quadratics:
        if row.any() or square.any():
            add(value(row, square), lower, upper, scip.addCons)
        elif not lower <= 1e-9 or not upper >= -1e-9:
            return "INFEASIBLE", None
    for column, on, row, lower, upper in problem.indicators:
        lever = scip.addVar(lb=0.0, ub=0.0) if not row.any() else 0.0

        def when(comparison, column=column, on=on):
            scip.addConsIndicator(comparison, x[column], activeone=bool(on))

        if upper < INF:
            when(value(row) + lever <= upper)
        if lower > -INF:
            when(-value(row) - lever <= -lower)
    scip.optimize()
    status = {"optimal": "OPTIMAL", "infeasible": "INFEASIBLE", "unbounded": "UNBOUNDED"}.get(
        scip.getStatus(), scip.getStatus()
    )
    if status == "inforunbd":  # a feasible one is unbounded
        status, _ = _by_scip(replace(problem, costs=0.0 * costs, square=0.0 * square, curves=[]))
        return ("UNBOUNDED" if status == "OPTIMAL" else status), None
    if status != "OPTIMAL":
        return status, None
    point = np.array([scip.getVal(each) for each in x]).reshape(count)
    return status, problem.objective(point)


def _none(bound):
    return float(bound) if np.isfinite(bound) else None
