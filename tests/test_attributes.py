"""Attributes of a model in bulk, on the four handle classes."""

import ast
import typing
from pathlib import Path
from types import SimpleNamespace

import numpy as np
import pytest

import taviropy as tv
from taviropy import _matrixapi, engines, options
from taviropy import typing as types
from taviropy.data import attributes


def make(m, kind, shape):
    """A handle of the class with elements in the model."""
    size = int(np.prod(shape))
    if kind is tv.MVar:
        handle = m.addMVar(shape)
    else:
        v = m.addVar()
        rows = {
            tv.MConstr: lambda: m.addConstr(v <= 1),
            tv.MQConstr: lambda: m.addConstr(v * v <= 1),
            tv.MGenConstr: lambda: m.addGenConstrNL(m.addVar(), tv.NLExpr._from_var(v) ** 3),
        }[kind]
        elements = np.empty(size, dtype=object)
        elements[:] = [rows() for _ in range(size)]
        handle = kind(elements.reshape(shape))
    m.update()
    return handle


# class, a double (or any settable), a name attribute, a read-only one, another kind's, refusals
CASES = [
    (tv.MVar, "UB", "VarName", "X", "RHS", "taviropy.Var", "taviropy.Var"),
    (tv.MConstr, "RHS", "ConstrName", "Dual", "LB", "taviropy.Constr", "taviropy.Constr"),
    (tv.MQConstr, "QRHS", "QName", "QSlack", "LB", "taviropy.MQConstr", "taviropy.MQConstr"),
    (tv.MGenConstr, None, "GenName", "GenKind", "LB", "taviropy.GenConstr", "taviropy.MGenConstr"),
]
NUMERIC = CASES[:3]
by_class = pytest.mark.parametrize("case", CASES, ids=lambda case: case[0].__name__)
by_numeric_class = pytest.mark.parametrize("case", NUMERIC, ids=lambda case: case[0].__name__)


@pytest.fixture
def sent(monkeypatch):
    """What `setAttr` hands over, in place of the model."""
    calls = []
    monkeypatch.setattr(_matrixapi, "_settypedattrlist", lambda *args: calls.append(args))
    return calls


# ---- reading


@by_numeric_class
def test_reading_gives_an_array_of_the_shape(m, case):
    handle = make(m, case[0], (2, 3))
    values = np.arange(6.0).reshape(2, 3)
    handle.setAttr(case[1], values)
    for got in (handle.getAttr(case[1]), getattr(handle, case[1])):
        assert got.dtype == np.float64 and got.tolist() == values.tolist()
    turned = case[0](handle.__dict__[next(k for k in handle.__dict__ if "arr" in k)].T[::-1])
    assert turned.getAttr(case[1]).tolist() == values.T[::-1].tolist()
    assert handle[0, 1].getAttr(case[1]).shape == () and handle[0, 1].getAttr(case[1]) == 1.0
    handle.getAttr(case[1])[:] = 9.0  # an array of the caller's own
    assert handle.getAttr(case[1]).tolist() == values.tolist()


def test_arrays_of_any_layout_and_number_are_taken_and_stay_the_users(m):
    x = m.addMVar((2, 3))
    m.update()
    values = np.arange(6).reshape(2, 3)
    wide = np.arange(24.0).reshape(4, 6)
    for given in (values, values.astype(np.float32), values > 2, np.asfortranarray(values, float),
                  values.astype(">f8"), values.astype(np.longdouble), values.astype(object),
                  wide[::2, ::2], wide[::-2, 1::2]):  # fmt: skip
        before = given.copy()
        x.UB = given
        assert x.UB.tolist() == given.astype(float).tolist()
        given[...] = 0
        assert x.UB.tolist() == before.astype(float).tolist()
    for given in (values * np.nan, values.astype(complex), values.astype("U1")):
        with pytest.raises(tv.TaviroError, match="'UB'"):
            x.UB = given
    assert x.UB.tolist() == before.astype(float).tolist()


