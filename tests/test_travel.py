"""Models, elements and expressions that are copied and pickled."""

import copy
import pickle
from functools import reduce

import numpy as np
import pytest
import scipy.sparse as sp

import taviropy as tv
from taviropy import travel
from taviropy._scalars import data_of
from taviropy.data.locks import CHANGING


def out_of_band(thing):
    """A pickle whose arrays come back in memory that can't be written to."""
    buffers = []
    stream = pickle.dumps(thing, protocol=5, buffer_callback=buffers.append)
    return pickle.loads(stream, buffers=[bytes(buffer.raw()) for buffer in buffers])


WAYS = {
    "protocol 2": lambda thing: pickle.loads(pickle.dumps(thing, protocol=2)),
    "protocol 5": lambda thing: pickle.loads(pickle.dumps(thing, protocol=5)),
    "out of band": out_of_band,
    "deepcopy": copy.deepcopy,
}


@pytest.fixture(params=WAYS.values(), ids=WAYS)
def send(request):
    """One way for objects to travel."""
    return request.param


@pytest.fixture
def full(m):
    """A model with everything in it, and all that one can hold of it."""
    x = m.addMVar((2, 2), ub=4.0, obj=[[1, 2], [3, 4]], name="x")
    gone = m.addMVar(3, name="gone")
    y = m.addVar(ub=5, vtype="I", name="y")
    b = m.addMVar(2, vtype="B", name="b")
    gone_row = m.addConstr(gone.sum() <= 1)
    rows = m.addConstr(x.sum(axis=0) + y >= 3, name="rows")
    small = m.addConstr(2 * y + x[0, 0] <= 9)
    circle = m.addConstr((x * x).sum() <= 30, name="circle")
    log = m.addConstr(tv.log(x[1, 1] + 1) <= y, name="log")
    switch = m.addGenConstrIndicator(b, True, x[0] <= 1, name="switch")
    m.setObjective(x.sum() + 2 * y - b.sum() + (x * x).sum(), "min")
    m.ModelName = "everything"
    m.update()
    m.remove(gone)
    m.remove(gone_row)
    y.Start = 2.0
    expressions = [x[0] * 2 + 1, np.eye(2) @ x, x @ np.eye(2) @ x[0], x * x, tv.exp(x), x >= 1]
    v = x[0, 0].item()
    expressions += [3 * v + y + 1, v * y + 2 * v + 1, v / (y + 1), v <= 2]
    return [m, x, gone, y, b, rows, small, circle, log, switch, *expressions]


def everything_of(things):
    """All that can be read of a model and of what belongs to it."""
    m = things[0]
    values = [repr(thing) for thing in things]
    for matrix in (m.getVars(), m.getConstrs()):
        for name in ("VarName", "LB", "UB", "Obj", "VType", "Start", "X", "RHS", "Sense", "Slack"):
            try:
                values.append((name, matrix.getAttr(name).tolist()))
            except (AttributeError, tv.TaviroError) as error:
                values.append((name, type(error)))
    names = ("ModelName", "ObjSense", "ObjOffset", "NumVars", "NumNonzeros", "Status", "Engine")
    values += [m.getAttr(name) for name in names] + [m.getOption("log"), m.getOption("gap")]
    return str(values)  # of NaN as well


@pytest.mark.filterwarnings("ignore:NumVars is")  # counts before an update are told of
@pytest.mark.parametrize("stage", ["waiting", "marked", "settled", "solved"])
def test_all_of_a_model_travels(full, send, stage):
    m = full[0]
    if stage == "waiting":
        m.update()
        late = m.addMVar(2, name="late")
        full += [late, m.addConstr(late + full[1][0] <= 7, name="late"), m.addConstr(late[0] <= 6)]
    if stage in ("settled", "solved"):
        m.update()
    if stage == "solved":
        m.setOption("gap", 0.0)
        m.optimize()
        assert m.Status == tv.TVO.Status.OPTIMAL
    before = everything_of(full)
    sent = send(full)
    assert everything_of(sent) == before == everything_of(full)
    second = sent[0]
    assert second is not m and all(thing._cmodel is second for thing in sent[1:10])
    m.optimize()
    full[1].UB = 0.5  # nothing is shared
    m.remove(full[5])
    m.update()
    second.optimize()
    assert second.Objective == pytest.approx(m.Objective) and (sent[1].UB == 4.0).all()
    assert everything_of(send(sent)) == everything_of(sent)
    second.addConstr(sent[1].sum() >= 5)
    second.addConstr(sent[10] <= 8)
    second.optimize()
    assert second.Status == tv.TVO.Status.OPTIMAL and second.check()


def test_elements_and_expressions_take_their_model_along(full):
    full[0].optimize()
    for thing in full[1:]:
        sent = pickle.loads(pickle.dumps(thing))
        assert repr(sent) == repr(thing)
    expr = pickle.loads(pickle.dumps(full[16]))
    assert expr.getValue() == full[16].getValue()
    assert expr.getVar(0)._cmodel is expr.getVar(1)._cmodel is not full[0]
    assert expr.getVar(0)._cmodel.Objective == full[0].Objective


