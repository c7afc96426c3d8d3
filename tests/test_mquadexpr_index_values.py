"""MQuadExpr: subscripts, assignment, copies, sums, values, text and comparisons."""

import numpy as np
import pytest
import scipy.sparse as sp
from quadratics import value_of
from trees import point

import taviropy as tv

MQuadExpr = tv.MQuadExpr
Q = sp.csr_matrix(np.array([[1.0, 2.0], [0.0, 3.0]]))


@pytest.fixture
def x(m):
    fixed = np.arange(1.0, 7.0).reshape(2, 3)
    return m.addMVar((2, 3), lb=fixed, ub=fixed, name="x")


@pytest.fixture
def q(x):
    return x * x + 2.0 * x + 1.0


# ---- Subscripts -----------------------------------------------------------------------------


KEYS = [0, -1, (0, 1), slice(None, None, -1), (slice(None), slice(0, 2)), Ellipsis, None, (1, None),
        [0, 1, 0], np.array([[True, False, True], [False, True, False]]), (slice(0, 0),)]  # fmt: skip


@pytest.mark.parametrize("key", KEYS, ids=str)
def test_subscripts_take_what_numpy_takes(q, x, key, form):
    at, xs = point(x)
    wanted = ((xs + 1) ** 2)[key]
    part = q[key]
    assert part.shape == wanted.shape
    np.testing.assert_allclose(value_of(part, at), wanted)


def test_views_share_their_elements_and_copies_do_not(q):
    assert q[0]._qearr[1] is q._qearr[0, 1]
    assert q[0, 1]._qearr.item() is q._qearr[0, 1]
    assert q[[0, 1]]._qearr[0, 1] is not q._qearr[0, 1]
    assert q[0, 1].item() is not q._qearr[0, 1]
    row, rows = q[0], q[[0]]
    row.clear()
    assert [len(qe.coeffs) for qe in q._qearr.flat] == [0, 0, 0, 1, 1, 1]
    assert [len(qe.coeffs) for qe in rows._qearr.flat] == [1, 1, 1]


def test_subscripts_make_a_compact_expression_full(m):
    y = m.addMVar(2)
    quadratic = y @ Q @ y
    assert not quadratic[...]._is_compact
    assert not quadratic._is_compact
    with pytest.raises(IndexError):
        quadratic[0]


# ---- Assignment -----------------------------------------------------------------------------


def assignable(x, at):
    u = x[1, 2].item()
    quadratic = x * x[0]
    xs = np.vectorize(at.__getitem__)(x._vararr)
    return [
        (5, 5.0), (np.float32(0.5), 0.5), (np.arange(3.0), np.arange(3.0)), ([1, 2, 3], [1, 2, 3]),
        ((x[0], xs[0])), (2 * x[0] + 1, 2 * xs[0] + 1), (u, at[u]), (2 * u + 1, 2 * at[u] + 1),
        (u * u + u, at[u] ** 2 + at[u]), (quadratic, xs * xs[0]), (quadratic[0], xs[0] ** 2),
        (quadratic[0, :1] + 0.5, xs[0, :1] ** 2 + 0.5),
    ]  # fmt: skip


@pytest.mark.parametrize("number", range(12))
def test_assignment_replaces_all_terms(q, x, number, form):
    at, xs = point(x)
    source, value = assignable(x, at)[number]
    wanted = (xs + 1) ** 2
    wanted[:] = value
    elements = list(q._qearr.flat)
    q[:] = source
    np.testing.assert_allclose(value_of(q, at), wanted)
    assert all(old is new for old, new in zip(elements, q._qearr.flat, strict=True))
    q *= 2.0
    if isinstance(source, MQuadExpr):
        np.testing.assert_allclose(value_of(source, at), value)


def test_assignment_to_parts_shows_in_views(q, x):
    at, xs = point(x)
    wanted = (xs + 1) ** 2
    column, row = q[:, 1], q[0]
    q[0] = 1.0
    q[1, 1] = x[0, 0].item() * x[0, 0].item()
    wanted[0], wanted[1, 1] = 1.0, xs[0, 0] ** 2
    for part, value in ((q, wanted), (column, wanted[:, 1]), (row, wanted[0])):
        np.testing.assert_allclose(value_of(part, at), value)


def test_assignment_of_overlapping_parts(q, x):
    at, xs = point(x)
    wanted = (xs + 1) ** 2
    q[0] = q[0]
    np.testing.assert_allclose(value_of(q, at), wanted)
    q[:, 1:] = q[:, :2]
    wanted[:, 1:] = wanted[:, :2].copy()
    np.testing.assert_allclose(value_of(q, at), wanted)
    q[:] = q[::-1]
    np.testing.assert_allclose(value_of(q, at), wanted[::-1])