def test_what_lies_under_a_mask_is_never_read(m):
    x = m.addMVar(3, name="x")
    c = m.addConstr(x.sum() <= 3)
    m.update()
    part, one = np.ma.array([1.0, 2.0, 3.0], mask=[0, 1, 0]), np.ma.array([3.0], mask=[1])
    for given in (part, one, np.ma.masked):
        with pytest.raises(tv.TaviroError, match="'UB' can't be NaN"):
            x.UB = given
        for take, *args in (
            (m.addMVar, 3, 0.0, given),
            (m.setCoefficients, c, x, given),
            (tv.solveAll, m, {"UB": (x, np.ma.array(np.ones((2, 3)), mask=True))}),
        ):
            with pytest.raises(tv.TaviroError, match="masked entries"):
                take(*args)
    x.Start = part
    assert np.isinf(x.UB).all() and m.NumVars == 3 and np.isnan(x.Start).tolist() == [0, 1, 0]
    for given in (np.ones((1, 3)) * 1j, ["1", "2", "3"], np.ones((1, 3), "m8[s]")):
        with pytest.raises(tv.TaviroError, match="Coefficients are real numbers"):
            m.setCoefficients(c, x, given)
    assert m.getCoefficients().matrix.sum() == 3


@by_class
def test_the_type_of_an_attribute_is_that_of_the_array(m, monkeypatch, case):
    handle = make(m, case[0], (2,))
    assert handle.getAttr(case[2]).dtype == object
    if case[0] is tv.MVar:
        assert handle.VType.dtype == np.dtype("U1")
    if case[0] is tv.MGenConstr:
        assert handle.GenKind.dtype == np.int32
    seen = []
    monkeypatch.setattr(_matrixapi, "_gettypedattrlist", lambda *args: seen.append(args) or [0, 1])
    for code, dtype in ((0, "U1"), (1, np.int32), (2, np.float64), (3, object)):
        info = (code, handle._typeenum, 1)
        monkeypatch.setattr(_matrixapi, "_getattrinfo", lambda obj, name, info=info: info)
        assert handle.Anything.dtype == np.dtype(dtype)
        obj, name, given, indices = seen.pop()
        assert obj is handle and name == "Anything" and given == code
        assert type(indices) is list and indices == handle._idxarr().tolist()


def test_what_getattrinfo_gives_is_unpacked_as_three(m, monkeypatch):
    handle = make(m, tv.MVar, (2,))
    for info, error in (((2, 1), ValueError), ((2, 1, 1, 1), ValueError), (None, TypeError), ((9, 1, 1), UnboundLocalError)):  # fmt: skip
        monkeypatch.setattr(_matrixapi, "_getattrinfo", lambda obj, name, info=info: info)
        with pytest.raises(error):
            handle.getAttr("LB")
    monkeypatch.setattr(_matrixapi, "_getattrinfo", lambda obj, name: iter([2, 1, 1]))
    assert handle.getAttr("LB").tolist() == [0.0, 0.0]


@by_class
def test_refusals_and_their_texts(m, case):
    cls, settable, name, readonly, foreign, on_get, on_set = case
    handle = make(m, cls, (3,))
    for act, text in (
        (lambda: handle.getAttr(foreign), f"'{on_get}' object has no attribute '{foreign}'"),
        (lambda: getattr(handle, foreign), f"'{on_get}' object has no attribute '{foreign}'"),
        (lambda: handle.setAttr(foreign, 1.0), f"'{on_set}' object has no attribute '{foreign}'"),
        (lambda: handle.setAttr(readonly, 1.0), f"Attribute '{readonly}' cannot be set"),
        (lambda: handle.setAttr(name, object()), "Use scalar or ndarray to set attribute"),
        (lambda: handle.setAttr(name, np.ones((3, 1))), "Shape mismatch"),
        (lambda: handle.setAttr(name, ["a", "b"]), "Shape mismatch"),
        (lambda: handle.setAttr(name, []), "Shape mismatch"),
    ):
        with pytest.raises(AttributeError) as error:
            act()
        assert str(error.value) == text
    # The test of the kind comes before that of being settable.
    with pytest.raises(AttributeError, match="object has no attribute 'X'"):
        make(m, tv.MConstr, (2,)).setAttr("X", 1.0)
    for unknown in ("NoSuchName", "__array_interface__", "prefetch", "\ud800"):
        assert not hasattr(handle, unknown)
    with pytest.raises(AttributeError):
        handle.NoSuchName = 1


# ---- writing


