"""What an engine must do to be right: models with known answers, by class of model.

A new engine in the list is tested without a line here, but for what CLASSES says that it takes.
"""

import itertools
import math
import os
import signal
import threading

import numpy as np
import pytest
import scipy.sparse as sp
from hard import market_split
from inside import engine_of, view_of

import taviropy as tv
from taviropy import TVO, TaviroError
from taviropy.engines import engine_class

Status = TVO.Status
INF = float("inf")

# A smallest model of each class, and which engine takes which: a refusal skips, so that an engine
# that refused all would pass all else.
EXAMPLES = {
    "LP": lambda m, x: m.addConstr(x[0] + x[1] <= 1),
    "MIP": lambda m, x: setattr(x, "VType", "I"),
    "QP": lambda m, x: m.setObjective(x @ x),
    "MIQP": lambda m, x: (m.setObjective(x @ x), setattr(x, "VType", "I")),
    "non-convex QP": lambda m, x: m.setObjective(x[0] * x[1]),
    "QCP": lambda m, x: m.addConstr(x @ x <= 1),
    "non-convex QCP": lambda m, x: m.addConstr(x @ x + x[0] >= 1),
    "NLP": lambda m, x: m.addConstr(x[0] == tv.sin(x[1])),
    "indicator": lambda m, x: m.addGenConstrIndicator(m.addVar(vtype="B"), 1, x[0] <= 0),
}
CLASSES = {
    "highs": {"LP", "MIP", "QP"},
    "clarabel": {"LP", "QP", "QCP"},
    "scip": set(EXAMPLES),
    "ipopt": {"LP", "QP", "non-convex QP", "QCP", "non-convex QCP", "NLP"},
    "milp": {"LP", "MIP"},
}
WITH_DUALS = {"highs", "clarabel", "ipopt"}
LOCAL = {"ipopt"}  # their answers are local ones where a model isn't linear or a convex QP
DEAF = {"milp"}  # their solvers can't be told to stop


def test_an_engine_takes_its_classes_and_says_what_else_is_wrong(engine):
    taken = set()
    for name, change in EXAMPLES.items():
        with tv.Model(engine=engine) as m:
            m.setOption("log", False)
            x = m.addMVar(2, lb=-1, ub=1, name="x")
            m.update()
            change(m, x)
            reason = engine_class(engine).refuses(view_of(m), True)
            if not reason:
                taken.add(name)
                m.optimize()
                is_local = engine in LOCAL and name not in ("LP", "QP")
                assert m.Status == (Status.LOCALLY_OPTIMAL if is_local else Status.OPTIMAL)
                assert m.Engine == engine
                continue
            with pytest.raises(TaviroError) as caught:
                m.optimize()
            assert caught.value.code == TVO.Error.NOT_SUPPORTED and reason in str(caught.value)
    assert taken == CLASSES[engine]


# Linear models


def test_a_linear_model_its_slacks_and_duals(engine, model, solve):
    x = model.addMVar(2, ub=[3, INF], name="x")
    c = model.addConstr(np.array([[1.0, 1.0], [1.0, 3.0]]) @ x <= [4.0, 7.0])
    d = model.addConstr(x[0] - x[1] >= -9)
    model.setObjective(3 * x[0] + 2 * x[1] + 10, "max")
    assert solve(model) == Status.OPTIMAL
    np.testing.assert_allclose(x.X, [3, 1], atol=1e-6)
    np.testing.assert_allclose(c.Slack, [0, 1], atol=1e-6)
    assert d.Slack == pytest.approx(-11, abs=1e-6)
    assert model.Objective == pytest.approx(21) and model.Bound == pytest.approx(21)
    if engine not in WITH_DUALS:
        for read in (lambda: c.Dual, lambda: x.ReducedCost):
            with pytest.raises(TaviroError, match="no dual values"):
                read()
        return
    np.testing.assert_allclose(c.Dual, [2, 0], atol=1e-6)
    np.testing.assert_allclose(x.ReducedCost, [1, 0], atol=1e-6)
    # The same turned round: a dual value says how the objective rises, whichever way it is sought.
    model.setObjective(-3 * x[0] - 2 * x[1], "min")
    solve(model)
    np.testing.assert_allclose(c.Dual, [-2, 0], atol=1e-6)
    np.testing.assert_allclose(x.ReducedCost, [-1, 0], atol=1e-6)


