"""Quadratic programs that take long, which HiGHS solves in a process of their own."""

import os
import subprocess
import sys
import textwrap

import numpy as np
import pytest
from inside import engine_of

import taviropy as tv
from taviropy import TVO, TaviroError
from taviropy.engines import apart, highs

Status = TVO.Status
LONG = """
    import os, signal, time
    import numpy as np
    import scipy.sparse as sp
    import taviropy as tv
    rng = np.random.default_rng(1)
    m = tv.Model(engine="highs")
    x = m.addMVar(5000, lb=-1, ub=1)
    F = sp.random_array((5000, 5000), density=1e-3, rng=rng, format="csr")
    m.addConstr(rng.random((50, 5000)) @ x <= rng.random(50))
    m.setObjective(x @ (F.T @ F + 1e-3 * sp.eye_array(5000)) @ x + rng.normal(size=5000) @ x)
"""


def test_ctrl_c_and_time_limits_end_what_takes_long():
    code = LONG + """
    pressed = []
    def press(progress):
        if progress.seconds > 3 and not pressed:
            pressed.append(time.monotonic())
            os.kill(os.getpid(), signal.SIGINT)
    for key in ("ctrl-c", "twice", "limit"):
        started = time.monotonic()
        pressed.clear()
        m.setOption("raiseInterrupt", key == "twice")
        if key == "limit":
            m.setOption("timeLimit", 3)
        try:
            m.optimize(callback=press if key != "limit" else None)
        except KeyboardInterrupt:
            print("raised", end=" ")
        late = time.monotonic() - (pressed[0] if pressed else started + 3)
        print(m.Status, "in time" if late < 5 else f"{late} s late")
    """  # fmt: skip
    command = [sys.executable, "-c", textwrap.dedent(code)]
    done = subprocess.run(command, capture_output=True, text=True, timeout=120, check=False)
    told = [line for line in done.stdout.splitlines() if line.endswith(("time", "late"))]
    wanted = ["INTERRUPTED in time", "raised INTERRUPTED in time", "TIME_LIMIT in time"]
    assert told == wanted, done.stderr
    assert done.stdout.count("QP has") > 3  # the log of both processes


@pytest.fixture
def program():
    """A small program with everything that an answer has."""
    rng = np.random.default_rng(1)
    model = tv.Model(engine="highs")
    x = model.addMVar(30, lb=-1, ub=1, name="x")
    F = rng.normal(size=(30, 30))
    rows = model.addConstr(rng.random((10, 30)) @ x <= rng.random(10))
    model.setObjective(x @ (-F.T @ F) @ x + rng.normal(size=30) @ x + 7, TVO.MAXIMIZE)
    model.remove(model.addMVar(2))  # numbers and places differ
    model.optimize()
    return model, x, rows


def test_the_answer_is_that_of_this_process(program, capsys):
    model, x, rows = program
    expected = [model.Objective, x.X, x.ReducedCost, rows.Dual, rows.Slack]
    assert "process" not in capsys.readouterr().out
    engine_of(model).patience = 0.0
    model.optimize()
    assert model.Status == Status.OPTIMAL
    found = [model.Objective, x.X, x.ReducedCost, rows.Dual, rows.Slack]
    for one, other in zip(found, expected, strict=True):
        np.testing.assert_allclose(one, other, atol=1e-6)
    assert "process" in capsys.readouterr().out
    model.addConstr(x.sum() >= 31)
    model.optimize()
    assert model.Status == Status.INFEASIBLE
    model.addConstr(x[0] <= 1)
    model.setOption("qp_iteration_limit", 0)
    model.optimize()
    assert model.Status != Status.OPTIMAL


def test_without_a_process_it_is_solved_here(program, monkeypatch, capsys):
    model, _, _ = program
    engine_of(model).patience = 0.0
    expected = model.Objective
    for executable in (None, "/no/such/python", sys.executable + "x", "/bin/false"):
        monkeypatch.setattr(apart, "get_executable", lambda executable=executable: executable)
        model.optimize()
        assert model.Status == Status.OPTIMAL
        assert model.Objective == pytest.approx(expected)
        assert "here after all" in capsys.readouterr().out


def test_errors_and_the_end_of_the_process_are_told(program, monkeypatch):
    model, _, _ = program
    call = apart.call_apart
    for function, argument, words in (
        (os._exit, 3, "ended with 3"),
        (os.strerror, "a", "TypeError"),
    ):

        def fail(_, arguments, run, until, function=function, argument=argument):
            return call(function, (argument,), run, until)

        monkeypatch.setattr(highs, "call_apart", fail)
        model.load()
        engine_of(model).patience = 0.0
        with pytest.raises(TaviroError, match=words):
            model.optimize()
        monkeypatch.undo()
    model.optimize()
    assert model.Status == Status.OPTIMAL
