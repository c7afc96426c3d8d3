"""How the package behaves towards its surroundings: options, the log, Ctrl-C, forks, errors."""

import math
import os
import signal
import subprocess
import sys
import textwrap
import threading
import time

import numpy as np
import pytest
from hard import market_split

import taviropy as tv
from taviropy import TVO, TaviroError
from taviropy.engines.running import silent

pytest.importorskip("pyscipopt")
Status = TVO.Status
SURROGATE = "\ud800"
NO_OPTION = object()


def quiet(engine="auto"):
    model = tv.Model(engine=engine)
    model.setOption("log", False)
    return model


def knapsack(engine):
    """A small model for any engine."""
    rng = np.random.default_rng(0)
    model = quiet(engine)
    x = model.addMVar(
        30, ub=1, obj=-rng.random(30), vtype="B" if engine in ("highs", "scip") else "C"
    )
    model.addConstr(rng.random((10, 30)) @ x <= 4)
    model.update()
    return model, x


def run_python(code, *arguments, **options):
    """Run a program in the tests' folder: its exit status, standard output and error output."""
    command = [sys.executable, "-W", "ignore::DeprecationWarning", "-c", textwrap.dedent(code)]
    options = {"capture_output": True, "text": True, "timeout": 120, **options}
    folder = os.path.dirname(__file__)
    return subprocess.run([*command, *arguments], cwd=folder, check=False, **options)


# Options


@pytest.mark.parametrize(
    "engine, name, kept, refused",
    [
        ("auto", "timeLimit", {1e30: math.inf, None: math.inf, 3: 3.0}, (-1, math.nan, "3", True)),
        ("auto", "gap", {0.1: 0.1, None: None}, (-1, math.inf, math.nan, "a", 10**400, [0.1])),
        ("auto", "threads", {2: 2, None: None, 2**31 - 1: 2**31 - 1}, (2**31, -1, 1.5, "2", True)),
        ("auto", "seed", {np.int64(4): 4}, (-1, 2**31, 0.5)),
        ("auto", "log", {0: False, np.True_: True}, ("yes", None, 2, np.zeros(2))),
        ("auto", "raiseInterrupt", {1: True}, ("no", None)),
        ("auto", "logFile", {"": None}, (3, "a\0b", SURROGATE, "/no/such/folder/log", os.curdir)),
        ("highs", "presolve", {"off": "off", None: None}, ("maybe", 3)),
        ("highs", "time_limit", {3: 3.0}, (-1.0, "a", True, math.nan)),
        ("highs", "simplex_strategy", {4: 4}, (77, 2**40, 1.0, "1")),
        ("highs", "output_flag", {}, (True,)),  # "log" says it
        ("scip", "presolve", {}, ("off",)),  # another engine's
        ("scip", "limits/nodes", {7: 7}, (-7, "a", 2**70)),
        ("scip", "nodeselection/childsel", {"h": "h"}, ("hh", "q", 1)),
        ("scip", "limits/time", {5: 5.0}, (-1.0, math.nan)),
        ("clarabel", "max_iter", {50: 50}, (-1, 2**40, 3.7, "a")),
        ("clarabel", "tol_feas", {1e-7: 1e-7}, (-1.0, math.nan, "a")),
        ("clarabel", "direct_solve_method", {"qdldl": "qdldl"}, ("x", 1)),
        ("auto", "nosuch", {}, (1, None)),
        ("auto", 3, {}, (1,)),
        ("auto", [], {}, (1,)),
    ],
)
def test_options_are_checked_when_they_are_set(engine, name, kept, refused, capfd):
    with tv.Model(engine=engine) as m:
        for value, expected in kept.items():
            m.setOption(name, value)
            assert m.getOption(name) == expected
            m.setOption(name, m.getOption(name))
        before = m.getOption(name) if kept else NO_OPTION
        for value in refused:
            with pytest.raises(TaviroError) as caught:
                m.setOption(name, value)
            assert caught.value.code == TVO.Error.ERROR_INVALID_ARGUMENT
            assert str(name) in str(caught.value) and len(str(caught.value)) < 300
        assert before is NO_OPTION or m.getOption(name) == before
    assert capfd.readouterr() == ("", "")


def test_more_threads_than_the_machine_can_start():
    for engine in ("highs", "scip", "clarabel"):
        model, _ = knapsack(engine)
        model.setOption("threads", 2**31 - 1)
        model.optimize()
        assert model.Status == Status.OPTIMAL


# The log