def test_statuses_without_a_solution(model, solve):
    x = model.addMVar(2, obj=-1)
    c = model.addConstr(x[0] - x[1] <= 1)
    assert solve(model) in (Status.UNBOUNDED, Status.INFEASIBLE_OR_UNBOUNDED)
    model.addConstr(x.sum() <= -1)
    assert solve(model) == Status.INFEASIBLE
    for read in (lambda: x.X, lambda: c.Slack, lambda: model.Objective):
        with pytest.raises(TaviroError, match="infeasible|no feasible point") as caught:
            read()
        assert caught.value.code == TVO.Error.NO_SOLUTION


def test_models_without_rows_costs_or_terms(model, solve):
    x = model.addMVar(3, lb=-1, ub=[1, 2, 3], obj=[1, -1, 0])
    model.ObjOffset = 3
    assert solve(model) == Status.OPTIMAL and model.Objective == pytest.approx(0, abs=1e-6)
    np.testing.assert_allclose(x.X[:2], [-1, 2], atol=1e-6)
    model.addConstr(0 * x[:2] <= 1)
    empty = model.addConstr(tv.LinExpr() + 0 >= -1)
    solve(model)
    assert model.Objective == pytest.approx(0, abs=1e-6) and empty.Slack == pytest.approx(-1)
    model.addConstr(tv.LinExpr() + 0 >= 1)
    assert solve(model) == Status.INFEASIBLE


def test_open_sides_and_free_variables(model, solve):
    x = model.addMVar(3, lb=-INF, ub=[5, 5, INF])
    rows = model.addConstr(x <= [INF, 1, 2])
    model.addConstr(x.sum() >= -INF)
    total = model.addConstr(x.sum() == 8)
    model.setObjective(x[0] + 2 * x[1] + 3 * x[2], "max")
    assert solve(model) == Status.OPTIMAL
    np.testing.assert_allclose(x.X, [5, 1, 2], atol=1e-6)
    np.testing.assert_allclose(rows.Slack, [INF, 0, 0], atol=1e-6)
    model.remove(total)
    model.ObjSense = "min"
    assert solve(model) in (Status.UNBOUNDED, Status.INFEASIBLE_OR_UNBOUNDED)


def arrays_of(view):
    columns, rows = view.columns()[:4], view.rows  # the last tells of semi-continuous ones
    return (*columns, *view.sides(), rows.indptr, rows.ids, rows.data)


def test_an_engine_leaves_the_model_as_it_is(model, solve):
    x = model.addMVar(4, lb=[0, -INF, 0, 1], ub=[1, 5, 0.5, 1], obj=[1, -1, 2, 0])
    model.addConstr(x[[0, 0, 1]] + x[1:] <= [3, 4, 5])
    pictures = [arrays_of(view_of(model))]
    before = [array.copy() for array in pictures[0]]
    solve(model)
    pictures.append(arrays_of(view_of(model)))
    for picture in pictures:
        for array, kept in zip(picture, before, strict=True):
            np.testing.assert_array_equal(array, kept)


# Changes between solves


def rebuilt(model):
    """The optimum of the model's data in a new HiGHS, None where there is none."""
    x, (matrix, senses, rhs) = model.getVars(), model.getCoefficients()
    with tv.Model(engine="highs") as fresh:
        fresh.setOption("log", False)
        y = fresh.addMVar(model.NumVars, lb=x.LB, ub=x.UB, obj=x.Obj, vtype=x.VType)
        for sense in "<>=":
            fresh.addConstr(tv.TempConstr(matrix[senses == sense] @ y, sense, rhs[senses == sense]))
        fresh.ObjSense, fresh.ObjOffset = model.ObjSense, model.ObjOffset
        fresh.optimize()
        return fresh.Status, fresh.Objective if fresh.Status == Status.OPTIMAL else None


