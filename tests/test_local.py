"""The engine Ipopt: local answers to smooth models, and its honesty about them."""

import numpy as np
import pytest

import taviropy as tv

pytest.importorskip("casadi")


@pytest.fixture
def m():
    model = tv.Model("m", engine="ipopt")
    model.setOption("log", False)
    return model


def test_problem_71_of_hock_and_schittkowski(m):
    x = m.addMVar(4, lb=1.0, ub=5.0)
    cost, product = m.addMVar(1, lb=-np.inf), m.addMVar(1, lb=25.0)
    m.addConstr(cost == x[0] * x[3] * x[:3].sum() + x[2])
    m.addConstr(product == x[0] * x[1] * x[2] * x[3])
    m.addConstr(x @ x == 40)
    m.setObjective(cost)
    m.optimize()
    assert m.Status == "LOCALLY_OPTIMAL" and m.Engine == "ipopt" and m.check()
    assert m.Objective == pytest.approx(17.0140173, abs=1e-6)
    assert cost.X[0] == pytest.approx(m.Objective)
    with pytest.raises(tv.TaviroError, match="a local answer proves no bound"):
        _ = m.Bound


@pytest.mark.parametrize("sense", ["min", "max"])
def test_chained_rosenbrock_in_both_senses(m, sense):
    """The sum is an objective: no rows are left, and the results are computed afterwards."""
    sign = 1 if sense == "min" else -1
    x, t = m.addMVar(200, lb=-np.inf), m.addMVar(199, lb=-np.inf)
    m.addConstr(t == sign * (100 * (x[1:] - x[:-1] ** 2) ** 2 + (1 - x[:-1]) ** 2))
    m.setObjective(t.sum() + 3, sense)
    m.update()
    x.Start = 0.7
    m.optimize()
    assert m.Status == "LOCALLY_OPTIMAL" and m.check()
    assert m.Objective == pytest.approx(3.0, abs=1e-6) and pytest.approx(np.ones(200)) == x.X
    t[0].UB = -1.0 * sign if sense == "min" else np.inf  # a bound makes it a row
    t[0].LB = 1.0 if sense == "max" else -np.inf
    m.optimize()
    assert m.Status == "LOCALLY_INFEASIBLE"


def test_functions_and_structures_against_scip(m):
    """Shared subtrees, exponents of several kinds, repeated variables."""
    values = {}
    for engine in ("ipopt", "scip"):
        m = tv.Model("m", engine=engine)
        m.setOption("log", False)
        x = m.addMVar(4, lb=0.5, ub=1.25)
        e = tv.exp(x) * x[::-1]
        y = m.addMVar(4, lb=-np.inf, obj=1.0)
        m.addConstr(y == e / (1 + e) + x ** np.array([2, 3, 2.5, -1]) + tv.sin(x) * tv.cos(x))
        z = m.addMVar(4, lb=-np.inf, obj=[1.0, -1.0, 0.5, 0.25])
        m.addConstr(z == tv.log(x[0] * x) + tv.sqrt(x + x[1]) - tv.tan(x) ** 2)
        m.addConstr(z.sum() + y.sum() >= 2)
        m.addConstr(x @ x + 0.1 * x[0] <= 4)
        m.optimize()
        assert m.check()
        values[engine] = m.Objective
    assert values["ipopt"] == pytest.approx(values["scip"], abs=1e-4)


def test_duals_are_those_of_a_convex_engine():
    found = {}
    for engine in ("ipopt", "clarabel"):
        rng = np.random.default_rng(0)
        m = tv.Model("m", engine=engine)
        m.setOption("log", False)
        x = m.addMVar(5, lb=-1, ub=1)
        Q = rng.random((5, 5))
        c = m.addConstr(rng.random((3, 5)) @ x >= 1)
        ball = m.addConstr(x @ x <= 0.9)
        m.setObjective(-(x @ (Q @ Q.T) @ x) + rng.random(5) @ x, "max")
        m.optimize()
        assert m.check(1e-4)
        found[engine] = np.concatenate([[m.Objective], c.Dual, np.ravel(ball.QDual), x.ReducedCost])
    assert found["ipopt"] == pytest.approx(found["clarabel"], abs=1e-4)


def test_changes_and_starts(m):
    x, y = m.addMVar(1), m.addMVar(1, lb=-np.inf)
    m.addConstr(y == tv.log(x) - tv.sqrt(x))  # neither is finite at a bound of x
    c = m.addConstr(x <= 100)
    m.setObjective(y.sum(), "max")
    m.optimize()
    assert pytest.approx([4.0], abs=1e-4) == x.X
    x.UB = 2
    m.optimize()
    assert pytest.approx([2.0], abs=1e-6) == x.X
    c.RHS = 1.5
    m.optimize()
    assert pytest.approx([1.5], abs=1e-6) == x.X
    m.addConstr(x @ x <= 1)
    m.setObjective(2 * y.sum() + 1, "max")
    m.optimize()
    assert pytest.approx([1.0], abs=1e-5) == x.X and m.Objective == pytest.approx(-1.0, abs=1e-5)
    w = tv.Model("two", engine="ipopt")
    w.setOption("log", False)
    v, t = w.addMVar(1, lb=-3, ub=3), w.addMVar(1, lb=-np.inf, obj=1.0)
    w.addConstr(t == (v**2 - 1) ** 2 + 0.1 * v)
    found = []
    w.update()
    for start in (0.9, -0.9):
        v.Start = start
        w.optimize()
        found.append(v.X[0])
    assert found == pytest.approx([0.987, -1.012], abs=2e-3)


def test_what_is_proven_limited_or_refused(m):
    x = m.addMVar(3, ub=1, obj=-1.0)
    m.optimize()
    assert m.Status == "OPTIMAL" and m.Bound == m.Objective
    y = m.addMVar(3, lb=-np.inf, obj=1.0)
    m.addConstr(y == tv.exp(x) - tv.sin(y))
    m.setOption("max_iter", 1)
    m.optimize()
    assert m.Status == "INTERRUPTED"
    m.setOption("timeLimit", 0)
    m.optimize()
    assert m.Status in ("TIME_LIMIT", "INTERRUPTED")
    with pytest.raises(tv.TaviroError, match="max_iter"):
        m.setOption("max_iter", "many")
    x.VType = "I"
    with pytest.raises(
        tv.TaviroError, match="Ipopt can't take the model, since the variable 'C0' is integer"
    ):
        m.optimize()