@pytest.mark.parametrize("engine", ["highs", "scip", "clarabel", "ipopt"])
@pytest.mark.filterwarnings("ignore::taviropy.NumericsWarning")
def test_without_the_log_nothing_is_written(engine, capfd):
    for change in (
        lambda m, x: setattr(x, "Start", 1.0),  # infeasible
        lambda m, x: m.addConstr(x.sum() >= 40),
        lambda m, x: m.addConstr(1e-13 * x[0] + x[1] <= 1),  # SCIP's finest tolerances
        lambda m, x: (setattr(x, "VType", "C"), m.setObjective(x @ x - x.sum())),
        lambda m, x: m.setOption("timeLimit", 0),
    ):
        model, x = knapsack(engine)
        change(model, x)
        model.optimize()
    assert capfd.readouterr() == ("", "")


@pytest.mark.parametrize("engine", ["highs", "scip", "clarabel", "ipopt"])
def test_where_the_log_goes(engine, capsys, tmp_path):
    path = tmp_path / "solve.log"
    model, x = knapsack(engine)
    model.setOption("log", True)
    model.setOption("logFile", path)
    assert path.read_text() == ""
    model.optimize()
    shown = capsys.readouterr().out
    assert len(shown.splitlines()) > 5 and path.read_text() == shown
    model.setOption("log", False)
    model.update()
    x.UB = 0.5
    model.optimize()  # adds to the file
    assert capsys.readouterr().out == ""
    grown = path.read_text()
    assert grown.startswith(shown) and len(grown) > len(shown)
    model.setOption("logFile", None)
    model.setOption("log", True)
    model.optimize()
    assert capsys.readouterr().out and path.read_text() == grown


class Broken:
    def write(self, text):
        raise BrokenPipeError(32, "Broken pipe")

    flush = fileno = write


def closed():
    stream = open(os.devnull, "w")  # noqa: SIM115
    stream.close()
    return stream


@pytest.mark.parametrize("engine", ["highs", "scip", "clarabel"])
def test_an_output_that_fails_does_not_fail_a_solve(engine, monkeypatch):
    for stream in (Broken(), closed(), None):
        model, _ = knapsack(engine)
        model.setOption("log", True)
        with monkeypatch.context() as patch:
            patch.setattr(sys, "stdout", stream)
            model.optimize()
        assert model.Status == Status.OPTIMAL
    code = """
        import os, sys, test_manners
        model, _ = test_manners.knapsack(sys.argv[1])
        model.setOption("log", True)
        if sys.argv[2] == "closed":
            os.close(1)
        model.optimize()
        os.write(2, str(model.Status).encode())
        os._exit(0)
    """
    done = run_python(code, engine, "closed")
    assert (done.returncode, done.stderr) == (0, "OPTIMAL")
    reading, writing = os.pipe()
    os.close(reading)
    done = run_python(code, engine, "broken", stdout=writing, stderr=-1, capture_output=False)
    os.close(writing)
    assert (done.returncode, done.stderr) == (0, "OPTIMAL")


# Ctrl-C


def press(*seconds):
    for each in seconds:
        threading.Timer(each, os.kill, (os.getpid(), signal.SIGINT)).start()


@pytest.mark.parametrize("engine", ["highs", "scip"])
def test_ctrl_c_twice_or_by_an_option_ends_a_loop(engine):
    with market_split(engine)[0] as m:
        m.setOption("timeLimit", 30)
        m.setOption("raiseInterrupt", True)
        press(0.5)
        with pytest.raises(KeyboardInterrupt):
            m.optimize()
        assert m.Status == Status.INTERRUPTED and m.SolveTime < 20
        m.setOption("raiseInterrupt", False)
        press(0.5, 0.6)
        try:
            m.optimize()
            time.sleep(1)
        except KeyboardInterrupt:
            assert m.Status == Status.INTERRUPTED
        else:
            pytest.fail("the second Ctrl-C was lost")
    assert signal.getsignal(signal.SIGINT) is signal.default_int_handler


def test_a_handler_of_the_users_own_stays_in_charge():
    class Alarm(Exception):
        pass

    def ring(number, frame):
        raise Alarm

    before = signal.signal(signal.SIGINT, ring)
    try:
        for engine in ("highs", "scip"):
            with market_split(engine)[0] as m:
                m.setOption("timeLimit", 30)
                press(0.5)
                with pytest.raises(Alarm):
                    m.optimize()
                m.setOption("timeLimit", 0.2)
                m.optimize()  # the model is as good as before
                assert m.Status == Status.TIME_LIMIT
    finally:
        signal.signal(signal.SIGINT, before)


def test_other_threads_run_while_a_solver_works():
    for engine in ("highs", "scip"):
        for log in (False, True):
            with market_split(engine)[0] as m:
                m.setOption("timeLimit", 0.6)
                m.setOption("log", log)
                beats = []
                done = threading.Event()

                def beat(beats=beats, done=done):
                    while not done.wait(0.02):
                        beats.append(time.monotonic())

                thread = threading.Thread(target=beat)
                thread.start()
                m.optimize()
                done.set()
                thread.join()
                assert len(beats) > 8


