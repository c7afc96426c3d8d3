"""How long models, handles and data live, whom they belong to, and what a close gives back."""

import contextlib
import gc
import threading
import weakref

import numpy as np
import pytest
from heap import heap
from inside import view_of

import taviropy as tv
from taviropy import TVO, TaviroError
from taviropy._scalars import data_of


class Diet(tv.Model):
    """A model of the kind that users write: it keeps its own variables."""

    def __init__(self):
        super().__init__("diet")
        self._food = self.addMVar(3, name="food")
        self._cost = self._food.sum() + 1
        self._rows = self.addConstr(self._food >= 1)


def plain():
    m = tv.Model("plain")
    m.setOption("log", False)
    m._rows = m.addConstr(m.addMVar(3, lb=1).sum() <= 9)
    m.optimize()
    m._rows = None
    return m


def with_nonlinear_constraints():
    m = tv.Model("nonlinear")
    x = m.addMVar(3)
    m.addConstr(x == tv.exp(x) / (1 + m.addVar()))
    m.update()
    return m


def with_handles_of_its_own():
    m = with_nonlinear_constraints()
    m._x, m._dict = m.getVars(), {"all": m.getVars().tolist()}
    return m


@pytest.mark.parametrize("closed", [False, True])
@pytest.mark.parametrize("make", [plain, with_nonlinear_constraints, with_handles_of_its_own, Diet])
def test_a_dropped_model_is_freed(make, closed):
    m = make()
    alive = weakref.ref(m), weakref.ref(data_of(m))
    if closed:
        m.close()
    gc.disable()
    try:
        del m
        if make is not plain:  # there is a cycle
            gc.collect()
        assert [ref() for ref in alive] == [None, None]
    finally:
        gc.enable()


def test_models_made_and_dropped_leave_no_memory():
    def rounds(count):
        for _ in range(count):
            for make in (plain, with_nonlinear_constraints, with_handles_of_its_own, Diet):
                make()

    rounds(200)
    blocks, size = heap()
    rounds(500)
    more_blocks, more_size = heap()
    assert more_blocks - blocks < 1000 and more_size - size < 500_000


def test_a_handle_outlives_the_model_and_finds_a_new_one():
    m = tv.Model("first")
    m.setOption("log", False)
    v, x = m.addVar(lb=2, obj=2, name="v"), m.addMVar(2, obj=1)
    c = m.addConstr(v + x[0].item() >= 3)
    assert v._cmodel is m and x._cmodel is m and c._cmodel is m and (x + v)._to_full() is not None
    m.optimize()
    del m, x
    gc.collect()
    assert v.X == 2 and str(v) == "v" and c.Slack == 0
    again = v._cmodel
    assert type(again) is tv.Model and again is c._cmodel and again.ModelName == "first"
    assert (again.NumVars, again.Status) == (3, "OPTIMAL")
    v.UB = 2.5
    again.setObjective(v + 1, "max")
    again.optimize()
    assert again.Objective == pytest.approx(3.5)
    e = 2 * v
    alive = weakref.ref(again)
    del v, c, again
    gc.collect()
    assert alive() is None and e.getValue() == 5


def test_names_with_an_underscore_are_the_users():
    m = tv.Model("mine")
    m.setOption("log", False)
    inside = ["_objective", "_build", "_tables", "_session", "_cmodel", "_data", "_ids", "_handle"]
    for name in [*inside, *vars(type(data_of(m))), *vars(data_of(m))]:
        name = name if name[0] == "_" else "_" + name
        if not name.startswith("__"):
            setattr(m, name, "note")
    x = m.addMVar(2, ub=3, obj=-1)
    c = m.addConstr(x.sum() <= 4, name="c")
    m.optimize()
    x.UB = 1
    m.optimize()
    assert (m.Objective, c.Slack, m._objective, m._session) == (-2, 2, "note", "note")
    assert x._cmodel is m and repr(c) == "<MConstr ()>" and m.getVarByName("C0") is not None
    m.remove(c)
    m.update()
    assert m.NumConstrs == 0
    for name in ("notes", "objective"):
        with pytest.raises(AttributeError, match=name):
            setattr(m, name, 1)


def test_a_model_without_its_init_says_so():
    class Forgetful(tv.Model):
        def __init__(self):
            pass

    with pytest.raises(TypeError, match="call super"):
        Forgetful().addVar()


# What is given back


def test_rows_that_come_and_go_leave_no_memory():
    m = tv.Model()
    x = m.addMVar(40)
    A = np.eye(40)

    def rounds(count):
        for _ in range(count):
            made = [m.addConstr(A @ x <= 1, name="c") for _ in range(5)]
            made.append(m.addConstr(x @ x <= 1))
            made.append(m.addConstr(x[:3] == tv.exp(x[:3])))
            y = m.addMVar(20, name="y")
            m.update()
            m.remove([*made, y])
            m.update()

    rounds(100)
    blocks, size = heap()
    rounds(400)
    more_blocks, more_size = heap()
    assert more_blocks - blocks < 2000 and more_size - size < 300_000
    assert (m.NumVars, m.NumConstrs, m.NumQConstrs, m.NumGenConstrs) == (40, 0, 0, 0)


