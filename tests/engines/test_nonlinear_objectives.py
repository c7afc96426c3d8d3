"""Nonlinear objectives and inequalities, without variables by hand."""

import pickle

import numpy as np
import pytest

import taviropy as tv
from taviropy import TaviroError

ENGINES = ("scip", "ipopt", "auto")


@pytest.fixture(params=ENGINES)
def m(request):
    if request.param == "ipopt":
        pytest.importorskip("casadi")
    model = tv.Model(engine=request.param)
    model.setOption("log", False)
    return model


def solved(model):
    model.optimize()
    assert model.Status in ("OPTIMAL", "LOCALLY_OPTIMAL") and model.check()
    return model.Objective


def test_a_sum_of_functions_in_both_senses(m):
    x = m.addMVar((2, 3), lb=-2, ub=3)
    least = 6 * (2 - 2 * np.log(2)) + 1
    m.setObjective(tv.exp(x).sum() - (2 * x).sum() + 1)
    assert solved(m) == pytest.approx(least, abs=1e-6)
    assert pytest.approx(np.full((2, 3), np.log(2)), abs=1e-3) == x.X
    assert (m.NumVars, m.NumConstrs, m.NumGenConstrs) == (6, 0, 0)  # nothing of the user's is new
    m.setObjective(5 - tv.exp(x).sum() + 2 * x.sum(), "max")
    assert solved(m) == pytest.approx(6 - least, abs=1e-6)
    for other in (m.copy(), pickle.loads(pickle.dumps(m))):
        assert solved(other) == pytest.approx(6 - least, abs=1e-6)
    x.Obj = 1.0  # beside the trees
    assert solved(m) == pytest.approx(5 + 6 * (3 * np.log(3) - 3), abs=1e-6)
    m.setObjective(x.sum(), "min")
    assert solved(m) == pytest.approx(-12)


def test_scalar_expressions_rows_and_inequalities(m):
    v, w = m.addVar(lb=0.1, ub=4), m.addVar(lb=-3, ub=3)
    m.addConstr(tv.log(v) <= 1)  # the comparison says what the engine needs
    c = m.addConstr(tv.exp(w) + v >= 2)
    m.addConstr(tv.MVar.fromlist([v, w]).sum() <= 3.5)
    m.setObjective(tv.sqrt(v) * w - w * w / 4, "max")
    value = solved(m)
    grid = np.meshgrid(np.linspace(0.1, np.e, 800), np.linspace(-3, 3, 800))
    holds = (np.exp(grid[1]) + grid[0] >= 2) & (grid[0] + grid[1] <= 3.5)
    best = np.where(holds, np.sqrt(grid[0]) * grid[1] - grid[1] ** 2 / 4, -9).max()
    assert value == pytest.approx(best, abs=0.01) and value >= best - 1e-6
    m.remove(c)
    m.setObjective(v / (1 + w**2), "min")
    assert solved(m) == pytest.approx(0.01)
    m.remove(w)
    with pytest.raises(TaviroError, match="nonlinear objective uses a variable that isn't in"):
        m.optimize()


def test_inequalities_of_arrays(m):
    x = m.addMVar((2, 3), lb=-2, ub=2, obj=[1.0, 2.0, 3.0])
    top = np.array([1.0, 2.0, 3.0])
    c = m.addConstr(tv.TempConstr(tv.exp(x), "<", top))
    m.addConstr(tv.exp(x) >= tv.MLinExpr.zeros((1, 3)) + 0.5)
    m.ObjSense = "max"
    assert c.shape == (2, 3)
    assert solved(m) == pytest.approx(2 * np.log(top) @ [1, 2, 3], abs=1e-5)
    m.ObjSense = "min"
    assert solved(m) == pytest.approx(12 * np.log(0.5), abs=1e-5)


def test_a_variable_that_a_row_defines_may_stand_in_the_objective(m):
    """It isn't taken for a mere result then."""
    x, t = m.addMVar(2, lb=-2, ub=2), m.addVar(lb=-np.inf)
    m.addConstr(t == tv.exp(x[0]) + x[1] ** 2)
    m.setObjective((t - 3.0) * tv.exp(t - 3.0))
    assert solved(m) == pytest.approx(-1 / np.e, abs=1e-5)
    assert pytest.approx(2, abs=1e-2) == t.X


def test_sums_that_are_used_twice_and_fixed_variables(m):
    x = m.addMVar(1, lb=2, ub=2)
    e = tv.exp(x[0].item()) + 1.0
    for _ in range(40):
        e = e + e
    m.setObjective(e * 2.0**-40)
    assert solved(m) == pytest.approx(np.exp(2) + 1)
    m.setObjective(3 * tv.exp(x).sum())  # a sum of one element, which travels as well
    assert solved(pickle.loads(pickle.dumps(m))) == pytest.approx(3 * np.exp(2))


def test_integers_and_what_has_no_place_for_it(tmp_path):
    m = tv.Model()
    m.setOption("log", False)
    x = m.addMVar(3, lb=-3, ub=3, vtype="I", name="x")
    c = m.addConstr(x.sum() >= 4)
    m.setObjective((tv.exp(x) - 3 * x).sum())
    value = solved(m)
    assert m.Engine == "scip" and value == pytest.approx(2 * (np.e - 3) + np.exp(2) - 6, abs=1e-5)
    c.RHS = 10
    m.optimize()
    assert m.Status == "INFEASIBLE" and m.relax().total == pytest.approx(1)
    assert m.conflict().constrs == [c.item()] or len(m.conflict()) == 4
    with pytest.raises(TaviroError, match="objective is nonlinear, which neither"):
        m.write(tmp_path / "m.lp")
    with pytest.raises(TaviroError, match="has no coefficients"):
        m.getObjective()
    for engine, title in (("highs", "HiGHS"), ("clarabel", "Clarabel")):
        other = tv.Model(engine=engine)
        y = other.addMVar(2)
        other.setObjective(tv.sin(y).sum())
        with pytest.raises(TaviroError, match=f"{title} can't take.*its objective is nonlinear"):
            other.optimize()
    with pytest.raises(ValueError, match=r"has shape \(2,\): take its sum"):
        other.setObjective(tv.sin(y))
    with pytest.raises(TaviroError):
        m.setObjective(tv.sin(y).sum())  # of another model
    m.setObjective(tv.exp(x).sum() - m.addVar(), "min")
    c.RHS = 4
    m.optimize()
    assert m.Status in ("UNBOUNDED", "INFEASIBLE_OR_UNBOUNDED")
    with pytest.raises(TaviroError, match="no direction"):
        _ = x.Ray