@pytest.mark.parametrize("types", ["CC", "CI"])
def test_changes_between_solves_reach_the_engine(model, solve, types):
    rng = np.random.default_rng(1)
    n = 6
    x = model.addMVar(n, ub=10, obj=rng.normal(size=n), vtype=types[1])
    c = model.addConstr(rng.random((4, n)) @ x <= rng.random(4) * 10)
    solve(model)
    engine = engine_of(model)
    elements, rows = [x], [c]

    def change(step):
        model.update()
        e, r = rng.integers(0, len(elements)), rng.integers(0, len(rows))
        x, c = elements[e], rows[r]
        if step == 0:
            x.LB = rng.random(x.size)
        elif step == 1:
            x[0].UB = 3.5
        elif step == 2:
            x.Obj = rng.normal(size=x.size)
        elif step == 3:
            c.RHS = rng.random(c.size) * 10 + 2
        elif step == 4:
            c[0].Sense = ">"
            c[0].RHS = 0.5
        elif step == 5:
            y = model.addMVar(2, ub=4, obj=-rng.random(2), vtype=list(types))
            rows.append(model.addConstr(x[0] + rng.random((2, 2)) @ y <= 9))
            elements.append(y)
        elif step == 6 and x.size > 1:
            model.remove(x[0])
            elements[e] = x[1:]
        elif step == 7 and c.size > 1:
            model.remove(c[0])
            rows[r] = c[1:]
        elif step == 8:
            model.ObjSense = -model.ObjSense
        elif step == 9:
            model.setObjective(x.sum() + 3, "max")
        elif step == 10:
            model.setCoefficients(c[0], x[0], rng.random())
        else:
            x[0].VType = types[rng.integers(0, 2)]

    for _ in range(30):
        for step in rng.integers(0, 12, rng.integers(1, 5)):
            change(step)
        found = solve(model)
        status, objective = rebuilt(model)
        assert found == status
        if objective is not None:
            assert model.Objective == pytest.approx(objective, abs=1e-5)
    assert engine_of(model) is engine


def test_two_models_do_not_meet(engine, model, solve):
    x = model.addMVar(2, ub=[1, 2], obj=-1)
    model.addConstr(x[0] + x[1] <= 2.5)
    solve(model)
    with tv.Model(engine=engine) as other:
        other.setOption("log", False)
        y = other.addMVar(3, ub=7, obj=-1)
        other.addConstr(y.sum() <= 20)
        other.optimize()
        x[0].UB = 0.5
        solve(model)
        assert (model.Objective, other.Objective) == pytest.approx((-2.5, -20))
    solve(model)
    np.testing.assert_allclose(x.X, [0.5, 2], atol=1e-6)


# Integers


def test_a_knapsack_and_starts(model, solve):
    rng = np.random.default_rng(0)
    w = rng.integers(10, 60, 12).astype(float)
    points = np.array(list(itertools.product((0, 1), repeat=12)), float)
    best = (points @ w)[points @ w <= 200.5].max()
    x = model.addMVar(12, vtype="B", obj=-w)
    model.addConstr(w @ x <= 200.5)
    model.update()
    for start in (np.nan, np.r_[np.ones(3), np.full(9, np.nan)], 1.0, 0.0):
        x.Start = start  # none, in part, infeasible, feasible
        assert solve(model) == Status.OPTIMAL
        assert np.isin(np.round(x.X, 6), (0, 1)).all()
        assert model.Objective == pytest.approx(-best) and model.Bound <= model.Objective + 1e-6
    with pytest.raises(TaviroError, match="dual values"):
        x.getAttr("ReducedCost")
    x.VType = "C"
    solve(model)
    assert model.Objective == pytest.approx(-200.5)
    x.UB = 5  # a continuous variable is no longer cut to [0, 1]
    solve(model)
    assert x.X.max() > 1


def test_integers_between_fractional_bounds(model, solve):
    x = model.addMVar(2, lb=-2.75, ub=[1.75, 1.5], obj=[-2, -4], vtype="I")
    model.addConstr(np.array([[-1.0, 1.0], [3.0, 2.0]]) @ x <= [-1, 4])
    assert solve(model) == Status.OPTIMAL
    assert model.Objective == pytest.approx(-2) and x.UB.tolist() == [1.75, 1.5]
    np.testing.assert_allclose(x.X, [1, 0], atol=1e-6)
    x.LB, x.UB = 0.2, 0.8  # no whole number between them
    assert solve(model) == Status.INFEASIBLE


# Quadratic models


