"""Models beyond linear ones: which engine takes them, and what comes out."""

import math
import os
import signal
import threading

import numpy as np
import pytest
import scipy.sparse as sp
from inside import engine_of

import taviropy as tv
from taviropy import TVO, TaviroError

pytest.importorskip("pyscipopt")
OPTIMAL = TVO.Status.OPTIMAL


@pytest.fixture(params=["auto", "scip"])
def model(request):
    with tv.Model(engine=request.param) as m:
        m.setOption("log", False)
        m.setOption("timeLimit", 20)
        yield m


def engine_name(model):
    return type(engine_of(model)).__name__


@pytest.mark.parametrize("compact", [1, 0])
def test_convex_quadratic_objectives(model, compact, monkeypatch):
    monkeypatch.setattr(tv.MQuadExpr, "_keep_compact", compact)
    rng = np.random.default_rng(0)
    F = rng.normal(size=(4, 4))
    Q, c = F.T @ F + np.eye(4), rng.normal(size=4)
    x = model.addMVar(4, lb=-10, ub=10)
    optimum = np.linalg.solve(2 * Q, -c)
    value = optimum @ Q @ optimum + c @ optimum + 3
    for expr, sense in (
        (x @ Q @ x + c @ x + 3, "min"),
        (-(x @ sp.csr_array(Q) @ x) - c @ x - 3, "max"),
    ):
        model.setObjective(expr, sense)
        model.optimize()
        assert model.Status == OPTIMAL
        assert abs(model.Objective) == pytest.approx(value, abs=1e-5)
        np.testing.assert_allclose(x.X, optimum, atol=1e-3)
    v, w = x[0].item(), x[1].item()
    model.setObjective((v - 1) * (v - 1) + w * w + 2 * v * w + 5 * w * w, "min")
    model.optimize()
    assert model.Objective == pytest.approx(-0.2, abs=1e-5)
    y = model.addMVar(1, lb=1)  # new columns, then a removal, behind a quadratic objective
    model.addConstr(x[1] >= y)
    model.optimize()
    grown = model.Objective
    model.remove(x[2:])
    model.optimize()
    assert model.Objective == pytest.approx(grown, abs=1e-5)
    model.setObjective(v + w, "min")
    model.addConstr(v >= 2)
    model.optimize()
    assert model.Objective == pytest.approx(3)


def test_auto_takes_what_proves_its_answer():
    with tv.Model() as m:
        m.setOption("log", False)
        x = m.addMVar(2, lb=-1, ub=2)
        m.setObjective(x @ x)
        m.optimize()
        assert m.Engine == "clarabel"
        m.setObjective(x[0] * x[1])  # not convex
        m.optimize()
        assert m.Engine == "scip" and m.Objective == pytest.approx(-2)
        m.setObjective(-(x @ x), "max")
        m.optimize()
        assert m.Engine == "clarabel" and m.Objective == pytest.approx(0, abs=1e-6)
        x.VType = "I"
        m.optimize()
        assert m.Engine == "scip" and m.Objective == pytest.approx(0, abs=1e-6)
        x.VType = "C"
        d = m.addConstr(x @ x <= 2)
        m.optimize()
        assert m.Engine == "clarabel" and m.Objective == pytest.approx(0, abs=1e-6)
        m.remove(d)
        c = m.addConstr(x @ x >= 3)
        m.optimize()
        assert m.Engine == "scip" and m.Objective == pytest.approx(-3, abs=1e-5)
        m.remove(c)
        m.optimize()
        assert m.Engine == "clarabel" and m.Objective == pytest.approx(0, abs=1e-6)


