"""Model.check: violations of every kind are found, measured and named; sound answers pass."""

import numpy as np
import pytest
import scipy.sparse as sp

import taviropy as tv
from taviropy import TaviroError
from taviropy._scalars import data_of


@pytest.fixture
def model():
    with tv.Model() as m:
        m.setOption("log", False)
        yield m


def spoil(model, attrname, values):
    """Put other values into the solution."""
    data_of(model).solution.values[attrname] = np.array(values, float)


def test_a_violation_of_each_kind_is_named(model):
    x = model.addMVar(3, ub=4, name="x")
    model.addVar(vtype="I", name="k")
    b = model.addVar(vtype="B", name="b")
    model.addConstr(x.sum() <= 1000, name="sum")
    model.addConstr(x[0] >= 1, name="low")
    model.addConstr(x @ x <= 9, name="ball")
    model.addConstr(x[1] == tv.exp(x[2]), name="curve")
    model.addGenConstrIndicator(b, True, x[2] <= 0.5, name="switch")
    model.optimize()
    assert model.check() and model.check().ok
    for values, kind, size, name in [
        ([1, 1, 0, 0, 0], None, 0, ""),
        ([1, 1, 0, 0.25, 0], "integrality", 0.25, "k"),
        ([5, np.e, 1, 0, 0], "bounds", 0.25, "x[0]"),
        ([0.5, 1, 0, 0, 0], "rows", 0.5, "low"),
        ([2, np.exp(1.5), 1.5, 0, 0], "quadratic rows", (4 + np.exp(3) + 2.25 - 9) / 9, "ball"),
        ([1, 1.75, 0, 0, 0], "nonlinear rows", 0.75, "curve"),
        ([1, np.exp(0.75), 0.75, 0, 1], "indicators", 0.25, "switch"),
        ([1, np.exp(0.75), 0.75, 0, 0], None, 0, ""),
        ([1, np.nan, 0, 0, 0], "bounds", np.inf, "x[1]"),
    ]:
        spoil(model, "X", values)
        check = model.check()
        assert check.ok == (kind is None) and f"'{name}'" in str(check) or kind is None
        if kind is not None:
            found = check[kind]
            assert found.size == pytest.approx(size) and found.name == name
    spoil(model, "X", [1, 1.0001, 0, 0, 0])
    assert not model.check() and model.check(1e-3) and model.check(1e-3).worst.name == "curve"
    with pytest.raises(KeyError, match="there are bounds"):
        model.check()["colour"]


@pytest.mark.parametrize("sense", ["min", "max"])
@pytest.mark.parametrize("quadratic", [False, True])
def test_dual_values_are_checked(model, sense, quadratic):
    sign = 1 if sense == "min" else -1
    x = model.addMVar(2, lb=-1, ub=8, name="x")
    model.addConstr(np.array([[1.0, 2.0], [3.0, 1.0]]) @ x >= np.array([4.0, 6.0]), name="c")
    model.addConstr(x[0] - x[1] <= 100, name="loose")
    expr = x[0] + 1.5 * x[1]
    model.setObjective(sign * (expr + (x @ sp.eye_array(2) @ x if quadratic else 0)), sense)
    model.optimize()
    check = model.check()
    assert check and {"stationarity", "complementarity", "gap"} <= {
        v.kind for v in check.violations
    }
    duals, reduced = (data_of(model).solution.array(name) for name in ("Dual", "ReducedCost"))
    spoil(model, "Dual", duals + np.array([0, 0, 0.25]))
    assert model.check()["stationarity"].size > 0.05
    A = np.array([1.0, -1.0])
    spoil(model, "ReducedCost", reduced - 0.25 * A)  # consistent, but for a row that doesn't bind
    check = model.check()
    assert check["stationarity"].size < 1e-6 and check["complementarity"].size > 0.1
    assert check["gap"].size > check["complementarity"].size and not check


def test_it_goes_by_the_data_as_they_are(model):
    x = model.addMVar(2, ub=3, obj=-1, name="x")
    c = model.addConstr(x.sum() <= 5, name="c")
    with pytest.raises(TaviroError, match="not been solved"):
        model.check()
    model.optimize()
    assert model.check()
    c.RHS = 4
    assert model.check()["rows"].size == pytest.approx(0.25)
    c.RHS = 5
    y = model.addMVar(1, name="y")
    assert model.check()  # it waits
    model.update()
    with pytest.raises(TaviroError, match=r"'y\[0\]'.*added after"):
        model.check()
    model.remove(y)
    model.remove(c)
    model.update()
    assert model.check()["bounds"].size == 0