@pytest.mark.parametrize("form", [1, 0], indirect=True, ids=["compact", "full"])
def test_convex_quadratic_objectives(model, solve, form):
    rng = np.random.default_rng(0)
    F = rng.normal(size=(4, 4))
    Q, c = F.T @ F + np.eye(4), rng.normal(size=4)
    x = model.addMVar(4, lb=-10, ub=10)
    optimum = np.linalg.solve(2 * Q, -c)
    value = optimum @ Q @ optimum + c @ optimum + 3
    for expr, sense, factor in (
        (x @ Q @ x + c @ x + 3, "min", 1),
        (-(x @ sp.csr_array(Q) @ x) - c @ x - 3, "max", -1),
    ):
        model.setObjective(expr, sense)
        assert solve(model) == Status.OPTIMAL
        assert model.Objective == pytest.approx(factor * value, abs=1e-5)
        np.testing.assert_allclose(x.X, optimum, atol=1e-3)
    v, w = x[0].item(), x[1].item()
    model.setObjective((v - 1) * (v - 1) + w * w + 2 * v * w + 5 * w * w, "min")
    solve(model)
    assert model.Objective == pytest.approx(-0.2, abs=1e-5)
    y = model.addMVar(1, lb=1)  # new columns, then a removal, behind a quadratic objective
    model.addConstr(x[1] >= y)
    solve(model)
    grown = model.Objective
    model.remove(x[2:])
    solve(model)
    assert model.Objective == pytest.approx(grown, abs=1e-5)
    model.setObjective(v + w, "min")
    model.addConstr(v >= 2)
    solve(model)
    assert model.Objective == pytest.approx(3)


def test_duals_of_quadratic_models(engine, model, solve):
    x = model.addMVar(2, lb=-INF)
    c = model.addConstr(x[0] + 2 * x[1] >= 4)
    model.setObjective(x @ x)
    solve(model)
    np.testing.assert_allclose(x.X, [0.8, 1.6], atol=1e-3)
    if engine in WITH_DUALS:
        assert c.Dual == pytest.approx(1.6, abs=1e-4)  # the optimum is RHS ** 2 / 5


def test_convex_quadratic_constraints(engine, model, solve):
    x = model.addMVar(2, lb=-5, ub=5)
    c = model.addConstr(x @ x + x[0] <= x[1] + 4, name="ball")
    model.addConstr(x * x <= [[4], [INF]])
    model.setObjective(x[0] + x[1], "max")
    assert solve(model) == Status.OPTIMAL and model.NumQConstrs == 5
    a, b = x.X
    assert (a, b) == pytest.approx((1, 2), abs=1e-4)  # radius sqrt(4.5) round (-0.5, 0.5)
    assert c.QSlack == pytest.approx(4 - (a * a + b * b + a - b), abs=1e-5)
    if engine in WITH_DUALS:
        assert c.QDual == pytest.approx(1 / 3, abs=1e-4)
    c.QRHS = 1
    solve(model)
    assert model.Objective == pytest.approx(math.sqrt(3), abs=1e-4)
    model.remove(c)
    solve(model)
    assert model.Objective == pytest.approx(4, abs=1e-4)


def test_quadratic_constraints_that_are_not_convex(model, solve, proves):
    x = model.addMVar(2, lb=-5, ub=5)
    e = model.addConstr(x[0].item() * x[1].item() >= 2, name="e")
    model.addConstr(x @ x <= 5)
    model.setObjective(2 * x[0] + x[1], "min")
    assert solve(model) == Status.OPTIMAL
    np.testing.assert_allclose(x.X, [-2, -1], atol=1e-3)
    assert e.QSlack == pytest.approx(2 - np.prod(x.X), abs=1e-5)
    e.QSense = "="
    model.ObjSense = "max"
    solve(model)
    np.testing.assert_allclose(x.X, [2, 1], atol=1e-3)


def test_quadratic_objectives_that_are_not_convex(model, solve, proves):
    x = model.addMVar(2, lb=-1, ub=2)
    model.setObjective(x[0] * x[1] + 1)
    assert solve(model) == Status.OPTIMAL and model.Objective == pytest.approx(-1, abs=1e-5)
    x.VType = "I"
    model.setObjective((x - 0.6) @ (x - 0.6))
    solve(model)
    np.testing.assert_allclose(x.X, [1, 1], atol=1e-6)
    assert model.Objective == pytest.approx(0.32, abs=1e-5)


# Nonlinear and indicator constraints


def test_nonlinear_constraints(model, solve, proves):
    x = model.addMVar((2, 2), lb=-2, ub=2, name="x")
    y = model.addMVar((2, 2), lb=-99, ub=99)
    model.addConstr(y == x**3 - x / (4 + x[0, 0]))
    v, z = model.addVar(lb=0.1, ub=6), model.addVar(lb=-9, ub=40)
    model.addConstr(z == v**1.5 + 1)
    e = model.addGenConstrNL(z, 2 ** (v - 1))
    model.setObjective(y.sum() + 3 * z, "min")
    model.setOption("gap", 1e-6)
    assert solve(model) == Status.OPTIMAL
    x0 = x.X
    np.testing.assert_allclose(y.X, x0**3 - x0 / (4 + x0[0, 0]), atol=1e-4)
    assert pytest.approx(v.X**1.5 + 1, abs=1e-4) == z.X
    assert pytest.approx(2 ** (v.X - 1), abs=1e-4) == z.X
    model.remove(e)
    solve(model)
    assert pytest.approx(0.1**1.5 + 1, abs=1e-4) == z.X


