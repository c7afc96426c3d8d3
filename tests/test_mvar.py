"""MVar: construction, indexing, shape, sums and the class of each operator's result."""

import copy
import operator
import pickle

import numpy as np
import pytest
import scipy.sparse as sp

import taviropy as tv
from taviropy import _matrixapi


@pytest.fixture
def X(m):
    X = m.addMVar((2, 3), name="X")
    m.update()
    return X


def same(handle, array):
    """The handle holds exactly these variables, in a plain writable object array."""
    held = handle._vararr
    assert type(handle) is tv.MVar
    assert held.dtype == object and held.flags.writeable
    assert held.shape == array.shape == handle.shape
    return all(a is b for a, b in zip(held.flat, array.flat, strict=True))


# ---- construction


def test_the_class_is_a_plain_one(X):
    assert type(tv.MVar) is type and tv.MVar.__bases__ == (object,)
    assert tv.MVar.__array_priority__ == 100 and tv.MVar.__hash__ is None
    assert set(X.__dict__) == {"_vararr", "_cmodel"}
    for name in ["__len__", "__iter__", "__setitem__"]:
        assert name not in vars(tv.MVar)


def test_a_writable_object_array_is_shared_anything_else_converted(X):
    array = X._vararr
    assert tv.MVar(array)._vararr is array
    assert tv.MVar(arr=array.T)._vararr.base is array
    assert X.copy()._vararr is array and X.copy() is not X
    frozen = array.view()
    frozen.flags.writeable = False
    assert tv.MVar(frozen)._vararr is not frozen and same(tv.MVar(frozen), array)
    assert same(tv.MVar(array.tolist()), array)


def test_the_model_is_that_of_the_first_element(m, X):
    other = tv.Model().addVar()
    mixed = tv.MVar(np.array([[other, X[0, 0].item()]], order="F"))
    assert mixed._cmodel is other._cmodel is not m
    assert tv.MVar(X._vararr[:, ::-1])._cmodel is m
    for empty in (np.empty((0, 3)), [], X._vararr[:0]):
        assert tv.MVar(empty)._cmodel is None
    for bad in ([1, 2], None, np.array(["a"], dtype=object), np.array([None, X[0, 0].item()])):
        with pytest.raises(AttributeError, match="_cmodel"):
            tv.MVar(bad)


def test_fromlist(X):
    a, b, c, d = (X[0, 0].item(), X[0, 1].item(), X[1, 0].item(), X[1, 1].item())
    assert same(tv.MVar.fromlist([a, b]), np.array([a, b]))
    assert same(tv.MVar.fromlist((a, b)), np.array([a, b]))
    assert same(tv.MVar.fromlist([[a, b], [c, d]]), np.array([[a, b], [c, d]]))
    assert tv.MVar.fromlist([]).shape == (0,)
    assert tv.MVar.fromlist(np.empty((2, 0), dtype=object)).shape == (2, 0)
    assert same(tv.MVar.fromlist(a), np.array(a))
    for bad in ([a, 7, b], (7, a), [[a, b], [c, 7]]):
        with pytest.raises(ValueError) as error:
            tv.MVar.fromlist(bad)
        assert str(error.value) == "MVar.fromlist expects a list of Vars, '7' is not valid input"


def test_fromlist_on_a_numpy_without_fromiter_for_objects(monkeypatch, X):
    monkeypatch.setattr(np, "fromiter", None)
    monkeypatch.setattr(np, "__version__", "1.22.4")
    variables = X._vararr[0].tolist()
    assert same(tv.MVar.fromlist(variables), X._vararr[0])
    monkeypatch.setattr(np, "__version__", "1.23.0")
    with pytest.raises(TypeError):
        tv.MVar.fromlist(variables)


def test_fromvar_item_and_tolist(X):
    var = X[1, 2].item()
    zero = tv.MVar.fromvar(var)
    assert zero.shape == () and zero.size == 1 and zero.ndim == 0
    assert zero.item() is var and zero.tolist() is var
    assert X.tolist() == X._vararr.tolist()
    with pytest.raises(ValueError):
        X.item()
    with pytest.raises(AttributeError):
        tv.MVar.fromvar(3.0)


# ---- indexing and shape


KEYS = [
    (0, 1), 0, -1, slice(None), (slice(None), 1), (..., 0), None, (None, 1), ([1, 0], [2, 2]), True,
    np.array([[True, False, True], [False, False, True]]), (), (slice(None), slice(None, None, -2)),
    np.array([], dtype=int), 2, (0, 3), "a", 1.5, ([0, 2], 0), np.ones(3, dtype=bool),
]  # fmt: skip


@pytest.mark.parametrize("key", KEYS, ids=str)
def test_indexing_is_that_of_numpy_and_always_gives_an_mvar(X, key):
    try:
        wanted = np.asarray(X._vararr[key], dtype=object)
    except Exception as error:
        with pytest.raises(type(error)):
            X[key]
    else:
        assert same(X[key], wanted)


def test_basic_indexing_shares_the_array_and_iteration_runs_through_it(X):
    assert X[0]._vararr.base is X._vararr
    assert [row._vararr.tolist() for row in X] == X._vararr.tolist()
    with pytest.raises(TypeError):
        X[0, 0] = X[0, 1]


