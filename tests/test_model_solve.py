"""Solving: outcomes, attributes of a solution, changes between solves, options, interrupts."""

import os
import signal
import subprocess
import sys
import textwrap

import numpy as np
import pytest
from inside import engine_of

import taviropy as tv
from taviropy import TVO, TaviroError

Status = TVO.Status


@pytest.fixture
def model():
    with tv.Model("test") as m:
        m.setOption("log", False)
        yield m


def test_attributes_before_a_solve_and_of_other_kinds(model):
    x = model.addMVar(2, ub=[3, np.inf], name="x")
    c = model.addConstr(np.array([[1.0, 1.0], [1.0, 3.0]]) @ x <= [4.0, 6.0])
    assert model.Status == Status.LOADED
    with pytest.raises(TaviroError, match="optimize"):
        model.getAttr("Objective")
    with pytest.raises(TaviroError, match="update"):
        x.getAttr("X")
    model.optimize()
    assert model.Status == Status.OPTIMAL and str(model.Status) == "OPTIMAL"
    assert model.SolveTime >= 0 and model.NumNonzeros == 4
    for handle, name in (
        (x, "RHS"),
        (c, "X"),
        (x, "NumVars"),
        (model, "LB"),
        (x, "lb"),
        (x[0].item(), "Dual"),
        (model, "__array_interface__"),
    ):
        with pytest.raises(AttributeError):
            handle.getAttr(name)
        assert not hasattr(handle, name)
    with pytest.raises(AttributeError, match="cannot be set"):
        model.NumVars = 3
    with pytest.raises(AttributeError):
        model.nosuch = 3


def test_a_small_change_keeps_the_basis(model):
    rng = np.random.default_rng(2)
    x = model.addMVar(200, ub=1, obj=-rng.random(200))
    c = model.addConstr(rng.random((100, 200)) @ x <= 20)
    model.optimize()
    highs = engine_of(model)._highs
    first = highs.getInfo().simplex_iteration_count
    c[3].RHS = 19.9
    model.optimize()
    assert highs is engine_of(model)._highs
    assert highs.getInfo().simplex_iteration_count < first / 5


def test_values_last_until_the_next_solve(model):
    x = model.addMVar(4, ub=[1, 2, 3, 4], obj=-1)
    c = model.addConstr(x <= 9)
    model.optimize()
    y = model.addMVar(1)
    model.remove([x[1], c[0]])
    model.update()
    np.testing.assert_array_equal(x[[0, 2, 3]].X, [1, 3, 4])
    np.testing.assert_array_equal(c[1:].Slack, [7, 6, 5])
    with pytest.raises(TaviroError, match="removed"):
        x.getAttr("X")
    with pytest.raises(TaviroError, match="added after"):
        y.getAttr("X")
    assert model.Objective == -10
    model.load()
    assert model.Status == Status.LOADED
    model.optimize()
    assert model.Objective == -8 and y.X == 0


@pytest.mark.parametrize(
    "name, value, error",
    [
        ("LB", np.nan, TaviroError),
        ("Obj", np.inf, TaviroError),
        ("UB", "1", TaviroError),
        ("VType", "X", TaviroError),
        ("VType", 1.0, TaviroError),
        ("VarName", 1.0, TaviroError),
        ("LB", [1.0, 2.0], AttributeError),
        ("LB", [1, np.nan, 3], TaviroError),
        ("LB", [1, None, 3], TaviroError),
        ("LB", [1j, 2, 3], TaviroError),
        ("VType", ["C", "I", "CI"], TaviroError),
        ("X", 1.0, AttributeError),
    ],
)
def test_attributes_refuse_what_does_not_fit(model, name, value, error):
    x = model.addMVar(3, lb=-1, name="x")
    model.update()
    before = [x.getAttr(each).tolist() for each in ("LB", "UB", "Obj", "VType", "VarName")]
    with pytest.raises(error):
        x.setAttr(name, value)
    assert before == [x.getAttr(each).tolist() for each in ("LB", "UB", "Obj", "VType", "VarName")]
    if error is TaviroError and not isinstance(value, list):
        with pytest.raises(error):
            x[0].item().setAttr(name, value)