def test_assignment_refuses_what_is_no_number(q, x):
    at, xs = point(x)
    before = value_of(q, at)
    for value in ("a", [1, "b"], {}, [None, "c"]):
        with pytest.raises(ValueError, match=r"^Cannot assign .* to MQuadExpr$") as error:
            q[0] = value
        assert str(value) in str(error.value)
    with pytest.raises(ValueError, match=r"(?s)^Cannot assign .* to MQuadExpr$"):
        q[...] = Q
    np.testing.assert_array_equal(value_of(q, at), before)
    with pytest.raises(ValueError, match="3"):
        q[0] = x[:, 0] * x[:, 0]
    np.testing.assert_array_equal(value_of(q, at), before)
    with pytest.raises(ValueError, match="3"):
        q[0] = np.ones(2)
    with pytest.raises(IndexError):
        q[5] = 1.0


# ---- Copies, sums, resets -------------------------------------------------------------------


@pytest.mark.parametrize("shape", [(), (1,), (2, 2), (0, 2), (0,)])
def test_copies_and_resets_keep_form_and_shape(m, shape, form):
    y = m.addMVar(shape)
    q = y * y + 1.0 if 0 not in shape else MQuadExpr.zeros(shape)
    at, ys = point(y)
    twin = q.copy()
    assert (twin.shape, twin._is_compact) == (q.shape, q._is_compact)
    assert twin._ndle is not q._ndle
    twin += 2.0
    np.testing.assert_allclose(value_of(q, at), ys**2 + 1)
    if q.size or q._is_compact:
        twin.clear()
        assert (twin.shape, twin._is_compact) == (q.shape, q._is_compact)
        np.testing.assert_array_equal(value_of(twin, at), np.zeros(shape))
    else:
        with pytest.raises(ValueError, match="zero"):
            twin.clear()


@pytest.mark.parametrize("axis", [None, 0, 1, -1])
def test_sums_equal_numpys(q, x, axis, form):
    at, xs = point(x)
    for expr, values in ((q, (xs + 1) ** 2), (q.copy()[::-1], (xs[::-1] + 1) ** 2)):
        total, wanted = expr.sum(axis=axis), values.sum(axis=axis)
        assert total.shape == wanted.shape
        np.testing.assert_allclose(value_of(total, at), wanted)
        assert not total._is_compact
        total.clear()
    assert {len(qe.coeffs) for qe in q._qearr.flat} == {1}


def test_sums_of_nothing_and_of_one(m):
    y = m.addMVar(2)
    empty = MQuadExpr.zeros((0, 2)).sum(axis=0)
    assert [(len(qe.coeffs), empty.shape) for qe in empty._qearr] == [(0, (2,)), (0, (2,))]
    q = y @ Q @ y
    assert q.sum().shape == ()
    assert not q._is_compact


def test_sums_refuse_an_axis_that_is_not_there(q):
    with pytest.raises(tv.TaviroError, match="Invalid axis specifications: 5"):
        q.sum(axis=5)


# ---- Values, text, comparisons --------------------------------------------------------------


def test_values_of_a_solution(m, x, q):
    y = x[0, :2]
    compact = y @ Q @ y + np.array([1.0, 1.0]) @ y + 0.5
    m.optimize()
    np.testing.assert_allclose(q.getValue(), (x.X + 1) ** 2)
    assert q.getValue().dtype == np.float64
    assert compact.getValue() == pytest.approx(y.X @ Q @ y.X + y.X.sum() + 0.5)
    assert compact._is_compact
    np.testing.assert_allclose((MQuadExpr.zeros(1) + 2.0).getValue(), [2.0])
    assert MQuadExpr.zeros((0, 2)).getValue().shape == (0, 2)


def test_blanks_tell_the_form(m, x):
    m.update()
    y = x[0, :2]
    quadratic = y @ Q @ y
    twice = quadratic.copy()
    twice += quadratic
    heads = [repr(expr).split("\n")[0] for expr in (MQuadExpr.zeros(()), quadratic, twice, x * x)]
    assert heads == [
        "<MQuadExpr () >", "<MQuadExpr ()  >", "<MQuadExpr ()   >", "<MQuadExpr (2, 3)>"
    ]  # fmt: skip
    body = repr(x[0] * x[0] + 2 * x[1])
    assert body.startswith("<MQuadExpr (3,)>\narray([ ")
    assert body.endswith("])")
    assert "dtype" not in body


def test_comparisons_make_constraints(q):
    for sense, constraint in {
        tv.TVO.LESS_EQUAL: q <= 1, tv.TVO.GREATER_EQUAL: q >= 1, tv.TVO.EQUAL: q == 1
    }.items():  # fmt: skip
        assert isinstance(constraint, tv.TempConstr)
        assert constraint.lhs is q
        assert (constraint.sense, constraint.rhs) == (sense, 1)
    with pytest.raises(tv.TaviroError, match="Inequality constraints not supported"):
        q != 1  # noqa: B015
    with pytest.raises(TypeError, match="unhashable"):
        hash(q)