def test_deep_copies_of_what_one_holds_stay_with_the_model(full):
    m, x, y = full[0], full[1], full[3]
    for thing in full[1:]:
        again = copy.deepcopy(thing)
        assert type(again) is type(thing) and repr(again) == repr(thing)
    assert copy.deepcopy([y])[0] is y and copy.deepcopy(x)._cmodel is m
    assert copy.deepcopy(full[10]).shape == full[10].shape
    m.addConstr(copy.deepcopy(full[13])[0, 0] <= copy.deepcopy(full[16]))
    for first in (x, y, full[10], full[18]):
        with pytest.raises(tv.TaviroError, match="put the model first"):
            copy.deepcopy([first, m])


@pytest.mark.parametrize("shape", [(0,), (0, 3)])
def test_what_is_empty_travels(m, send, shape):
    e = m.addMVar(shape)
    expressions = [2 * e + 1, e.sum(), e.sum(axis=0), e * e, e**3, tv.exp(e), e <= 1, e * e >= 0]
    rows = [m.addConstr(e <= 1), m.addConstr(e * e <= 1), m.addGenConstrIndicator(e, 1, e <= 1)]
    m.update()
    slices = [m.getVars()[:0], m.getConstrs(), m.addMVar(3)[:0] + 1]
    e.__dict__["note"] = ["of the user's own"]
    for thing in [e, *expressions, *rows, *slices]:
        second, sent = send((m, thing))
        assert type(sent) is type(thing) and repr(sent) == repr(thing)
        if not isinstance(thing, tv.TempConstr):
            assert sent.shape == thing.shape
    second, sent = send((m, e))
    assert sent.note == e.note and sent.note is not e.note
    assert sent.UB.shape == shape and e.anything.shape == shape
    second.addConstr(sent + 1 <= 2)
    second.update()


class Plan(tv.Model):
    """A user's own class, whose attributes hold elements and the model itself."""

    def __init__(self, size):
        super().__init__("plan")
        self._x = self.addMVar(size, obj=1.0)
        self._row = self.addConstr(self._x.sum() >= size)
        self._notes = {"me": self, "first": self._x[0].item()}
        self.setOption("log", False)


@pytest.mark.parametrize("way", [*WAYS.values(), copy.copy, tv.Model.copy])
def test_own_attributes_and_classes_travel(way):
    plan = Plan(3)
    second = way(plan)
    assert type(second) is Plan and second is not plan and second._notes["me"] is second
    assert second._x._cmodel is second and second._notes["first"]._cmodel is second
    second.update()
    second._x.UB = 1.0
    second._row.RHS = 2.0
    second.optimize()
    plan.optimize()
    assert (second.Objective, plan.Objective) == (2.0, 3.0)
    assert np.isinf(plan._x.UB).all()


def test_what_is_shared_and_what_stays_apart(m):
    x = m.addMVar(3)
    other = tv.Model()
    z = other.addVar(name="z")
    mixed = tv.MVar(np.array([x[0].item(), z], dtype=object))
    empty = tv.MVar(np.empty((0, 2), dtype=object))
    x._note = "mine"
    one, two, three, four = pickle.loads(pickle.dumps([mixed, empty, x, x[0].item() + z]))
    models = [var._cmodel for var in one.tolist()]
    assert models[0] is not models[1] and two.shape == (0, 2) and three._note == "mine"
    assert [var._cmodel for var in four.vars] == models and three._cmodel is models[0]
    assert copy.copy(x)._vararr is x._vararr and copy.deepcopy(x)._vararr is x._vararr
    chain = reduce(lambda expr, k: tv.sin(expr) + k, range(5_000), x[0].item())
    assert str(pickle.loads(pickle.dumps(chain))) == str(chain)
    with_model = copy.deepcopy((m, chain))
    with_model[0].addConstr(with_model[1] <= 1)
    with_model[0].update()
    assert with_model[0].NumGenConstrs == 1


def test_the_engines_form_of_the_rows_travels(m):
    """A model that HiGHS has loaded keeps its coefficients by column."""
    rng = np.random.default_rng(3)
    A = sp.random_array((40, 30), density=0.2, rng=rng, format="csr")
    x = m.addMVar(30, obj=rng.uniform(1, 2, 30))
    m.addConstr(A @ x >= rng.uniform(0, 1, 40) * (A.sum(axis=1) > 0))
    m.optimize()
    m2, x2 = out_of_band((m, x))
    x2[3].UB = 0.0
    m2.remove(x2[7])
    m2.optimize()
    x[3].UB = 0.0
    m.remove(x[7])
    m.optimize()
    assert m2.Objective == pytest.approx(m.Objective) and m.check() and m2.check()