def test_infinite_sides_that_no_value_satisfies_name_their_element(model):
    x = model.addMVar(3, lb=[0, np.inf, 0], name="x")
    with pytest.raises(TaviroError, match=r"'x\[1\]'"):
        model.optimize()
    x.LB = 0
    c = model.addConstr(x >= np.inf, name="c")
    with pytest.raises(TaviroError, match=r"'c\[0\]'"):
        model.optimize()
    c.Sense = "<"
    model.optimize()
    assert model.Status == Status.OPTIMAL
    x.LB = np.inf
    model.remove(x[0])
    model.update()  # the removal takes place, whatever the engine says of the bound
    assert x._idxarr().tolist() == [-2, 0, 1] and model.NumVars == 2
    with pytest.raises(TaviroError, match=r"'x\[1\]'"):
        model.optimize()
    x[1:].LB = 1
    model.optimize()
    assert model.Status == Status.OPTIMAL


def test_options_apply_to_the_solves_that_follow(model):
    model.setOption("presolve", "off")
    model.setOption("simplex_iteration_limit", 0)
    x = model.addMVar(30, ub=1, obj=-1)
    model.addConstr(np.random.default_rng(0).random((9, 30)) @ x <= 3)
    model.optimize()
    assert model.Status == Status.INTERRUPTED  # by the limit on iterations
    model.setOption("simplex_iteration_limit", 10**6)
    model.setOption("timeLimit", 0)
    model.optimize()
    assert model.Status == Status.TIME_LIMIT
    model.setOption("timeLimit", 1e4)
    for _ in range(3):
        model.optimize()
        assert model.Status == Status.OPTIMAL
    with pytest.raises(ValueError, match="engine"):
        tv.Model(engine="nosuch")


def test_the_log_is_live_on_standard_output():
    code = textwrap.dedent("""
        import hard
        m, _ = hard.market_split()
        m.setOption("log", True)
        m.setOption("timeLimit", 60)
        print("before", flush=True)
        m.optimize()
    """)
    process = subprocess.Popen(
        [sys.executable, "-c", code],
        stdout=subprocess.PIPE,
        text=True,
        cwd=os.path.dirname(__file__),
        stderr=subprocess.PIPE,
    )
    try:
        assert process.stdout.readline() == "before\n"
        lines = [process.stdout.readline() for _ in range(8)]
        assert process.poll() is None and any("MIP" in line for line in lines)
        process.send_signal(signal.SIGINT)
        _, errors = process.communicate(timeout=30)
        assert process.returncode == 0 and not errors
    finally:
        process.kill()
        process.communicate()


def test_fixed_variables_need_no_engine(capfd):
    m = tv.Model()
    x = m.addMVar(3, lb=[1.0, 2.0, 3.0], ub=[1.0, 2.0, 3.0], obj=[1.0, 0.0, -1.0])
    m.optimize()
    assert capfd.readouterr().out == ""
    assert x.X.tolist() == [1.0, 2.0, 3.0] and m.Objective == -2.0
    assert m.Status == tv.TVO.Status.OPTIMAL and x.ReducedCost.tolist() == [1.0, 0.0, -1.0]

    # One more to decide, and an engine it is; then back.
    y = m.addVar(ub=4.0, obj=-1.0)
    m.optimize()
    assert "HiGHS" in capfd.readouterr().out and m.Objective == -6.0
    y.UB = 0.0
    m.optimize()
    assert capfd.readouterr().out == "" and m.Objective == -2.0
    y.UB = 1.0
    m.optimize()
    assert m.Objective == -3.0


def test_an_unbounded_model_is_not_taken_for_infeasible():
    """The presolve of HiGHS 1.15 makes that mistake with the two sides of a range."""
    a = np.array([-2.0, -1.0, 2.0])
    with tv.Model() as m:
        m.setOption("log", False)
        x = m.addMVar(3, lb=-np.inf)
        m.addConstr(a @ x >= -2)
        upper = m.addConstr(a @ x <= 0)
        m.setObjective(x[1] - x[2])
        m.optimize()
        assert m.Status == TVO.Status.UNBOUNDED
        m.setObjective(x[2] - x[1], "max")
        m.optimize()
        assert m.Status == TVO.Status.UNBOUNDED
        upper.RHS = -3
        m.optimize()
        assert m.Status == TVO.Status.INFEASIBLE
        upper.RHS = 0
        x.LB, x.UB = -1, 1
        m.optimize()
        assert m.Objective == pytest.approx(1.5)