def test_more_nonlinear_solves_than_scip_knows_threads():
    code = """
        import threading
        import taviropy as tv
        def solve():
            with tv.Model(engine="scip") as m:
                m.setOption("log", False)
                x, y = m.addMVar((2, 2), lb=-2, ub=2), m.addMVar((2, 2), lb=-99, ub=99)
                v, z = m.addVar(lb=0.1, ub=6), m.addVar(lb=-9, ub=40)
                m.addConstr(y == x**3 - x / (4 + x[0, 0]))
                m.addConstr(z == v**1.5 + 1)
                m.addConstr(z >= 2 ** (v - 1))
                m.setObjective(y.sum() + 3 * z)
                m.optimize()
                assert abs(z.X - 0.1**1.5 - 1) < 1e-4
        for _ in range(20):
            solve()
            threads = [threading.Thread(target=solve) for _ in range(4)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
    """
    assert run_python(code).returncode == 0


# Forks


@pytest.mark.skipif(not hasattr(os, "fork"), reason="needs os.fork")
@pytest.mark.parametrize("engine", ["highs", "scip"])
def test_a_fork_after_a_solve_with_several_threads(engine):
    code = """
        import os, signal, sys, hard
        def split():
            model, _ = hard.market_split(sys.argv[1])
            model.setOption("threads", 2)
            model.setOption("timeLimit", 0.5)
            return model
        def solve(model, how):
            model.optimize()
            print(how, model.Status, flush=True)
        old = split()
        solve(old, "parent")
        for how in ("new", "old", "dropped"):
            child = os.fork()
            if not child:
                signal.alarm(30)
                if how == "dropped":
                    del old
                    sys.exit(0)
                solve(split() if how == "new" else old, how)
                os._exit(0)
            assert os.waitpid(child, 0)[1] == 0, how
        solve(old, "parent")
    """
    done = run_python(code, engine)
    expected = [f"{how} TIME_LIMIT" for how in ("parent", "new", "old", "parent")]
    assert done.stdout.split("\n")[:-1] == expected and done.returncode == 0, done.stderr


# Errors


def test_names_that_cannot_be_encoded_are_refused_where_they_are_given(m):
    x, v = m.addMVar(2), m.addVar()
    b = m.addVar(vtype="B", name="é")
    c, d, e = m.addConstr(v <= 1), m.addConstr(v * v <= 1), m.addConstr(v == b**3)
    m.update()
    sizes = m.NumVars, m.NumConstrs, m.NumQConstrs, m.NumGenConstrs
    for give in (
        lambda: tv.Model(SURROGATE),
        lambda: m.addVar(name=SURROGATE),
        lambda: m.addMVar(2, name=SURROGATE),
        lambda: m.addMVar(2, name=["a", SURROGATE]),
        lambda: m.addConstr(v <= 1, name=SURROGATE),
        lambda: m.addConstr(x <= 1, name=["a", SURROGATE]),
        lambda: m.addConstr(x @ x <= 1, name=SURROGATE),
        lambda: m.addGenConstrNL(x, x**3, name=SURROGATE),
        lambda: m.addGenConstrIndicator(b, 1, v <= 1, name=SURROGATE),
        lambda: setattr(m, "ModelName", SURROGATE),
        lambda: setattr(v, "VarName", SURROGATE),
        lambda: setattr(x, "VarName", SURROGATE),
        lambda: setattr(c, "ConstrName", SURROGATE),
        lambda: setattr(d, "QName", SURROGATE),
        lambda: setattr(e, "GenName", SURROGATE),
    ):
        with pytest.raises(TaviroError, match="surrogate"):
            give()
    m.update()
    assert (m.NumVars, m.NumConstrs, m.NumQConstrs, m.NumGenConstrs) == sizes
    assert b.VarName == "é" and tv.Model(None).ModelName == ""


