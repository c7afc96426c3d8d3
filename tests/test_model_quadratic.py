"""Convex quadratic models: published optima, answers of HiGHS that need mending, rays."""

import numpy as np
import pytest
import scipy.sparse as sp

import taviropy as tv
from taviropy import TVO
from taviropy.engines.highs import HighsEngine
from taviropy.engines.protocol import Answer

INF = np.inf


@pytest.fixture
def m():
    with tv.Model(engine="highs") as model:
        model.setOption("log", False)
        yield model


def test_published_optima(m):
    """Hock and Schittkowski, Test Examples for Nonlinear Programming Codes (Springer, 1981)."""
    x = m.addMVar(2, lb=[2, -50], ub=50)  # HS21
    m.addConstr(10 * x[0] - x[1] >= 10)
    m.setObjective(0.01 * x[0] * x[0] + x[1] * x[1] - 100)
    m.optimize()
    assert pytest.approx(-99.96, abs=1e-6) == m.Objective

    y = m.addMVar(3)  # HS35
    m.addConstr(np.array([1, 1, 2]) @ y <= 3)
    Q = np.array([[2, 1, 1], [1, 2, 0], [1, 0, 1]])
    m.setObjective(y @ Q @ y - np.array([8, 6, 4]) @ y + 9)
    m.optimize()
    assert pytest.approx(1 / 9, abs=1e-6) == m.Objective

    z = m.addMVar(5, lb=-10, ub=10)  # HS53
    m.addConstr(np.array([[1, 3, 0, 0, 0], [0, 0, 1, 1, -2], [0, 1, 0, 0, -1]]) @ z == 0)
    F = np.array([[1, -1, 0, 0, 0], [0, 1, 1, 0, 0], [0, 0, 0, 1, 0], [0, 0, 0, 0, 1]])
    t = np.array([0, 2, 1, 1])
    m.setObjective((F @ z - t) @ (F @ z - t))
    m.optimize()
    assert pytest.approx(4.09302326, abs=1e-6) == m.Objective

    D = np.array(  # HS268: the constant 14463 leaves nothing but zero
        [
            [10197, -12454, -1013, 1948, 329],
            [-12454, 20909, -1733, -4914, -186],
            [-1013, -1733, 1755, 1089, -174],
            [1948, -4914, 1089, 1515, -22],
            [329, -186, -174, -22, 27],
        ]
    )
    w = m.addMVar(5, lb=-INF)
    A = np.array([[-1, -1, -1, -1, -1], [10, 10, -3, 5, 4], [-8, 1, -2, -5, 3]])
    B = np.array([[8, -1, 2, 5, -3], [-4, -2, 3, -5, 1]])
    m.addConstr(A @ w >= [-5, 20, -40])
    m.addConstr(B @ w >= [11, -30])
    m.setObjective(w @ D @ w - 2 * np.array([-9170, 17099, -2271, -4336, -43]) @ w + 14463)
    m.optimize()
    assert pytest.approx(0, abs=1e-6) == m.Objective
    np.testing.assert_allclose(w.X, [1, 2, -1, 3, -4], atol=1e-4)


@pytest.mark.parametrize("sense", ["min", "max"])
def test_a_point_that_highs_wrongly_calls_optimal_is_left(m, sense):
    """HiGHS 1.15 stops at a vertex, x = 2.999 and objective 4.12."""
    x, y = m.addVar(lb=1, ub=4), m.addVar()
    sign = 1 if sense == "min" else -1
    first = m.addConstr(-1158 * x <= -3473)
    m.addConstr(1699 * x - 232 * y <= 5098)
    m.setObjective(sign * (0.025 * x * x - 1.35 * x + 7.94), sense)
    m.optimize()
    assert pytest.approx(2.94, abs=1e-6) == sign * m.Objective
    assert pytest.approx(4, abs=1e-5) == x.X
    assert pytest.approx(sign * (0.05 * 4 - 1.35), abs=1e-5) == x.ReducedCost
    assert first.Dual == pytest.approx(0, abs=1e-6)
    assert first.Slack == pytest.approx(-3473 + 1158 * 4, rel=1e-6)
    assert m.Bound == m.Objective


def test_rays_are_found(m):
    x = m.addMVar(3, lb=-1)
    row = m.addConstr(x[0] + x[1] + x[2] >= 0)
    m.setObjective(x[0] * x[0] - x[1])  # HiGHS ends at x[1] = 1e7 and calls it optimal
    m.optimize()
    assert m.Status == TVO.Status.UNBOUNDED
    m.setObjective(x[1] - x[0] * x[0], "max")
    m.optimize()
    assert m.Status == TVO.Status.UNBOUNDED
    cap = m.addConstr(x[1] <= 5)
    m.optimize()
    assert m.Objective == pytest.approx(5)
    m.remove([row, cap])
    m.optimize()
    assert m.Status in (TVO.Status.UNBOUNDED, TVO.Status.INFEASIBLE_OR_UNBOUNDED)
    m.addConstr(x.sum() <= -4)
    m.optimize()
    assert m.Status == TVO.Status.INFEASIBLE


def test_a_badly_scaled_model(m):
    rng = np.random.default_rng(0)
    n = 60
    units = 10.0 ** rng.uniform(-3, 3, n)
    F = sp.random_array((n, n), density=0.1, rng=rng).toarray()
    A, inside, c = rng.random((20, n)), rng.random(n), rng.normal(size=n)
    found = []
    for u in (np.ones(n), units):
        x = m.addMVar(n, lb=-5 / u, ub=5 / u)
        rows = m.addConstr((A * u) @ x == A @ inside)
        m.setObjective(x @ ((F.T @ F + np.eye(n)) * u * u[:, None]) @ x + (c * u) @ x)
        m.optimize()
        found.append(m.Objective)
        m.remove([x, rows])
    assert found[1] == pytest.approx(found[0], rel=1e-6)


def test_limits_and_the_log_of_further_runs(m, capsys):
    x, y = m.addVar(lb=1, ub=4), m.addVar()
    m.addConstr(-1158 * x <= -3473)
    m.addConstr(1699 * x - 232 * y <= 5098)
    m.setObjective(0.025 * x * x - 1.35 * x)
    m.setOption("log", True)
    m.optimize()
    text = capsys.readouterr().out
    assert "solving again" in text and text.count("HiGHS run time") > 1
    m.setOption("timeLimit", 0.0)
    m.optimize()
    assert m.Status == TVO.Status.TIME_LIMIT


def test_scip_takes_over_where_highs_fails(monkeypatch):
    pytest.importorskip("pyscipopt")
    failed = Answer(TVO.Status.FAILED)
    monkeypatch.setattr(HighsEngine, "_solve_quadratic", lambda *args: failed)
    for engine, status in (("auto", TVO.Status.OPTIMAL), ("highs", TVO.Status.FAILED)):
        with tv.Model(engine=engine) as m:
            m.setOption("log", False)
            x = m.addMVar(2, lb=1, ub=5)
            m.setObjective(x @ x)
            m.optimize()
            assert m.Status == status
            if status == TVO.Status.OPTIMAL:
                assert m.Objective == pytest.approx(2)
