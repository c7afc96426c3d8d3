"""MQuadExpr: copies, sums, values, text and comparisons."""

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


def test_subscripts_make_a_compact_expression_full(m):
    y = m.addMVar(2)
    quadratic = y @ Q @ y
    assert not quadratic[...]._is_compact
    assert not quadratic._is_compact
    with pytest.raises(IndexError):
        quadratic[0]


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


def test_sums_of_nothing_and_of_one(m):
    y = m.addMVar(2)
    empty = MQuadExpr.zeros((0, 2)).sum(axis=0)
    assert [(len(qe.coeffs), empty.shape) for qe in empty._qearr] == [(0, (2,)), (0, (2,))]
    q = y @ Q @ y
    assert q.sum().shape == ()
    assert not q._is_compact


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