@pytest.mark.filterwarnings("ignore::taviropy.NumericsWarning")
@pytest.mark.parametrize("engine", ["highs", "scip", "clarabel"])
def test_what_a_solver_refuses_is_an_error_of_our_own(engine, monkeypatch):
    changes = (
        lambda m, x: setattr(x, "Obj", -1e25),
        lambda m, x: setattr(x, "UB", 1e25),
        lambda m, x: m.addConstr(1e25 * x[0] <= 1),
        lambda m, x: m.addConstr(x[0] <= 1e25),
        lambda m, x: m.addConstr(1e25 * x @ x <= 1),
        lambda m, x: m.setObjective(1e25 * x @ x),
        lambda m, x: setattr(m, "ObjOffset", 1e308),
        lambda m, x: m.addConstr(x[0] == 1e300 * tv.exp(x[1])),
        lambda m, x: m.addConstr(x[0] == tv.log(-1 - x[1])),
    )
    for change in changes:
        model = quiet(engine)
        x = model.addMVar(2, ub=1, obj=1, name="x")
        model.update()
        change(model, x)
        for call in (model.load, model.optimize):
            try:
                call()
            except TaviroError as error:
                assert error.code in (TVO.Error.ENGINE_FAILED, TVO.Error.NOT_SUPPORTED)
    # A solver's own kinds of errors, bare ones too, and one of the user's.
    for raised, expected in (
        (Exception("SCIP: something"), TaviroError),
        (RuntimeError("vector::_M_range_check"), TaviroError),
        (MemoryError(), MemoryError),
        (TimeoutError("of a handler"), TimeoutError),
    ):
        model, _ = knapsack(engine)
        kind = type(model_engine(model))

        def fail(*arguments, raised=raised):
            raise raised

        with monkeypatch.context() as patch:
            patch.setattr(kind, "solve", fail)
            with pytest.raises(expected) as caught:
                model.optimize()
            if expected is TaviroError:
                assert engine in str(caught.value) and str(raised) in str(caught.value)
            assert model.Status == Status.FAILED
        model.optimize()
        assert model.Status == Status.OPTIMAL


def model_engine(model):
    from inside import engine_of

    model.load()
    return engine_of(model)


def test_messages_say_how_to_mend_it(m):
    x, v = m.addMVar(3, name="x"), m.addVar(name="v")
    for use, words in (
        (lambda: x[1:].LB, r"'x\[1\]' waits .* call m.update\(\)"),
        (lambda: v.UB, "'v' waits"),
        (lambda: v < 1, "write '<='"),
        (lambda: 2 * v > 1, "write '>='"),
        (lambda: m.addVar(ub=None), r"ub=None.*float\('inf'\)"),
        (lambda: m.addMVar(2, lb=[0, None]), r"None.*float\('inf'\)"),
        (lambda: m.addConstr(np.array([tv.exp(v), v**3]) <= 1), "'array <= tv.MLinExpr.zeros"),
        (lambda: m.addConstr(tv.exp(x) == 1), "write 'y == x"),
    ):
        with pytest.raises((TaviroError, TypeError), match=words) as caught:
            use()
        assert "NaN" not in str(caught.value)
    m.update()
    for assign in (lambda: setattr(v, "UB", None), lambda: setattr(x, "LB", [0, None, 0])):
        with pytest.raises(TaviroError, match="None") as caught:
            assign()
        assert "NaN" not in str(caught.value) and "float('inf')" in str(caught.value)


def test_nonlinear_arrays_beside_numbers_and_how_to_write_them(m):
    v, x, y = m.addVar(ub=9), m.addMVar(2, ub=9), m.addMVar(2, ub=9)
    array = np.array([tv.exp(v), v**2], dtype=object)
    with pytest.raises(TypeError, match="not supported between"):
        m.addConstr(tv.exp(x) <= 1)
    m.addConstr(tv.exp(x) <= tv.MLinExpr.zeros(x.shape) + 4)
    m.addConstr(array <= tv.MLinExpr.zeros(array.shape) + np.array([100, 4]))
    m.addConstr(y <= array)
    m.setObjective(x.sum() + v + y.sum(), "max")
    m.optimize()
    assert m.Status == Status.OPTIMAL
    np.testing.assert_allclose(x.X, math.log(4), atol=1e-5)
    assert pytest.approx(2, abs=1e-5) == v.X
    np.testing.assert_allclose(y.X, [math.exp(2), 4], atol=1e-4)


def test_a_missing_bound_does_not_deny_the_solution():
    with quiet("highs") as m:
        rng = np.random.default_rng(0)
        x = m.addMVar(40, ub=1, obj=rng.random(40))
        m.addConstr(rng.random((20, 40)) @ x <= 3)
        m.setOption("presolve", "off")
        m.setOption("solver", "simplex")
        m.setOption("simplex_strategy", 4)  # primal: feasible on its way
        m.ObjSense = "max"
        for limit in range(1, 60):
            m.setOption("simplex_iteration_limit", limit)
            m.optimize()
            if m.Status != Status.INTERRUPTED:
                pytest.fail("no solve was cut with a solution")
            try:
                solution = x.X
            except TaviroError:
                continue
            break
        assert solution.shape == (40,) and m.Objective >= 0
        with pytest.raises(TaviroError) as caught:
            m.getAttr("Bound")
        assert "solution" not in str(caught.value) and "Bound" in str(caught.value)


def test_threads_that_silence_a_solver_leave_the_streams_as_they_were(capfd):
    """Descriptors are exchanged for the whole process: nobody may keep another's empty one."""

    def work():
        for _ in range(20):
            with silent(2):
                time.sleep(0.001)

    threads = [threading.Thread(target=work) for _ in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    os.write(2, b"heard")
    assert capfd.readouterr().err == "heard"