def test_highs_says_what_it_cannot_take():
    for build, words in (
        (lambda m, x: m.addConstr(x @ x <= 1, name="ball"), "'ball' is a quadratic constraint"),
        (lambda m, x: m.addConstr(x == x**3, name="cube"), "'cube.*' is a general constraint"),
        (lambda m, x: m.setObjective(x[0] * x[1]), "not convex"),
        (lambda m, x: (setattr(x, "VType", "I"), m.setObjective(x @ x)), "'C0' is integer"),
    ):
        with tv.Model(engine="highs") as m:
            m.setOption("log", False)
            x = m.addMVar(2, lb=-1, ub=1)
            m.update()
            build(m, x)
            with pytest.raises(TaviroError, match=words) as caught:
                m.optimize()
            assert caught.value.args[0] == TVO.Error.NOT_SUPPORTED
            assert "scip" in caught.value.args[1]


def test_a_missing_engine_is_named(monkeypatch):
    import sys

    monkeypatch.setitem(sys.modules, "pyscipopt", None)
    monkeypatch.delitem(sys.modules, "taviropy.engines.scip", raising=False)
    with tv.Model() as m:
        x = m.addMVar(2)
        m.addConstr(x @ x >= 1, name="ball")
        with pytest.raises(TaviroError, match=r"'ball' .*pip install 'taviropy\[scip\]'"):
            m.optimize()


def test_quadratic_constraints(model):
    x = model.addMVar(2, lb=-5, ub=5)
    c = model.addConstr(x @ x + x[0] <= x[1] + 4, name="ball")
    d = model.addConstr(x * x <= [[4], [9]], name="d")
    e = model.addConstr(x[0].item() * x[1].item() >= -1, name="e")
    assert isinstance(c, tv.MQConstr) and d.shape == (2, 2) and isinstance(e, tv.QConstr)
    model.setObjective(x.sum(), "max")
    model.optimize()
    assert model.Status == OPTIMAL and model.NumQConstrs == 6
    a, b = x.X
    assert c.QRHS == 4 and c.QName == "ball" and d.QName[1, 0] == "d[1,0]" and e.QSense == ">"
    assert c.QSlack == pytest.approx(4 - (a * a + b * b + a - b), abs=1e-6)
    assert e.QSlack == pytest.approx(-1 - a * b, abs=1e-6)
    before = model.Objective
    c.QRHS = 1
    model.optimize()
    assert model.Objective < before - 0.1
    model.remove(c)
    model.remove(d)
    e.QSense = "="
    model.optimize()
    a, b = x.X
    assert a * b == pytest.approx(-1, abs=1e-5) and e._qconstrno == 0 and c._idxarr() == -2
    for bad in (lambda: model.addConstr(np.nan * x * x <= 1), lambda: c.QRHS):
        with pytest.raises(TaviroError):
            bad()


def test_quadratic_forms_agree(monkeypatch):
    rng = np.random.default_rng(4)
    Q = rng.normal(size=(3, 3))
    found = []
    for compact in (1, 0):
        monkeypatch.setattr(tv.MQuadExpr, "_keep_compact", compact)
        with tv.Model() as m:
            m.setOption("log", False)
            x = m.addMVar(3, lb=-2, ub=2)
            m.addConstr(x @ Q @ x + x.sum() <= np.array([1.0, 2.0]))
            m.setObjective(x[0] + 2 * x[1] - x[2], "max")
            m.optimize()
            found.append(m.Objective)
    with tv.Model() as m:
        m.setOption("log", False)
        v = m.addMVar(3, lb=-2, ub=2).tolist()
        total = sum(Q[i, j] * v[i] * v[j] for i in range(3) for j in range(3))
        m.addConstr(total + v[0] + v[1] + v[2] <= 1)
        m.setObjective(v[0] + 2 * v[1] - v[2], "max")
        m.optimize()
        found.append(m.Objective)
    np.testing.assert_allclose(found, found[0], atol=1e-4)


