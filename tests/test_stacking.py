"""vstack, hstack and concatenate over every class."""

import functools

import numpy as np
import pytest

import taviropy as tv


@pytest.fixture
def blocks():
    m = tv.Model()
    X, Y = m.addMVar((2, 3), ub=1.0), m.addMVar((2, 3), ub=2.0)
    x = m.addMVar(3)
    m.update()
    return {
        "array": np.arange(6.0).reshape(2, 3),
        "mvar": X,
        "full": 2 * X + Y + 1,
        "compact": (np.ones((3, 3)) @ x + 1.0),
        "quadratic": X * Y + Y,
        "nonlinear": X**3,
    }


LADDER = ["mvar", "array", "full", "quadratic", "nonlinear"]
CLASSES = {
    "mvar": tv.MVar, "array": tv.MLinExpr, "full": tv.MLinExpr, "quadratic": tv.MQuadExpr,
    "nonlinear": tv.MNLExpr,
}  # fmt: skip


def text(expr):
    return [str(e) for e in np.ravel(elements(expr))]


def elements(expr):
    """One scalar object an element, as an array of the shape."""
    out = np.empty(expr.shape, dtype=object)
    for place in np.ndindex(expr.shape):
        part = expr[place]
        out[place] = part.item() if hasattr(part, "item") else part
    return out


def lifted(block, cls):
    """The block as an object of the class, by that class's own arithmetic."""
    zero = {
        tv.MVar: lambda: block,
        tv.MLinExpr: lambda: tv.MLinExpr.zeros(block.shape) + block,
        tv.MQuadExpr: lambda: tv.MQuadExpr.zeros(block.shape) + block,
    }
    return zero[cls]()


@pytest.mark.parametrize("left", LADDER)
@pytest.mark.parametrize("right", LADDER)
def test_the_result_is_of_the_narrowest_class_for_all(blocks, left, right):
    pair = (blocks[left], blocks[right])
    wanted = CLASSES[max(left, right, key=LADDER.index)]
    for routine, numpyfunc, shape in (
        (tv.vstack, np.vstack, (4, 3)),
        (tv.hstack, np.hstack, (2, 6)),
        (functools.partial(tv.concatenate, axis=1), functools.partial(np.concatenate, axis=1), (2, 6)),
    ):  # fmt: skip
        stacked = routine(pair)
        assert type(stacked) is wanted and stacked.shape == shape
        if wanted is not tv.MNLExpr:
            parts = [elements(lifted(block, wanted)) for block in pair]
            assert text(stacked) == [str(e) for e in numpyfunc(parts).flat]


def test_axes_and_sequences(blocks):
    X = blocks["mvar"]
    flat = tv.concatenate([X, X], axis=None)
    assert flat.shape == (12,) and flat._vararr[6] is X._vararr[0, 0]
    assert tv.concatenate((X, X)).shape == (4, 3) and tv.concatenate(tup=(X,), axis=-1).shape == (
        2,
        3,
    )
    assert tv.vstack(X).shape == (2, 3)  # its rows
    assert tv.vstack((blocks["compact"], X)).shape == (3, 3)
    for act in (
        lambda: tv.vstack(()), lambda: tv.concatenate([], axis=1), lambda: tv.vstack(iter((X, 1))),
        lambda: tv.concatenate((X, X), axis=2), lambda: tv.hstack((X, np.ones((3, 3)))),
    ):  # fmt: skip
        with pytest.raises(ValueError) as error:
            act()
        assert "Invalid types" not in str(error.value)
    with pytest.raises(TypeError):
        tv.vstack(3)


def test_operands_stay_as_they_are_and_share_no_expression(blocks):
    compact, full, quadratic = blocks["compact"], blocks["full"], blocks["quadratic"]
    parts, learr, before = compact._matmulparts, list(full._learr.flat), text(full)
    results = [
        tv.hstack((compact, compact)),
        tv.vstack((full, full, full)),
        tv.vstack((quadratic, full)),
    ]
    assert compact._is_compact and compact._matmulparts is parts
    held = {id(le) for le in [*learr, *quadratic._ndle._learr.flat]}
    for result in results:
        linear = result if isinstance(result, tv.MLinExpr) else result._ndle
        result += 5.0
        ids = [id(le) for le in linear._learr.flat]
        assert len(set(ids)) == len(ids) and not held & set(ids)
    assert list(full._learr.flat) == learr and text(full) == before


def test_constraint_handles_stack_with_their_own_kind_only(blocks):
    X = blocks["mvar"]
    m = X._cmodel
    c, q = m.addConstr(X <= 1), m.addConstr(X * X <= 1)
    g = tv.MGenConstr.fromlist(
        [m.addGenConstrNL(v, tv.NLExpr._from_var(v) ** 3) for v in X[0].tolist()]
    )
    for handle, field in ((c, "_constrarr"), (q, "_qconstrarr"), (g, "_constrarr")):
        both = tv.hstack((handle, handle))
        assert type(both) is type(handle)
        assert getattr(both, field).tolist() == np.hstack([getattr(handle, field)] * 2).tolist()
    v = X[0, 0].item()
    for mixed in ((c, q), (c, X), (g, c), (X, v), (X, 1.0), (2 * v,), ([v],), (X, None)):
        with pytest.raises(ValueError) as error:
            tv.vstack(mixed)
        assert str(error.value) == "Invalid types for array manipulation routine"
