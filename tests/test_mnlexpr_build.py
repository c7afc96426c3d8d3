"""MNLExpr: how one is made and printed, and trees of great depth."""

import numpy as np
import pytest
from trees import form, point, roots, value_of, values_of

import taviropy as tv


@pytest.fixture
def y(m):
    return m.addMVar((2, 3), name="y")


# ---- Construction ---------------------------------------------------------------------------


def test_trees_of_every_kind_of_operand(m, x):
    coerce = tv.MNLExpr._coerce_to_exprtree_array
    v = x.tolist()
    assert [form(t) for t in coerce(np.array([1, 2.5, True], dtype=object))] == [1.0, 2.5, 1.0]
    assert [form(t) for t in coerce(x)] == v
    linear = 2 * x[:2] + np.array([0.0, 3.0])
    wanted = [("multiply", 2.0, v[0]), ("plus", ("multiply", 2.0, v[1]), 3.0)]
    assert linear._is_compact
    assert [form(t) for t in coerce(linear)] == wanted
    assert linear._is_compact
    full = linear._to_full()
    assert [form(t) for t in coerce(full)] == wanted
    nl = x.nl
    assert [a is b for a, b in zip(coerce(nl), roots(nl), strict=True)] == [True] * 3
    with pytest.raises(TypeError, match="^Unsupported operand 'spam'$"):
        coerce("spam")


def test_quadratic_terms_stand_before_linear_ones(x):
    coerce = tv.MNLExpr._coerce_to_exprtree_array
    a, b, _ = x.tolist()
    full = x[:2] * x[1::-1] + np.array([0, 4])
    assert [form(t) for t in coerce(full)] == [
        ("multiply", a, b),
        ("plus", ("multiply", b, a), 4.0),
    ]
    compact = x[:2] @ np.array([[3.0, 0], [0, 1]]) @ x[:2] - x[1]
    trees = coerce(compact)
    assert compact._is_compact
    assert trees.shape == ()
    assert form(trees.item()) == (
        "plus",
        ("multiply", 3.0, ("square", a)),
        ("square", b),
        ("multiply", -1.0, b),
    )
    assert form(coerce(tv.MQuadExpr.zeros(1))[0]) == ("plus",)


@pytest.mark.parametrize("shape", [(), (0,), (3,), (2, 3), (2, 0), (1, 2, 2)])
def test_factories_keep_the_shape(m, shape):
    x = m.addMVar(shape)
    at, xv = point(x)
    numbers = np.arange(float(np.prod(shape))).reshape(shape)
    for nl, wanted in [
        (tv.MNLExpr._from_ndarray(numbers), numbers),
        (x.nl, xv),
        (tv.MNLExpr._from_mlinexpr(2 * x + 1), 2 * xv + 1),
        (tv.MNLExpr._from_mquadexpr(x * x), xv * xv),
    ]:
        assert type(nl) is tv.MNLExpr
        assert (nl.shape, nl.ndim, nl.size) == (shape, len(shape), xv.size)
        assert isinstance(nl._nlearr, np.ndarray) and nl._nlearr.dtype == object
        assert all(type(e) is tv.NLExpr for e in nl._nlearr.flat)
        np.testing.assert_allclose(values_of(nl, at), wanted)


def test_subclass_factories_and_the_hook_of_the_model(x):
    class Mine(tv.MNLExpr):
        pass

    assert type(Mine._from_mvar(x)) is Mine
    assert type(Mine._from_mlinexpr(x + 1)) is Mine
    assert type(Mine._from_mvar(x) + 1) is tv.MNLExpr

    class Recorder:
        def addGenConstrNL(self, *args):
            self.args = args
            return "made"

    recorder, nl = Recorder(), x.nl
    assert nl._addAsConstr(recorder, x, "name") == "made"
    assert recorder.args[0] is x and recorder.args[1] is nl and recorder.args[2] == "name"


# ---- Elements and text ----------------------------------------------------------------------


def test_item_is_a_private_copy(x):
    nl = x[:1].nl
    element = nl.item()
    assert type(element) is tv.NLExpr and element is not nl._nlearr[0]
    assert element._root is nl._nlearr[0]._root
    with pytest.raises(ValueError):
        x.nl.item()


def test_repr(x, y):
    header, text = repr(x.nl**2).split("\n", 1)
    assert header == "<MNLExpr (3,)>"
    assert text.startswith("array([") and text.endswith("])") and "dtype" not in text
    assert str((x.nl**2)._nlearr[1]) in text
    assert repr(y.nl).startswith("<MNLExpr (2, 3)>\narray([[")
    assert repr(tv.MNLExpr(np.empty(2, dtype=object))).endswith("array([None, None])")
    assert np.get_printoptions()["formatter"] is None


# ---- Deep trees -----------------------------------------------------------------------------


@pytest.mark.parametrize("scalar", [False, True])
def test_a_hundred_thousand_terms_one_by_one(m, scalar):
    depth = 100_000
    v = m.addVar()
    total = tv.NLExpr._from_var(v) if scalar else tv.MVar.fromvar(v).nl
    for _ in range(depth):
        total += v
    element = total if scalar else total._nlearr.item()
    assert value_of(element._root, {v: 2.0}) == 2.0 * (depth + 1)
    assert isinstance(repr(total), str)
    used = [2 * total, -total, total**2, element.copy()]
    assert value_of((used[0] if scalar else used[0]._nlearr.item())._root, {v: 1.0}) == 2.0 * (
        depth + 1
    )
    del total, element, used  # freed without a recursion as deep as the tree