def test_shape_operations_are_those_of_numpy(X):
    array = X._vararr
    assert same(X.T, array.T) and same(X.transpose(), array.T)
    assert same(X.reshape(3, 2), array.reshape(3, 2))
    assert same(X.reshape((3, -1)), array.reshape(3, 2))
    assert same(X.reshape(-1, order="F"), array.reshape(-1, order="F"))
    assert same(X[:, None]._squeeze(), array)
    assert same(X[:, None]._squeeze(axis=1), array)
    assert same(X.diagonal(), array.diagonal()) and same(X.diagonal(1), array.diagonal(1))
    cube = X.reshape(1, 2, 3)
    assert same(cube.diagonal(axis1=2, axis2=1), cube._vararr.diagonal(0, 2, 1))
    for wrong in (lambda: X.reshape(4), lambda: X.reshape(3, 2, 1, "C"), lambda: X[0].diagonal()):
        with pytest.raises((ValueError, TypeError)):
            wrong()


def test_subclasses_get_plain_results_and_their_overrides_are_heeded(X):
    class Sub(tv.MVar):
        def transpose(self):
            return "transposed"

        def _toexpr(self):
            return tv.MLinExpr.zeros(self.shape) + 7.0

        def getAttr(self, attrname):
            return attrname

        def __setattr__(self, name, value):
            object.__setattr__(self, name, value)
            seen.append(name)

    seen = []
    x = Sub(X._vararr)
    assert seen == ["_vararr", "_cmodel"]
    assert x.T == "transposed" and x.LB == "LB"
    assert (x[0]).__class__ is tv.MVar and x.copy().__class__ is tv.MVar
    for expr in (x + 1, 1 + x, x - 1, x * 2, x / 1):
        assert expr.getConstant().min() >= 6.0


def test_private_fields_go_to_the_dictionary_whatever_they_shadow(X):
    X._note, X._typename, X._idxarr = 1, "mine", None
    assert X.__dict__["_note"] == 1 and X.__dict__["_typename"] == "mine"
    assert X._typename == "MVar" and X._idxarr is None
    del X._note
    assert "_note" not in X.__dict__
    with pytest.raises(IndexError):
        setattr(X, "", 1)


# ---- repr, dir, copies


def test_repr_tells_of_updates_and_removals(m):
    x = m.addMVar(3, name="x")
    assert repr(x).splitlines()[0] == "<MVar (3,) *awaiting update*>"
    m.update()
    first, rest = repr(x).split("\n", 1)
    assert first == "<MVar (3,)>"
    assert rest == repr(x._vararr)[: repr(x._vararr).rfind(",")] + ")"
    zero = x[1]
    m.remove(zero.item())
    m.update()
    fresh = m.addVar()
    assert repr(x).startswith("<MVar (3,) (some removed)>\n")
    assert repr(zero).startswith("<MVar () (some removed)>\n")
    both = tv.MVar.fromlist([fresh, zero.item()])
    assert repr(both).startswith("<MVar (2,) *awaiting update* (some removed)>\n")
    assert repr(tv.MVar([])) == "<MVar (0,)>\narray([])"
    assert str(x[0]) == repr(x[0])


def test_indices_follow_the_model(m):
    x = m.addMVar((2, 2))
    y = m.addMVar(2)
    assert x._idxarr().tolist() == [[-1, -1], [-1, -1]]
    m.update()
    assert x._idxarr().dtype == np.int32 and x.T._idxarr().tolist() == [[0, 2], [1, 3]]
    assert y[::-1]._idxarr().tolist() == [5, 4] and x[0, 1]._idxarr().shape == ()
    m.remove(x[0])
    m.update()
    assert (x._idxarr()[0] <= -2).all() and x._idxarr()[1].tolist() == [0, 1]
    data = np.arange(10, 14)
    got = tv.MVar(np.array([y._vararr, x._vararr[1]], order="F"))._indexed_data(data, "d")
    assert got.tolist() == [[12.0, 13.0], [10.0, 11.0]] and got.dtype == float


def test_dir_shows_the_attributes(X):
    names = dir(X)
    assert names == sorted(set(names))
    assert {"LB", "X", "_vararr", "getAttr", "reshape"} <= set(names) and "RHS" not in names
    assert "LB" in dir(tv.MVar([]))


def test_copies_are_working_handles(X):
    twin = copy.copy(X)
    assert type(twin) is tv.MVar and twin._vararr is X._vararr and twin._cmodel is X._cmodel
    assert twin.UB.shape == (2, 3)
    bare = object.__new__(tv.MVar)
    for name in ("_vararr", "_cmodel", "__array_interface__", "LB", "shape"):
        with pytest.raises(AttributeError):
            getattr(bare, name)
    assert isinstance(pickle.loads(pickle.dumps(tv.MVar)), type)


# ---- sums


AXES = [None, 0, 1, 2, -1, -3, (0, 2), (1,), (), (2, 1, 0)]


