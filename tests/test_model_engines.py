"""Models beyond linear ones: which engine takes them, their handles, their trees."""

import math

import numpy as np
import pytest

import taviropy as tv
from taviropy import TVO, TaviroError

pytest.importorskip("pyscipopt")
OPTIMAL = TVO.Status.OPTIMAL


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


def test_handles_of_quadratic_constraints(m):
    x = m.addMVar(2, lb=-5, ub=5)
    c = m.addConstr(x @ x + x[0] <= x[1] + 4, name="ball")
    d = m.addConstr(x * x <= [[4], [9]], name="d")
    e = m.addConstr(x[0].item() * x[1].item() >= -1, name="e")
    assert isinstance(c, tv.MQConstr) and d.shape == (2, 2) and isinstance(e, tv.QConstr)
    m.update()
    assert c.QRHS == 4 and c.QName == "ball" and d.QName[1, 0] == "d[1,0]" and e.QSense == ">"
    m.remove([c, d])
    m.update()
    assert e._qconstrno == 0 and c._idxarr() == -2 and m.NumQConstrs == 1
    for bad in (lambda: m.addConstr(np.nan * x * x <= 1), lambda: c.QRHS):
        with pytest.raises(TaviroError):
            bad()


def test_handles_of_nonlinear_constraints(m):
    x, y = m.addMVar((2, 2), lb=-2, ub=2), m.addMVar((2, 2))
    v, z = m.addVar(ub=6), m.addVar()
    c = m.addConstr(y == x**3 - x / (4 + x[0, 0]), name="c")
    d = m.addConstr(z == v**1.5 + 1)
    e = m.addGenConstrNL(z, 2 ** (v - 1), name="e")
    assert isinstance(c, tv.MGenConstr) and c.shape == (2, 2) and isinstance(d, tv.GenConstr)
    m.update()
    assert e.GenKind == TVO.GenKind.NONLINEAR and e.GenName == "e"
    assert c.GenName[1, 0] == "c[1,0]" and m.NumGenConstrs == 6
    broken = m.addConstr(z == v**3 + np.nan, name="broken")
    with pytest.raises(TaviroError, match="'broken' holds the constant nan"):
        m.load()
    m.remove(broken)
    m.remove(v)
    with pytest.raises(TaviroError, match="'GC4'.*removed"):
        m.optimize()


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


def test_handles_of_indicator_constraints(m):
    b = m.addMVar(3, vtype="B", name="b")
    x, v = m.addMVar(3, ub=10), m.addVar(ub=10)
    c = m.addGenConstrIndicator(b, True, x <= [1, 2, 3], name="on")
    d = m.addGenConstrIndicator(b[0].item(), 0, v + x[1].item() == 5)
    e = m.addGenConstrIndicator(b, [0, 1, 0], v >= 2)
    assert c.shape == (3,) and isinstance(d, tv.GenConstr) and e.shape == (3,)
    m.update()
    assert d.GenKind == TVO.GenKind.INDICATOR and c.GenName.tolist()[2] == "on[2]"
    for bad, error in (
        (lambda: m.addGenConstrIndicator(v, 1, x <= 1), TaviroError),
        (lambda: m.addGenConstrIndicator(b, 2, x <= 1), TaviroError),
        (lambda: m.addGenConstrIndicator(b, 1, x @ x <= 1), TaviroError),
        (lambda: m.addGenConstrIndicator(b, 1, x[:2] <= 1), ValueError),
        (lambda: m.addGenConstrIndicator(x, 1, 3), TypeError),
        (lambda: m.addGenConstrIndicator(x.sum(), 1, x <= 1), TypeError),
    ):
        with pytest.raises(error):
            bad()
    m.update()
    assert m.NumGenConstrs == 7