def test_nonlinear_constraints(model):
    x = model.addMVar((2, 2), lb=-2, ub=2, name="x")
    y = model.addMVar((2, 2), lb=-99, ub=99)
    c = model.addConstr(y == x**3 - x / (4 + x[0, 0]), name="c")
    v, z = model.addVar(lb=0.1, ub=6), model.addVar(lb=-9, ub=40)
    d = model.addConstr(z == v**1.5 + 1)
    e = model.addGenConstrNL(z, 2 ** (v - 1), name="e")
    assert isinstance(c, tv.MGenConstr) and c.shape == (2, 2) and isinstance(d, tv.GenConstr)
    model.setObjective(y.sum() + 3 * z, "min")
    model.setOption("gap", 1e-6)
    model.optimize()
    assert model.Status == OPTIMAL and model.NumGenConstrs == 6
    x0 = x.X
    np.testing.assert_allclose(y.X, x0**3 - x0 / (4 + x0[0, 0]), atol=1e-4)
    assert pytest.approx(v.X**1.5 + 1, abs=1e-4) == z.X
    assert pytest.approx(2 ** (v.X - 1), abs=1e-4) == z.X
    assert e.GenKind == TVO.GenKind.NONLINEAR and e.GenName == "e"
    assert c.GenName[1, 0] == "c[1,0]"
    with pytest.raises(TaviroError, match="objective is nonlinear"):
        model.setObjective(v**3)
    model.update()
    assert model.NumGenConstrs == 6
    broken = model.addConstr(z == v**3 + np.nan, name="broken")
    with pytest.raises(TaviroError, match="'broken' holds the constant nan"):
        model.load()
    model.remove(broken)
    model.remove(v)
    with pytest.raises(TaviroError, match="'GC4'.*removed"):
        model.optimize()


def test_nonlinear_comparisons_of_every_kind(model):
    v, w = model.addVar(ub=9), model.addVar(ub=9)
    x = model.addMVar(2, ub=9)
    model.addConstr(v**3 <= 8)
    model.addConstr(w**2 / (1 + v) <= 1)  # 1 + v is 3 in the end
    model.addConstr(tv.exp(x) - 1 <= x + 2)
    assert model.addConstr(np.array([tv.sqrt(v), 1 / (1 + w)], dtype=object) <= x[0] + 2).shape == (
        2,
    )
    model.setObjective(v + w + x.sum(), "max")
    model.optimize()
    assert model.Status == OPTIMAL and model.NumGenConstrs == 6
    assert pytest.approx(2, abs=1e-4) == v.X and pytest.approx(3**0.5, abs=1e-4) == w.X
    # exp(a) - 1 = a + 2 for both
    assert pytest.approx([1.505241, 1.505241], abs=1e-4) == x.X


def test_deep_and_shared_trees():
    with tv.Model() as m:
        m.setOption("log", False)
        x, y, z = m.addVar(lb=1, ub=2), m.addVar(lb=-9, ub=9), m.addVar(lb=-9, ub=9)
        deep = x**2
        for _ in range(3000):
            deep = deep - 1e-4 * x
        shared = x**0.5
        for _ in range(40):
            shared = shared * 0.5 + shared * 0.5  # a tree of 2**40 leaves where written out
        m.addConstr(y == deep)
        m.addConstr(z == shared)
        m.setObjective(y + z, "max")
        m.optimize()
        assert m.Status == OPTIMAL
        assert m.Objective == pytest.approx(4 - 0.6 + math.sqrt(2), abs=1e-4)