def test_nonlinear_comparisons_of_every_kind(model, solve):
    v, w = model.addVar(ub=9), model.addVar(ub=9)
    x = model.addMVar(2, ub=9)
    model.addConstr(v**3 <= 8)
    model.addConstr(w**2 / (1 + v) <= 1)  # 1 + v is 3 in the end
    model.addConstr(tv.exp(x) - 1 <= x + 2)
    both = np.array([tv.sqrt(v), 1 / (1 + w)], dtype=object)
    assert model.addConstr(both <= x[0] + 2).shape == (2,)
    model.setObjective(v + w + x.sum(), "max")
    assert solve(model) == Status.OPTIMAL
    assert pytest.approx(2, abs=1e-4) == v.X and pytest.approx(3**0.5, abs=1e-4) == w.X
    # exp(a) - 1 = a + 2 for both
    assert pytest.approx([1.505241, 1.505241], abs=1e-4) == x.X


def test_indicators(model, solve):
    b = model.addMVar(3, vtype="B")
    x = model.addMVar(3, ub=10)
    v = model.addVar(ub=10)
    model.addGenConstrIndicator(b, True, x <= [1, 2, 3])
    model.addGenConstrIndicator(b[0].item(), 0, v + x[1].item() == 5)
    model.addGenConstrIndicator(b, [0, 1, 0], v >= 2)
    model.addConstr(b.sum() == 2)
    model.setObjective(x.sum() + v, "max")
    assert solve(model) == Status.OPTIMAL
    on = np.round(b.X).astype(bool)
    assert on.sum() == 2 and (x.X[on] <= np.array([1, 2, 3])[on] + 1e-6).all()
    assert on[0] or v.X + x.X[1] == pytest.approx(5)
    assert model.Objective == pytest.approx(24)


# Options, limits, the log, Ctrl-C


def test_an_engines_own_options(engine, model):
    names = engine_class(engine).option_names()
    assert names and all(isinstance(name, str) for name in names)
    for name in names[:: max(1, len(names) // 50)]:
        assert model.getOption(name) is None
        with pytest.raises(TaviroError, match="takes"):
            model.setOption(name, object())
    with pytest.raises(TaviroError, match="no option"):
        model.setOption("nosuch", 1)


def test_common_options_and_limits(engine, solve):
    model, x = market_split(engine)
    model.setOption("threads", 1)
    model.setOption("seed", 3)
    model.setOption("timeLimit", 0.4)
    assert solve(model) == Status.TIME_LIMIT and model.SolveTime < 15
    assert x.X.shape == (80,) and model.Bound <= model.Objective + 1e-6
    model.setOption("timeLimit", 1e30)
    x.LB = x.UB = 0
    assert solve(model) == Status.OPTIMAL
    assert model.Objective == pytest.approx(model.Bound, rel=1e-6)


def test_a_gap_ends_a_solve_early_and_zero_does_not(model, solve):
    rng = np.random.default_rng(3)
    w = rng.integers(100, 1000, (5, 30)).astype(float)
    x = model.addMVar(30, vtype="B")
    model.addConstr(w @ x <= 6000)
    model.setObjective(rng.integers(100, 1000, 30) @ x, "max")
    found = []
    for gap in (0.5, 0):
        model.setOption("gap", gap)
        assert solve(model) == Status.OPTIMAL
        assert -1e-6 <= model.Bound - model.Objective <= (gap + 1e-6) * model.Bound
        found.append(model.Objective)
    assert found[0] <= found[1] + 1e-6


def test_ctrl_c_ends_a_solve_with_the_best_solution(engine, solve):
    model, x = market_split(engine)
    reason = engine_class(engine).refuses(view_of(model), True)
    if reason:
        pytest.skip(reason)
    model.setOption("timeLimit", 3 if engine in DEAF else 30)
    threading.Timer(1.0, os.kill, (os.getpid(), signal.SIGINT)).start()
    assert solve(model) == Status.INTERRUPTED and model.SolveTime < 20
    assert x.X.shape == (80,) and model.Bound <= model.Objective + 1e-6
    assert signal.getsignal(signal.SIGINT) is signal.default_int_handler
    model.setOption("timeLimit", 0.3)
    assert solve(model) == Status.TIME_LIMIT
