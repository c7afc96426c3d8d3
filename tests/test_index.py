"""Elements of MLinExpr, MQuadExpr and MNLExpr, read, assigned to and summed, beside those of NumPy's
arrays; and comparisons."""

import operator

import numpy as np
import pytest
import scipy.sparse as sp
from hypothesis import given, settings
from hypothesis import strategies as st
from hypothesis.extra import numpy as hnp
from linear import content, keeping_compact, own_lists, terms
from quadratics import value_of
from trees import point

import taviropy as tv

CLASSES = {
    tv.MLinExpr: lambda x, number: 2 * x + number,
    tv.MQuadExpr: lambda x, number: x * x + 2 * x + number,
    tv.MNLExpr: lambda x, number: tv.MNLExpr._from_mvar(x) * 2 + number,
}
each = pytest.mark.parametrize("cls", CLASSES, ids=lambda cls: cls.__name__)


def made(cls, shape, model=None):
    """An expression of a class, the values of its elements, and the point."""
    x = (model or tv.Model()).addMVar(shape)
    at, values = point(x)
    number = np.arange(x.size, dtype=float).reshape(x.shape)
    values = values**2 + 2 * values if cls is tv.MQuadExpr else 2 * values
    return CLASSES[cls](x, number), values + number, at


def elements(expr):
    """The scalar objects of a full expression."""
    return next(getattr(expr, n) for n in ("_learr", "_qearr", "_nlearr") if hasattr(expr, n))


@settings(max_examples=300, deadline=None)
@given(st.data())
def test_selections_are_numpys(data):
    shape = data.draw(hnp.array_shapes(min_dims=0, max_dims=3, max_side=3))
    key = data.draw(
        hnp.basic_indices(shape, allow_newaxis=True, allow_ellipsis=True)
        | (hnp.integer_array_indices(shape) if shape else st.just(()))
        | hnp.arrays(bool, shape)
    )
    cls = data.draw(st.sampled_from(list(CLASSES)))
    with keeping_compact(data.draw(st.integers(0, 1))):
        expr, values, at = made(cls, shape)
        wanted = values[key]
        picked = expr[key]
    assert type(picked) is cls and picked.shape == np.shape(wanted)
    assert cls is tv.MNLExpr or not (picked._is_compact or expr._is_compact)
    np.testing.assert_allclose(value_of(picked, at), wanted)
    # A view shares its elements, a copy has its own.
    mine = {id(element) for element in elements(expr).flat}
    shared = [element for element in elements(picked).flat if id(element) in mine]
    part = elements(expr)[key]
    owned = isinstance(part, np.ndarray) and part.base is None
    assert len(shared) == (0 if owned else picked.size)
    if picked.size and cls is not tv.MNLExpr:
        picked.clear()
        assert np.allclose(value_of(expr, at), values) == owned or not values[key].any()


KEYS = [slice(None, None, 2), [2, 0], np.array([True, False, True]), (), slice(1, 2), 1]
KINDS = ["number", "numpy", "array", "list", "var", "linexpr", "mvar", "linear", "linear full",
         "quadexpr", "quadratic", "nlexpr", "nonlinear"]  # fmt: skip
REFUSED = {tv.MLinExpr: KINDS[9:], tv.MQuadExpr: KINDS[11:], tv.MNLExpr: ["list"]}


