"""MLinExpr: reading elements, what selections share, and assignment."""

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st
from hypothesis.extra import numpy as hnp
from linear import block, content, elements, keeping_compact, own_lists, terms, values

import taviropy as tv

MLinExpr = tv.MLinExpr


def expression(x):
    """2 * x + 0, 1, 2, ... in the shape of x."""
    return 2 * x + np.arange(x.size, dtype=float).reshape(x.shape)


@settings(max_examples=150, deadline=None)
@given(st.data())
def test_selections_are_numpys(data):
    shape = data.draw(hnp.array_shapes(min_dims=0, max_dims=3, max_side=3))
    key = data.draw(
        hnp.basic_indices(shape, allow_newaxis=True, allow_ellipsis=True)
        | (hnp.integer_array_indices(shape) if shape else st.just(()))
        | hnp.arrays(bool, shape)
    )
    x, at, X = block(tv.Model(), shape)
    with keeping_compact(data.draw(st.integers(0, 1))):
        expr = expression(x)
        wanted = (2 * X + np.arange(x.size).reshape(shape))[key]
        picked = expr[key]
    assert type(picked) is MLinExpr and not picked._is_compact and not expr._is_compact
    assert picked.shape == np.shape(wanted)
    np.testing.assert_allclose(values(picked, at), wanted)
    shared = [le for le in picked._learr.flat if any(le is mine for mine in expr._learr.flat)]
    owned = isinstance(expr._learr[key], np.ndarray) and expr._learr[key].base is None
    assert len(shared) == (0 if owned else picked.size)


@pytest.mark.parametrize(
    ("key", "shared"),
    [(0, True), ((0, 1), True), (slice(1, None), True), (..., True), (None, True), ([0, 1], False),
     (np.array([True, False]), False), ((slice(None), [0]), True)],
)  # fmt: skip
def test_what_a_selection_shares(m, key, shared):
    expr = expression(m.addMVar((2, 3)))
    before = content(expr)
    picked = expr[key]
    picked += 1.0
    assert (content(expr) != before) is shared


def test_item_is_a_copy(m, form):
    for shape in [(), (1,), (1, 1)]:
        expr = expression(m.addMVar(shape))
        was_compact, before = expr._is_compact, content(expr)
        le = expr.item()
        assert type(le) is tv.LinExpr and terms(le) == before[1][0]
        le += 5
        assert (expr._is_compact, content(expr)) == (was_compact, before)
    with pytest.raises(ValueError):
        expression(m.addMVar(2)).item()


def test_index_errors_convert_all_the_same(m):
    expr = expression(m.addMVar(3))
    for key in (3, "a", (0, 0), 1.5):
        with pytest.raises(IndexError):
            _ = expr[key]
        with pytest.raises(IndexError):
            expr[key] = 1
    assert not expr._is_compact
    assert [le.item().constant for le in expr] == [0.0, 1.0, 2.0]  # iteration ends by IndexError


# ---- Assignment -----------------------------------------------------------------------------

KEYS = [slice(None, None, 2), [2, 0], np.array([True, False, True]), (), slice(1, 2), 1]


@pytest.mark.parametrize("key", KEYS, ids=str)
@pytest.mark.parametrize("kind", ["number", "numpy", "array", "list", "var", "linexpr", "mvar",
                                  "compact", "expr"])  # fmt: skip
def test_assignment_changes_the_selected_elements(m, form, key, kind):
    (x, at, X), (y, more, Y) = block(m, 3), block(m, 1, seed=3)
    at |= more
    v = y.item()
    value, number = {
        "number": (1.5, 1.5), "numpy": (np.int32(4), 4.0), "array": (np.array([2.5]), 2.5),
        "list": ([3], 3.0), "var": (v, Y[0]), "linexpr": (3 * v + 1, 3 * Y[0] + 1),
        "mvar": (y, Y[0]), "compact": (2 * y + 1, 2 * Y[0] + 1),
        "expr": ((2 * y + 1)[...], 2 * Y[0] + 1),
    }[kind]  # fmt: skip
    if isinstance(key, int) and kind in ("array", "list", "mvar"):
        pytest.skip("a single element takes no array of shape (1,)")
    expr = expression(x)
    expr._convert_to_full()
    objects, wanted = list(expr._learr), 2 * X + np.arange(3.0)
    wanted[key] = number
    value_form = getattr(value, "_is_compact", None)
    expr[key] = value
    np.testing.assert_allclose(values(expr, at), wanted)
    assert all(now is then for now, then in zip(expr._learr, objects, strict=True))
    assert own_lists(expr)
    if form == 1:
        assert getattr(value, "_is_compact", None) is value_form
    expr += 1.0  # what was assigned is a copy
    if kind in ("compact", "expr"):
        np.testing.assert_allclose(values(value, at), [2 * Y[0] + 1])


def test_assignment_broadcasts(m, form):
    (x, at, _), (y, more, Y) = block(m, (2, 3)), block(m, 3, seed=5)
    at |= more
    expr = expression(x)
    expr[:, 1:] = np.array([[1.0], [2.0]])
    expr[:, 0] = y[0] + 1
    wanted = np.array([[Y[0] + 1, 1.0, 1.0], [Y[0] + 1, 2.0, 2.0]])
    np.testing.assert_allclose(values(expr, at), wanted)
    expr[:] = 3 * y
    np.testing.assert_allclose(values(expr, at), [3 * Y, 3 * Y])
    assert own_lists(expr)
    expr[0, 1] = 5.0
    assert terms(expr._learr[0, 1]) == (5.0, [])
    for value in (np.ones((3, 2)), m.addMVar(2)):
        with pytest.raises(ValueError):
            expr[:] = value
    with pytest.raises(ValueError):
        expr[0, 0] = np.ones(1)
    with pytest.raises(ValueError):
        expr[:, :2] = expression(y)


def test_overlapping_sides(m, form):
    x, at, X = block(m, 4)
    expr, wanted = expression(x), 2 * X + np.arange(4.0)
    expr[1:] = expr[:-1]
    wanted[1:] = wanted[:-1].copy()
    np.testing.assert_allclose(values(expr, at), wanted)
    expr[::-1] = expr
    np.testing.assert_allclose(values(expr, at), wanted[::-1])
    assert own_lists(expr)


def test_an_element_assigned_to_itself_stays_untouched(m):
    x, at, X = block(m, 3)
    expr = expression(x)
    expr[0] += x[1]
    np.testing.assert_allclose(values(expr, at)[0], 2 * X[0] + X[1])
    le = expr._learr[1]
    coeffs = le.coeffs
    expr[1] = expr[1]
    expr[1] = le
    assert expr._learr[1] is le and le.coeffs is coeffs
    expr[:] = le
    assert le.coeffs is coeffs and own_lists(expr)


@pytest.mark.parametrize("value", ["text", {}, [[1], [1, 2]], object()])
def test_values_that_cannot_be_assigned(m, value):
    expr = expression(m.addMVar(2))
    before = content(expr)
    with pytest.raises(ValueError) as error:
        expr[:] = value
    assert str(error.value) == f"Cannot assign {type(value)} to MLinExpr"
    assert content(expr) == before and not expr._is_compact


def test_empty_selections_are_value_errors(m):
    x = m.addMVar(2)
    expr = expression(x)
    before = content(expr)
    for value in (1.0, x[0].item(), 2 * x[0].item(), x[:0], 2 * x[:0], np.ones(0)):
        with pytest.raises(ValueError):
            expr[:0] = value
    assert content(expr) == before
    assert len(elements(expr[:0])) == 0