def test_indicators(model):
    b = model.addMVar(3, vtype="B", name="b")
    x = model.addMVar(3, ub=10)
    v = model.addVar(ub=10)
    c = model.addGenConstrIndicator(b, True, x <= [1, 2, 3], name="on")
    d = model.addGenConstrIndicator(b[0].item(), 0, v + x[1].item() == 5)
    e = model.addGenConstrIndicator(b, [0, 1, 0], v >= 2)
    assert c.shape == (3,) and isinstance(d, tv.GenConstr) and e.shape == (3,)
    model.addConstr(b.sum() == 2)
    model.setObjective(x.sum() + v, "max")
    model.optimize()
    on = np.round(b.X).astype(bool)
    assert on.sum() == 2 and (x.X[on] <= np.array([1, 2, 3])[on] + 1e-6).all()
    assert on[0] or v.X + x.X[1] == pytest.approx(5)
    assert model.Objective == pytest.approx(24)
    assert d.GenKind == TVO.GenKind.INDICATOR and c.GenName.tolist()[2] == "on[2]"
    for bad, error in (
        (lambda: model.addGenConstrIndicator(v, 1, x <= 1), TaviroError),
        (lambda: model.addGenConstrIndicator(b, 2, x <= 1), TaviroError),
        (lambda: model.addGenConstrIndicator(b, 1, x @ x <= 1), TaviroError),
        (lambda: model.addGenConstrIndicator(b, 1, x[:2] <= 1), ValueError),
        (lambda: model.addGenConstrIndicator(x, 1, 3), TypeError),
        (lambda: model.addGenConstrIndicator(x.sum(), 1, x <= 1), TypeError),
    ):
        with pytest.raises(error):
            bad()
    model.update()
    assert model.NumGenConstrs == 7


def test_scip_takes_what_highs_takes():
    rng = np.random.default_rng(7)
    A, b, c = rng.random((6, 8)), rng.random(6) * 5, rng.random(8)
    found = []
    for engine in ("highs", "scip"):
        with tv.Model(engine=engine) as m:
            m.setOption("log", False)
            x = m.addMVar(8, ub=4, vtype=["I"] * 3 + ["C"] * 4 + ["B"])
            rows = m.addConstr(A @ x <= b)
            m.addConstr(x[:2] - x[2:4] == 0)
            m.addConstr(0 * x[0] <= 1)
            m.setObjective(c @ x + 1.5, "max")
            m.update()
            x.Start = 0
            m.optimize()
            np.testing.assert_allclose(rows.Slack, b - A @ x.X, atol=1e-6)
            found.append(m.Objective)
            with pytest.raises(TaviroError, match="dual"):
                rows.getAttr("Dual")
            path = os.devnull + ".nosuch"
            with pytest.raises(TaviroError):
                m.write(path)
    assert found[0] == pytest.approx(found[1], abs=1e-6)


def test_scip_takes_sides_that_bind_nothing():
    with tv.Model(engine="scip") as m:
        m.setOption("log", False)
        x = m.addMVar(3, ub=5)
        rows = m.addConstr(x <= [np.inf, 1, 2])
        m.addConstr(x.sum() >= -np.inf)
        m.addConstr(x @ x <= np.inf)
        m.setObjective(x.sum(), "max")
        m.optimize()
        assert m.Objective == pytest.approx(8)
        np.testing.assert_allclose(rows.Slack, [np.inf, 0, 0], atol=1e-6)


def test_scip_options_and_outcomes():
    with tv.Model(engine="scip") as m:
        m.setOption("log", False)
        for name, value in (("limits/nodes", "a"), ("nosuch/param", 1), ("presolve", "off")):
            with pytest.raises(TaviroError, match=name):
                m.setOption(name, value)
        x = m.addMVar(2, lb=-5)
        m.addConstr(x @ x <= -1)
        m.optimize()
        assert m.Status == TVO.Status.INFEASIBLE
        with pytest.raises(TaviroError, match="infeasible"):
            x.getAttr("X")


def test_interrupt_of_scip(capfd):
    rng = np.random.default_rng(5)
    with tv.Model(engine="scip") as m:
        x = m.addMVar(60, vtype="B")
        s = m.addMVar((2, 8), obj=1)
        A = rng.integers(0, 100, (8, 60)).astype(float)
        m.addConstr(A @ x + s[0] - s[1] == A.sum(1) // 2)
        m.addConstr(x[0] * x[1] + x[2] * x[3] <= 1)
        m.setOption("timeLimit", 30)
        threading.Timer(1.5, os.kill, (os.getpid(), signal.SIGINT)).start()
        m.optimize()
        assert m.Status == TVO.Status.INTERRUPTED and m.SolveTime < 20
        assert x.X.shape == (60,)
    assert signal.getsignal(signal.SIGINT) is signal.default_int_handler
