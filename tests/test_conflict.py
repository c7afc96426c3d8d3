"""Conflicts of infeasible models: their members can't hold together, and none of them is idle."""

import numpy as np
import pytest
import scipy.sparse as sp
from conflicts import drawn, fault

import taviropy as tv


# Where it looks at parts of the last three, the dual simplex method of HiGHS 1.16 comes to no end.
@pytest.mark.parametrize("seed", [*range(8), 17, 52, 56])
def test_a_conflict_is_irreducible_and_leaves_the_model_alone(seed):
    plain = drawn(np.random.default_rng(seed))[1]
    assert fault(plain)[0] == ""
    m = plain.model()
    m.conflict()
    x = m.getVars()
    assert np.array_equal(x.LB, plain.lower) and np.array_equal(x.VType, plain.types)
    assert m.NumConstrs == len(plain.rhs)


def test_conflicts_of_all_kinds_of_constraints(m):
    x = m.addMVar(3, lb=-np.inf, name="x")
    on = m.addVar(vtype="B", name="on")
    ball = m.addConstr(x @ x <= 1, name="ball")
    far = m.addConstr(x.sum() >= 3, name="far")
    m.addConstr(x[0] >= 0.5, name="idle")
    conflict = m.conflict()
    assert [type(c) for c in conflict.constrs] == [tv.Constr, tv.QConstr] and not conflict.bounds
    assert "far: x[0] + x[1] + x[2] >= 3" in str(conflict) and "ball" in str(conflict)
    m.remove([ball, far])
    m.addConstr(x[1].item() == tv.exp(x[0].item()), name="exp")
    m.addGenConstrIndicator(on, True, x[1] <= -1, name="if")
    m.addConstr(on >= 1, name="always")
    text = str(m.conflict())
    assert all(name in text for name in ("exp", "if", "always")) and "idle" not in text


def test_bounds_that_cross_and_rows_without_variables(m):
    x = m.addMVar(2, lb=[0.0, 0.25], ub=[1.0, 0.75], vtype=["C", "I"], name="x")
    assert [(v.VarName, which) for v, which in m.conflict().bounds] == [
        ("x[1]", "LB"),
        ("x[1]", "UB"),
    ]
    x.UB = 1.0
    m.addConstr(tv.LinExpr() >= 1, name="nothing")
    assert "nothing: 0 >= 1" in str(m.conflict())


def test_what_has_no_conflict(m):
    x = m.addMVar(3)
    with pytest.raises(tv.TaviroError, match="can hold together"):
        m.conflict()
    m.addConstr(x.sum() <= -1)
    m.setOption("timeLimit", 0)
    with pytest.raises(tv.TaviroError, match="give it more time"):
        m.conflict()


def test_a_conflict_in_a_large_model_takes_few_solves(m, capsys):
    n = 5_000
    x = m.addMVar(n, ub=1.0, name="x")
    A = sp.random_array((n, n), density=5 / n, rng=np.random.default_rng(1), format="csr")
    m.addConstr(A @ x <= 3.0)
    m.addConstr(x[:5].sum() >= 4, name="a")
    m.addConstr(x[2:4].sum() <= 0.5, name="b")
    m.setOption("log", True)
    conflict = m.conflict()
    assert int(capsys.readouterr().out.split("after ")[1].split()[0]) < 200
    assert [c.ConstrName for c in conflict.constrs] == ["a", "b"] and len(conflict.bounds) == 3