# Refusals


def test_closed_and_foreign_models_are_refused(m, monkeypatch):
    x = m.addMVar(2)
    stream = pickle.dumps(m)
    monkeypatch.setattr(travel, "FORMAT", 7)
    with pytest.raises(pickle.UnpicklingError, match="format 2, but .* reads format 7"):
        pickle.loads(stream)
    monkeypatch.undo()
    state = travel.packed(data_of(m))
    m.close()
    for thing in (m, x, x[0].item()):
        with pytest.raises(tv.TaviroError, match="closed"):
            pickle.dumps(thing)
    with pytest.raises(tv.TaviroError, match="closed"):
        m.copy()
    assert travel.unpacked(state).variables.size == 2
    for damaged in (None, 3, {}, {"format": "1"}):
        with pytest.raises(pickle.UnpicklingError, match="holds no model"):
            travel.unpacked(damaged)


def test_copies_of_a_model_that_is_being_solved_or_changed(m):
    x = m.addMVar(6, vtype="B")
    m.setObjective(np.arange(6) @ x, "max")
    m.addConstr(np.array([3, 5, 7, 9, 11, 13]) @ x <= 20)
    copies = []
    m.optimize(callback=lambda progress: copies.append(m.copy()))
    m.remove(x[0])
    m.optimize()
    assert copies
    for copied in [copies[0], m]:
        copied.optimize()
        assert copied.Objective == pytest.approx(m.Objective)
    data_of(m).lock = CHANGING
    with pytest.raises(tv.TaviroError, match="being changed"):
        m.copy()
    data_of(m).lock = ""
    assert m.copy().NumVars == 5


def leaves(state, path=()):
    """The paths to all parts of a state that aren't containers."""
    if isinstance(state, dict):
        for key, part in state.items():
            yield from leaves(part, (*path, key))
    elif isinstance(state, tuple | list):
        for key, part in enumerate(state):
            yield from leaves(part, (*path, key))
    else:
        yield path, state


def replaced(state, path, value):
    """A state with another part at a path."""
    if not path:
        return value
    if isinstance(state, dict):
        return state | {path[0]: replaced(state[path[0]], path[1:], value)}
    parts = list(state)
    parts[path[0]] = replaced(parts[path[0]], path[1:], value)
    return type(state)(parts)


def damages(part):
    """What may stand where a part was."""
    yield from (None, "text", -1, 2**40, 1.5, np.zeros((2, 2)), [1])
    if isinstance(part, np.ndarray):
        yield from (part[:-1], np.append(part, part[-1:]), part.astype(np.float32), part[::-1])
        if part.dtype.kind in "iu" and len(part):
            for value in (-2, 100, np.iinfo(part.dtype).max):
                broken = part.copy()
                broken[len(part) // 2] = value if part.dtype.kind == "i" else 200
                yield broken


def test_damaged_models_are_an_error_and_never_a_crash(full):
    m = full[0]
    m.update()
    m.optimize()
    m.remove(full[3])
    state = travel.packed(data_of(m))
    refused = 0
    for path, part in leaves(state):
        for broken in damages(part):
            damaged = replaced(state, path, broken)
            try:
                data = travel.unpacked(damaged)
            except pickle.UnpicklingError as error:
                assert "damaged" in str(error) or "format" in str(error) or "holds no" in str(error)
                refused += 1
                continue
            data.update()
            data.linear_matrix()
            travel.packed(data)
    assert refused > 500
    keys = [path for path, _ in leaves(state) if path[:2] == ("elements", 1)]
    without = replaced(state, keys[0][:2], {})
    with pytest.raises(pickle.UnpicklingError, match="KeyError"):
        travel.unpacked(without)


def test_damaged_handles_are_refused(m):
    from taviropy import _pickling

    m.addMVar(2)
    data = data_of(m)
    for make in (
        lambda: _pickling.element_from(data, 1, 2),
        lambda: _pickling.element_from(data, 3, 0),
        lambda: _pickling.element_from(m, 1, 0),
        lambda: _pickling.handles_from(data, 1, np.array([0, -1]), (2,)),
        lambda: _pickling.handles_from(data, 1, np.array([0, 1]), (3,)),
        lambda: _pickling.linexpr_from(0.0, [1.0], data, [5]),
        lambda: _pickling.linexpr_from(0.0, [1.0], None, ["x"]),
        lambda: _pickling.linexpr_from(0.0, [1.0, 2.0], data, [0]),
        lambda: _pickling.quadexpr_from(tv.LinExpr(), [1.0], data, [0]),
        lambda: _pickling.tree_from([("sin", [0])]),
        lambda: _pickling.tree_from([("constant", 1.0), ("root", [0])]),
        lambda: _pickling.model_from(int, travel.packed(data)),
    ):
        with pytest.raises((TypeError, ValueError, IndexError)):
            make()