@each
@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("key", KEYS, ids=str)
def test_assignment_changes_the_selected_elements(m, form, cls, key, kind):
    expr, wanted, at = made(cls, 3, m)
    y = m.addMVar(1)
    more, (number,) = point(y)
    at, v, linear = at | more, y.item(), 2 * y + 1
    value, number = {
        "number": (1.5, 1.5), "numpy": (np.int32(4), 4.0), "array": (np.array([2.5]), 2.5),
        "list": ([3], 3.0), "var": (v, number), "linexpr": (3 * v + 1, 3 * number + 1),
        "mvar": (y, number), "linear": (linear, 2 * number + 1),
        "linear full": (linear[...], 2 * number + 1), "quadexpr": (v * v + v, number**2 + number),
        "quadratic": ((y * y + 1)[...], number**2 + 1), "nlexpr": (tv.exp(v), np.exp(number)),
        "nonlinear": (tv.exp(y), np.exp(number)),
    }[kind]  # fmt: skip
    blocks = ("linear", "linear full", "quadratic") if cls is tv.MNLExpr else ()
    if isinstance(key, int) and kind in ("array", "list", "mvar", "nonlinear", *blocks):
        pytest.skip("a single element takes no array of shape (1,)")
    if kind in REFUSED[cls]:
        with pytest.raises(ValueError, match=rf"(?s)^Cannot assign .* to {cls.__name__}$"):
            expr[key] = value
        np.testing.assert_allclose(value_of(expr, at), wanted)
        return
    is_block = isinstance(value, tuple(CLASSES))
    before = value_of(value, at) if is_block else None
    was_compact = getattr(value, "_is_compact", None)
    objects = list(elements(expr[...]).flat)
    expr[key] = value
    wanted[key] = number
    np.testing.assert_allclose(value_of(expr, at), wanted)
    assert all(now is then for now, then in zip(elements(expr).flat, objects, strict=True))
    assert cls is not tv.MLinExpr or own_lists(expr)
    if form:
        assert getattr(value, "_is_compact", None) is was_compact
    expr *= 2.0  # what was assigned is a copy
    np.testing.assert_allclose(value_of(expr, at), wanted * 2.0)
    if is_block:
        np.testing.assert_array_equal(value_of(value, at), before)


@each
def test_assignment_broadcasts_and_shows_in_views(m, form, cls):
    expr, wanted, at = made(cls, (2, 3), m)
    y = m.addMVar(3)
    more, Y = point(y)
    at |= more
    column, row = expr[:, 1], expr[0]
    for key, value, numbers in (
        (np.s_[:, 1:], np.array([[1.0], [2.0]]), [[1.0], [2.0]]),
        (np.s_[:, 0], y[0] + 1, Y[0] + 1),
        (0, 3 * y, 3 * Y),
        ((1, 2), 5.0, 5.0),
        (1, y, Y),
    ):
        expr[key] = value
        wanted[key] = numbers
        for part, values in ((expr, wanted), (column, wanted[:, 1]), (row, wanted[0])):
            np.testing.assert_allclose(value_of(part, at), values)
    for key, value in (
        (np.s_[:], np.ones((3, 2))), (np.s_[:], m.addMVar(2)), ((0, 0), np.ones(1)), (np.s_[:, :2], 2 * y + 1),
        (0, np.ones((1, 3))),
    ):  # fmt: skip
        with pytest.raises(ValueError):
            expr[key] = value
    for key in (5, "a", (0, 0, 0), 1.5):
        with pytest.raises(IndexError):
            _ = expr[key]
        with pytest.raises(IndexError):
            expr[key] = 1
    assert [part.shape for part in expr] == [(3,), (3,)]  # iteration ends by IndexError


@each
def test_overlapping_sides(m, form, cls):
    expr, wanted, at = made(cls, 4, m)
    for left, right in ((np.s_[1:], np.s_[:-1]), (np.s_[::-1], np.s_[:]), (np.s_[:2], np.s_[:2])):
        expr[left] = expr[right]
        wanted[left] = wanted[right].copy()
        np.testing.assert_allclose(value_of(expr, at), wanted)


@each
@pytest.mark.parametrize("value", ["text", {}, [[1], [1, 2]], [None, "c"], object(), sp.eye(2)])
def test_values_that_cannot_be_assigned(m, cls, value):
    expr, before, at = made(cls, 2, m)
    with pytest.raises(ValueError) as error:
        expr[:] = value
    shown = str(type(value) if cls is tv.MLinExpr else value)
    assert str(error.value) == f"Cannot assign {shown} to {cls.__name__}"
    np.testing.assert_array_equal(value_of(expr, at), before)
    assert cls is tv.MNLExpr or not expr._is_compact