@by_class
def test_what_is_handed_over_for_each_kind_of_value(m, sent, case):
    handle = make(m, case[0], (3,))
    name = case[2]
    values = {
        "a": ["a"] * 3, 2: [2.0] * 3, True: [1.0] * 3, np.float32(0.5): [0.5] * 3,
        (1.0, 2.0, 3.0): [1.0, 2.0, 3.0], (5.0,): (5.0, 5.0, 5.0), range(3): [0, 1, 2], b"a": b"aaa",
    }  # fmt: skip
    cases = [*values.items(), ([5.0], [5.0] * 3), (np.array([[5]]), [5.0] * 3),
             (np.arange(3), [0, 1, 2]), (np.array(["x", "y", "z"]), ["x", "y", "z"]),
             (np.array("a"), ["a"] * 3), (np.array([["a"]], dtype=object), ["a"] * 3),
             ((c for c in "abc"), ["a", "b", "c"])]  # fmt: skip
    for value, wanted in cases:
        assert handle.setAttr(name, value) is None
        obj, attrname, _, indices, flat = sent.pop()
        assert obj is handle and attrname == name and indices == handle._idxarr().tolist()
        assert flat == wanted and type(flat) is type(wanted)
        assert [type(f) is float for f in flat] == [type(w) is float for w in wanted]
    handle.__setattr__(name, "b")
    assert sent.pop()[-1] == ["b", "b", "b"]
    for refused in ((c for c in "a"), {1}, {1: 2}, np.array([b"a"]), 1j):
        with pytest.raises((TypeError, ValueError)):
            handle.setAttr(name, refused)
    assert not sent


@by_class
def test_values_for_other_shapes(m, sent, case):
    handle, name = make(m, case[0], (2, 2)), case[2]
    handle.setAttr(name, np.array([[1, 2], [3, 4]]).T)
    assert sent.pop()[-1] == [1, 3, 2, 4]
    handle.setAttr(name, ["a"])
    assert sent.pop()[-1] == ["a"] * 4
    for value in (["a", "b"], [["a", "b"], ["c", "d"]], np.ones(4), np.ones((1, 2, 2))):
        with pytest.raises(AttributeError, match="^Shape mismatch\nThe values have shape"):
            handle.setAttr(name, value)
    zero = handle[0, 1]
    for value, wanted in (("a", ["a"]), (3, [3.0]), (np.array([3.0]), [3.0])):
        zero.setAttr(name, value)
        assert sent.pop()[-1] == wanted
    if case[0] is tv.MVar:
        with pytest.raises(TypeError):
            zero.setAttr(name, [3])
    else:
        zero.setAttr(name, [3])
        assert sent.pop()[-1] == [3]


@by_numeric_class
def test_a_refused_write_changes_nothing(m, case):
    handle, name = make(m, case[0], (3,)), case[1]
    before = handle.getAttr(name).tolist()
    for bad in ([1.0, "a", 2.0], [1.0, float("nan"), 2.0], np.ones(4), "text", [1.0, None, 2.0]):
        with pytest.raises((tv.TaviroError, AttributeError)):
            handle.setAttr(name, bad)
        assert handle.getAttr(name).tolist() == before


# ---- elements that aren't in the model, empty handles


@by_class
def test_an_empty_handle_reads_as_empty_and_takes_anything(case):
    for shape in ((0,), (0, 3)):
        handle = case[0](np.empty(shape, dtype=object))
        for name in (case[2], "NoSuchName", "__array_interface__"):
            got = handle.getAttr(name)
            assert got.shape == shape and got.dtype == np.float64
            assert getattr(handle, name).shape == shape
            assert handle.setAttr(name, object()) is None
        handle.NoSuchName = 3
        assert "NoSuchName" not in handle.__dict__
        if case[0] is not tv.MGenConstr:
            assert handle.prefetchAttr("NoSuchName") is None
    low, high = tv.MVar(np.empty((0, 3), dtype=object)).ObjRange
    assert low.shape == high.shape == (0, 3)


