"""MQuadExpr: which sums and products stay compact, what they may change, and what they become.

Their values are compared in test_conformance_table.
"""

import contextlib

import numpy as np
import pytest
import scipy.sparse as sp
from quadratics import value_of
from trees import point

import taviropy as tv

MQuadExpr = tv.MQuadExpr
Q = np.array([[1.0, 0.0, 2.0], [0.0, 3.0, 0.0], [4.0, 0.0, 0.0]])


@pytest.fixture
def u(m):
    return m.addVar()


@pytest.fixture
def q(x):
    """A quadratic expression without a shape, compact."""
    return x @ Q @ x + x.sum() + 1.0


@pytest.fixture
def one(x):
    """One of the shape (1, 1), compact."""
    corner = x[:1].reshape(1, 1)
    return corner @ np.ones((1, 1)) @ corner + 1.0


def test_signs_and_what_is_added_to_itself(form, x, q, one):
    at, _ = point(x)
    for expr in (q, q + x[:2] @ x[1:], one, MQuadExpr.zeros(()) + 5.0, x * x + x, (x * x).sum()):
        value, is_compact, before = value_of(expr, at), expr._is_compact, expr
        same = +expr
        assert (-expr)._is_compact == same._is_compact == is_compact
        np.testing.assert_array_equal(value_of(-expr, at), -value)
        same += 1.0
        np.testing.assert_array_equal(value_of(expr, at), value)
        expr += expr
        assert expr is before
        np.testing.assert_allclose(value_of(expr, at), 2 * value)
        expr -= expr
        np.testing.assert_allclose(value_of(expr, at), 0 * value, atol=1e-12)


def test_what_stays_compact(u, q, one):
    two = np.array([2.0, 3.0])
    stays = [q + 1, q + u, q + q, 2.0 * q, q * np.array([2.0]), -q, q / 2, q + np.array([[1.0]]),
             one @ np.array([[2.0]]), sp.csr_matrix([[2.0]]) @ one]  # fmt: skip
    assert all(result._is_compact and len(result._quadparts) == 1 for result in stays)
    assert (q * np.array([2.0])).shape == (1,)
    wide = q + two
    assert q._is_compact and wide.shape == (2,)
    assert len({id(qe) for qe in wide._qearr}) == 2
    with pytest.raises(ValueError, match="size|broadcast"):
        q *= two
    assert q._is_compact
    assert not (q * two)._is_compact
    assert not q._is_compact  # products that leave the form take their operand along


def test_adding_a_scalar_quadratic_expression_makes_full(u, q):
    qe = u * u + 3 * u + 1.0
    assert not (q + qe)._is_compact and q._is_compact
    q += qe
    assert not q._is_compact
    assert q._qearr.item().linear.coeffs == [] and float(q._getConstant()) == 2.0
    assert (len(qe.linear.coeffs), qe.linear.constant) == (1, 1.0)


def test_the_switch_turns_operands_full(one, monkeypatch):
    monkeypatch.setattr(MQuadExpr, "_keep_compact", 0)
    for use in (lambda q: q + 1, lambda q: 2 * q, lambda q: q.__iadd__("no"), lambda q: q @ [[1]]):
        q = one.copy()
        assert q._is_compact
        with contextlib.suppress(TypeError):
            use(q)
        assert not q._is_compact


def test_a_compact_scaling_changes_the_coefficients_of_a_copy(q):
    data = q._quadparts[0][1].data
    before = data.copy()
    (doubled,) = (2.0 * q)._quadparts
    np.testing.assert_array_equal(data, before)
    np.testing.assert_array_equal(doubled[1].data, 2 * before)
    q *= 2.0
    assert q._quadparts[0][1].data is data
    np.testing.assert_array_equal(data, 2 * before)


def test_long_products_keep_the_order_of_their_terms(m):
    x = m.addMVar(400)
    weights = np.arange(400.0)
    element = (weights @ (x * x)).item()
    assert element.coeffs == weights.tolist()
    assert element.vars1 == x.tolist()
    twice = (x[:2] * x[1::-1]) @ np.array([3.0, 4.0])  # x0 x1 and x1 x0 are one term
    assert twice._qearr.item().coeffs == [7.0]


# ---- What is not quadratic any more ---------------------------------------------------------


@pytest.mark.parametrize("vector", [False, True])
def test_higher_degrees_are_nonlinear(x, u, q, vector):
    q, le, qe = x * x + x + 1.0 if vector else q, 2 * u + 1.0, u * u + 3 * u + 1.0
    nonlinear = [
        q * x, x * q, q * u, q * q, q * qe, le * q, q**2, q ** np.array(2.0), 2.0**q, 1.0 / q,
        np.ones(3) / q, q / q, q / x, q / u, qe / q, q + x.nl,
    ]  # fmt: skip
    assert {type(result) for result in nonlinear} == {tv.MNLExpr}
    assert {result.shape for result in nonlinear} <= {q.shape, (3,)}


def test_refusals(x):
    q = x * x + x + 1.0
    for use in (
        lambda: x / q, lambda: (2 * x) / q, lambda: q + "a", lambda: "a" - q, lambda: q * None,
        lambda: q @ 2, lambda: 2 @ q, lambda: q - sp.csr_matrix((1, 3)), lambda: pow(q, 2, 5),
    ):  # fmt: skip
        with pytest.raises(TypeError):
            use()
    for zero in (0, 0.0, np.float64(0)):
        for use in (q.__truediv__, q.__itruediv__):
            with pytest.raises(ZeroDivisionError, match="float division by zero"):
                use(zero)
    for use in (lambda: q + np.ones(4), lambda: q @ np.ones(4), lambda: np.ones((2, 2)) @ q,
                lambda: q @ np.zeros((0, 2))):  # fmt: skip
        with pytest.raises(ValueError, match="3"):
            use()