def test_close_gives_everything_back():
    m = tv.Model()
    m.setOption("log", False)
    x = m.addMVar(2000, ub=1)
    before = heap()[1]
    m.addConstr(np.ones((50, 2000)) @ x <= 3)
    y = m.addMVar(300, ub=1)
    m.addConstr(y == tv.exp(y) / (1 + y))
    m.update()
    data = data_of(m)
    m.load()
    full = heap()[1]
    m.close()
    m.close()  # again does no harm
    assert heap()[1] - before < 0.1 * (full - before)
    assert list(vars(data)) == ["lock"] and repr(m) == "<taviropy.Model (closed)>"
    for act in (
        lambda: x.X, lambda: m.NumVars, m.update, m.optimize, lambda: m.getOption("log"),
        lambda: m.setOption("log", 0), m.addVar, lambda: m.addConstr(x <= 1), m.load,
        lambda: m.setObjective(1), lambda: m.remove(x), lambda: m.write("a.lp"), lambda: x.LB,
    ):  # fmt: skip
        with pytest.raises(TaviroError, match="closed") as caught:
            act()
        assert caught.value.code == TVO.Error.MODEL_CLOSED
    assert "number" in repr(x[0].item())


# Rows and ids belong together


def test_rows_added_in_the_middle_of_adding_a_row_keep_their_ids():
    """Making handles and arrays runs NumPy, hence finalizers, which may add rows themselves.

    They can, or are refused where the arrays of the model are just being written.
    """
    m = tv.Model()
    x = m.addMVar(3)
    outcomes = []

    class Adder:
        def __init__(self):
            self.itself = self  # for the collector alone

        def __del__(self):
            try:
                m.addConstr(x[0] + 2 * x[1] >= 7)
                outcomes.append("added")
            except TaviroError as error:
                outcomes.append(error.code)

    gc.collect()
    threshold = gc.get_threshold()
    try:
        gc.set_threshold(1)
        for k in range(60):
            Adder()
            right = 100 + k if k % 2 else np.array([100.0 + k])  # by the quick way, and not
            c = m.addConstr(x.sum() <= right, name=["c"] if k % 3 == 2 and k % 2 == 0 else "")
            assert isinstance(c, tv.MConstr) and c._cmodel is m
    finally:
        gc.set_threshold(*threshold)
    gc.collect()
    m.update()
    rows = m.getConstrs()
    assert set(outcomes) <= {"added", TVO.Error.MODEL_BUSY} and "added" in outcomes
    assert m.NumConstrs == 60 + outcomes.count("added")
    assert sorted(set(rows.RHS)) == [7.0, *range(100, 160)]
    matrix = view_of(m).rows
    for k in range(m.NumConstrs):
        part = slice(matrix.indptr[k], matrix.indptr[k + 1])
        expected = [1.0, 2.0] if rows[k].RHS == 7 else [1.0, 1.0, 1.0]
        assert matrix.data[part].tolist() == expected


# One at a time


def test_a_model_that_is_being_solved_cannot_be_changed():
    m = tv.Model()
    x = m.addMVar(3, ub=1, obj=-1, name="x")
    c = m.addConstr(x.sum() <= 2)
    seen = []

    class Listener:
        """A standard output that tries to change the model whose log it gets."""

        def write(self, text):
            for change in (
                lambda: m.addVar(),
                lambda: m.addMVar(2),
                lambda: m.addConstr(x <= 1),
                lambda: m.addConstr(x == tv.exp(x)),
                lambda: m.setObjective(0),
                lambda: m.remove(x),
                m.update,
                m.optimize,
                m.load,
                m.close,
                lambda: setattr(x, "UB", 3),
                lambda: setattr(m, "ObjSense", "max"),
                lambda: m.setOption("log", False),
            ):
                try:
                    change()
                except TaviroError as error:
                    seen.append(error.code)
            seen.append((m.NumVars, c.RHS.tolist(), tuple(x.UB)))  # reading is allowed
            done.set()

        def flush(self):
            pass

    done = threading.Event()
    with contextlib.redirect_stdout(Listener()):
        m.optimize()
    assert done.is_set() and m.Objective == -2
    read = (3, 2.0, (1.0, 1.0, 1.0))
    assert seen.count(TVO.Error.MODEL_BUSY) == 13 * seen.count(read) == len(seen) - seen.count(read)
    x.UB = 0.5
    m.setOption("log", False)
    m.optimize()
    assert m.Objective == -1.5