@pytest.mark.parametrize("axis", AXES, ids=str)
def test_sum_has_one_term_a_variable(m, axis):
    """In C order, where the array is laid out so; else in the order of its memory."""
    for X in (m.addMVar((2, 3, 4)), m.addMVar((4, 3, 2)).T, m.addMVar((4, 6, 4))[::2, ::2]):
        total = X.sum(axis=axis)
        ids = np.arange(X.size).reshape(X.shape)
        assert isinstance(total, tv.MLinExpr) and total._learr is not None
        wanted = np.empty(np.sum(ids, axis=axis).shape, dtype=object)
        reduced = range(3) if axis is None else axis if isinstance(axis, tuple) else (axis,)
        reduced = {a % 3 for a in reduced}
        for place in np.ndindex(wanted.shape):
            kept = iter(place)
            key = tuple(slice(None) if a in reduced else next(kept) for a in range(3))
            wanted[place] = list(X._vararr[key].flat) if reduced else [X._vararr[key]]
        assert total.shape == wanted.shape
        for le, variables in zip(total._learr.flat, wanted.flat, strict=True):
            assert le.coeffs == [1.0] * len(variables) and le.constant == 0.0
            if X._vararr.flags.c_contiguous:
                assert all(a is b for a, b in zip(le.vars, variables, strict=True))
            else:
                assert sorted(map(str, le.vars)) == sorted(map(str, variables))


def test_sum_of_odd_shapes_and_axes(m, X):
    empty = X[:, :0]
    assert empty.sum().getConstant().tolist() == 0.0 and empty.sum(axis=1).shape == (2,)
    assert empty.sum(axis=0).shape == (0,)
    assert len(X[0, 0].sum()._learr.item().vars) == 1
    assert len(X[[0, 0]].sum(axis=0)._learr[0].vars) == 2  # repeated, not merged
    for axis in (2, -3, 5):
        with pytest.raises(tv.TaviroError) as error:
            X.sum(axis=axis)
        assert error.value.args == (-1, f"Invalid axis specifications: {axis}")
    with pytest.raises(TypeError):
        X.sum("a")


# ---- operators


def test_the_class_of_each_result(m, X):
    x, y, v = X[0], X[1], m.addVar()
    A, S = np.ones((3, 3)), sp.eye(3, format="csr")
    le, qe = v + 1.0, v * v
    linear = [
        x * 2, 2 * x, x * np.float64(2), x * np.ones(3), np.ones((3, 1)) * x, X * np.ones((2, 3)),
        x @ A, A @ x, x @ S, S @ x, X @ A, x + 1, 1 - x, x + v, v - x, x / 2, -x, x + y, x + le,
    ]  # fmt: skip
    quadratic = [
        x * y, x * 2 * y, x**2, x**2.0, x ** np.array(2), x ** np.array([2.0]), x @ y, x * v, v * x,
        X * X, x * le, x + qe,
    ]  # fmt: skip
    nonlinear = [
        x**3, x**1, x ** np.array([2.0, 2.0, 2.0]), 2**x, np.ones(3) ** x, v**x, x**v, x**y, 1 / x,
        np.ones(3) / x, v / x, S / x, x / y, x**le, le**x, qe / x, x.nl,
    ]  # fmt: skip
    for results, cls in ((linear, tv.MLinExpr), (quadratic, tv.MQuadExpr), (nonlinear, tv.MNLExpr)):
        assert [type(r) for r in results] == [cls] * len(results)
    assert +x is x
    assert (X ** np.full((4, 1, 1), 2.0)[:1]).shape == (1, 2, 3)


def test_products_with_larger_arrays_are_made_element_by_element(X):
    W = np.arange(6.0).reshape(2, 3)
    for expr in (X * W, W * X):
        for le, w, var in zip(expr._learr.flat, W.flat, X._vararr.flat, strict=True):
            assert le.coeffs == [w] and le.vars[0] is var


def test_refused_operands(X):
    for scalar in (2, 2.0, np.float64(2), True):
        for product in (lambda s=scalar: X @ s, lambda s=scalar: s @ X):
            with pytest.raises(ValueError) as error:
                product()
            assert str(error.value) == "Input operand does not have enough dimensions"
    for refused in (
        lambda: X @ "a", lambda: "a" @ X, lambda: X**"a", lambda: "a" ** X, lambda: "a" / X,
        lambda: None @ X, lambda: pow(X, 2, 3), lambda: X @ [1.0, 2.0, 3.0],
    ):  # fmt: skip
        with pytest.raises(TypeError):
            refused()
    with pytest.raises(ValueError):
        X * np.ones(4)


def test_names_are_looked_up_when_they_are_used(monkeypatch, X):
    class Sub(tv.MVar):
        pass

    monkeypatch.setattr(_matrixapi, "MVar", Sub)
    assert type(X[0]) is Sub and type(X.T) is Sub
    monkeypatch.setattr(_matrixapi, "_isscalar", lambda value: False)
    with pytest.raises(TypeError):
        X @ 2
    monkeypatch.delattr(_matrixapi, "TempConstr")
    with pytest.raises(NameError, match="TempConstr"):
        operator.le(X, 1)