@each
def test_item_is_a_copy(m, form, cls):
    for shape in [(), (1,), (1, 1)]:
        expr, before, at = made(cls, shape, m)
        was_compact = getattr(expr, "_is_compact", None)
        item = expr.item()
        assert type(item) is {"L": tv.LinExpr, "Q": tv.QuadExpr, "N": tv.NLExpr}[cls.__name__[1]]
        item += 5
        assert getattr(expr, "_is_compact", None) == was_compact
        np.testing.assert_array_equal(value_of(expr, at), before)
    with pytest.raises(ValueError):
        made(cls, 2)[0].item()


def test_an_element_assigned_to_itself_stays_untouched(x):
    at, X = point(x)
    expr = 2 * x
    expr[0] += x[1]
    np.testing.assert_allclose(value_of(expr, at)[0], 2 * X[0] + X[1])
    le = expr._learr[1]
    coeffs = le.coeffs
    expr[1] = expr[1]
    expr[1] = le
    assert expr._learr[1] is le and le.coeffs is coeffs
    expr[:] = le
    assert le.coeffs is coeffs and own_lists(expr)
    expr[1] = 5.0
    assert terms(expr._learr[1]) == (5.0, [])


def test_empty_selections_are_value_errors(x):
    expr = 2 * x + 1
    before = content(expr)
    for value in (1.0, x[0].item(), 2 * x[0].item(), x[:0], 2 * x[:0], np.ones(0)):
        with pytest.raises(ValueError):
            expr[:0] = value
    assert content(expr) == before and expr[:0].shape == (0,)


# Sums and comparisons


@settings(max_examples=200, deadline=None)
@given(st.data())
def test_sums_are_numpys(data):
    shape = data.draw(hnp.array_shapes(min_dims=0, max_dims=3, min_side=0, max_side=3))
    cls = data.draw(st.sampled_from(list(CLASSES)))
    axes = hnp.valid_tuple_axes(len(shape)) | st.sampled_from([*range(-len(shape), len(shape))])
    axis = data.draw(st.none() | axes) if shape else None
    with keeping_compact(data.draw(st.integers(0, 1))):
        expr, values, at = made(cls, shape)
        expr = expr if data.draw(st.booleans()) else expr[..., ::-1] if shape else expr
        values = value_of(expr, at)
        total = expr.sum(axis)
    assert type(total) is cls and total.shape == values.sum(axis).shape
    np.testing.assert_allclose(value_of(total, at), values.sum(axis))
    np.testing.assert_array_equal(value_of(expr, at), values)
    assert cls is tv.MNLExpr or not (total._is_compact or expr._is_compact)
    assert cls is not tv.MLinExpr or own_lists(total)
    if total.size:
        total *= 3.0
    np.testing.assert_array_equal(value_of(expr, at), values)
    for wrong in (len(shape), -len(shape) - 1, (0, 0)):
        with pytest.raises(tv.TaviroError) as error:
            expr.sum(wrong)
        assert error.value.args == (-1, f"Invalid axis specifications: {wrong}")


@pytest.mark.parametrize("cls", [tv.MVar, tv.MLinExpr, tv.MQuadExpr])
def test_comparisons_hold_their_operands_unseen(x, form, cls):
    expr = x if cls is tv.MVar else CLASSES[cls](x, 1)
    rhs = object()
    for compare, sense in (
        (operator.le, tv.TVO.LESS_EQUAL),
        (operator.ge, tv.TVO.GREATER_EQUAL),
        (operator.eq, tv.TVO.EQUAL),
    ):
        constr = compare(expr, rhs)
        assert type(constr) is tv.TempConstr
        assert constr.lhs is expr and constr.sense == sense and constr.rhs is rhs
    with pytest.raises(tv.TaviroError) as error:
        operator.ne(expr, rhs)
    code = -1 if cls is tv.MVar else 0
    assert error.value.args == (code, "Inequality constraints not supported")
    for unsupported in (lambda: expr < 1, lambda: expr > 1, lambda: hash(expr), lambda: {expr}):
        with pytest.raises(TypeError):
            unsupported()