def test_general_constraints_must_be_in_the_model(m):
    handle = make(m, tv.MGenConstr, (2,))
    m.remove(handle[0].item())
    m.update()
    fresh = m.addGenConstrNL(m.addVar(), tv.NLExpr._from_var(m.addVar()) ** 3)
    removed, waiting = "was removed from the model", "has not yet been added to the model"
    both = tv.MGenConstr.fromlist([fresh, handle[0].item()])
    for gc, text in (
        (handle, removed),
        (tv.MGenConstr.fromlist([fresh]), waiting),
        (both, waiting),
    ):
        for act in (lambda gc=gc: gc.getAttr("GenName"), lambda gc=gc: gc.setAttr("GenName", "a")):
            with pytest.raises(tv.TaviroError) as error:
                act()
            assert error.value.args == (tv.TVO.Error.NOT_IN_MODEL, f"GenConstr {text}")
        with pytest.raises(AttributeError, match="Shape mismatch"):  # values are looked at first
            gc.setAttr("GenName", ["a", "b", "c"])


def test_the_hooks_go_through_the_instance(m, monkeypatch):
    log = []

    class Sub(tv.MVar):
        def getAttr(self, attrname):
            log.append(attrname)
            return super().getAttr(attrname)

        def setAttr(self, attrname, value):
            log.append((attrname, value))

        def _idxarr(self):
            return super()._idxarr()[::-1]

    x = Sub(make(m, tv.MVar, (3,))._vararr)
    tv.MVar(x._vararr).UB = [1.0, 2.0, 3.0]
    assert x.UB.tolist() == [3.0, 2.0, 1.0]
    x.LB = 4.0
    assert log == ["UB", ("LB", 4.0)]
    monkeypatch.setattr(_matrixapi, "_prefetchattr", lambda *args: log.append(args))
    assert x.prefetchAttr("X") is None and log[-1] == (x, "X")


def test_indices_may_be_any_integers():
    """Elements are asked for their index by attribute, whatever they are."""
    elements = np.array([SimpleNamespace(_cmodel=None, _colno=k) for k in (True, np.int64(7), -3)])
    x = tv.MVar(elements)
    assert x._idxarr().tolist() == [1, 7, -3] and x._idxarr().dtype == np.int32
    elements[0]._colno = 2**40
    with pytest.raises(OverflowError):
        x._idxarr()
    del elements[0]._colno
    with pytest.raises(AttributeError, match="_colno"):
        x._idxarr()


TYPED = {
    attributes.MODEL: [("_model.py", "Model")],
    attributes.VARIABLE: [("_scalars.pyi", "Var"), ("_matrixapi.pyi", "MVar")],
    attributes.LINEAR: [("_scalars.pyi", "Constr"), ("_matrixapi.pyi", "MConstr")],
    attributes.QUADRATIC: [("_scalars.pyi", "QConstr"), ("_matrixapi.pyi", "MQConstr")],
    attributes.GENERAL: [("_scalars.pyi", "GenConstr"), ("_matrixapi.pyi", "MGenConstr")],
}


@pytest.mark.parametrize(
    ("kind", "file", "name"), [(kind, *place) for kind, places in TYPED.items() for place in places]
)
def test_the_types_have_the_attributes_of_the_table(kind, file, name):
    """Each class declares all attributes of its kind, and those that can't be set as read-only."""
    text = (Path(tv.__file__).parent / file).read_text()
    body = next(n for n in ast.parse(text).body if isinstance(n, ast.ClassDef) and n.name == name)
    declared = {
        node.target.id: "_ReadOnly" not in ast.unparse(node.annotation)
        for node in ast.walk(body)
        if isinstance(node, ast.AnnAssign)
        and isinstance(node.target, ast.Name)
        and node.target.id[0].isupper()
    }
    table = {n: bool(a.settable) for n, a in attributes.ATTRIBUTES.items() if a.kind == kind}
    assert declared == table


def test_the_types_have_the_choices_of_the_data():
    """The literals are what the package takes, neither more nor less."""
    assert typing.get_args(types.EngineName.__value__) == ("auto", *engines.ENGINES)
    assert "".join(typing.get_args(types.VType.__value__)) == attributes.CHARACTERS["VType"]
    assert "".join(typing.get_args(types.Sense.__value__)) == attributes.CHARACTERS["Sense"]
    text = (Path(tv.__file__).parent / "_model.py").read_text()
    for method in ("setOption", "getOption"):
        names = [
            leaf.value
            for node in ast.walk(ast.parse(text))
            if isinstance(node, ast.FunctionDef) and node.name == method
            for leaf in ast.walk(node.args)
            if isinstance(leaf, ast.Constant)
        ]
        assert sorted(filter(None, names)) == sorted(options._OWN)
