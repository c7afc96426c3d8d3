"""Conflicts of infeasible models: their members can't hold together, and none of them is idle."""

import numpy as np
import pytest
import scipy.sparse as sp

import taviropy as tv

N, ROWS = 12, 15


def planted(m, seed):
    """A model of a random feasible part and a small contradiction; odd seeds have integers."""
    rng = np.random.default_rng(seed)
    A = rng.integers(-3, 4, (ROWS, N)) * (rng.random((ROWS, N)) < 0.3)
    x = m.addMVar(N, ub=10, vtype="I" if seed % 2 else "C", name="x")
    inside = rng.integers(0, 11, N)
    m.addConstr(A @ x <= A @ inside + rng.integers(0, 3, ROWS), name="c")
    k, a = rng.integers(0, N - 2), rng.integers(1, 4, 3)
    m.addConstr(a @ x[k : k + 3] >= 10 * a.sum() - 1, name="p")
    m.addConstr(x[k] + x[k + 1] <= 15, name="q")
    m.update()
    return x


def is_feasible(names, bounds, seed, but):
    m = tv.Model("again")
    m.setOption("log", False)
    x = planted(m, seed)
    m.remove([c for c in m.getConstrs().tolist() if c.ConstrName not in names - {but}])
    for v in x.tolist():
        for attribute, open_end in (("LB", -np.inf), ("UB", np.inf)):
            if (v.VarName, attribute) not in bounds - {but}:
                setattr(v, attribute, open_end)
    m.optimize()
    assert m.Status in ("OPTIMAL", "INFEASIBLE")
    return m.Status == "OPTIMAL"


@pytest.mark.parametrize("seed", range(6))
def test_a_conflict_is_irreducible(m, seed):
    x = planted(m, seed)
    conflict = m.conflict()
    names = {c.ConstrName for c in conflict.constrs}
    bounds = {(v.VarName, attribute) for v, attribute in conflict.bounds}
    assert conflict.is_minimal and len(conflict) == len(names) + len(bounds)
    assert not is_feasible(names, bounds, seed, None)
    for member in names | bounds:
        assert is_feasible(names, bounds, seed, member), member
    # The model is as it was.
    assert np.array_equal(x.UB, np.full(N, 10.0)) and m.NumConstrs == ROWS + 2


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
