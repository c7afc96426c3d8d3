"""MLinExpr: products with numbers and expressions, division, powers."""

import warnings

import numpy as np
import pytest
import scipy.sparse as sp
from linear import content, elements, own_lists, terms

import taviropy as tv

MLinExpr, TVO = tv.MLinExpr, tv.TVO


def two_parts(x):
    expr = 2 * x + 1.0
    expr += x
    return expr


def test_a_factor_of_one_touches_nothing(x):
    expr = two_parts(x)
    parts = expr._matmulparts
    expr *= 1
    assert expr._matmulparts is parts and len(parts) == 2
    expr *= 2
    assert len(expr._matmulparts) == 1
    full = expr._to_full()
    before = [le.coeffs for le in full._learr]
    full *= 1.0
    assert all(a is b for a, b in zip(before, (le.coeffs for le in full._learr), strict=True))


def test_zero_keeps_the_pattern(x):
    zero = (2 * x + 1) * 0
    assert zero._matmulparts[0][0].data.tolist() == [0.0, 0.0, 0.0]
    assert [terms(le) for le in elements(zero)] == [(0.0, [(0.0, v)]) for v in x._vararr]


@pytest.mark.parametrize("bad", [np.nan, np.inf, -np.inf])
def test_arrays_must_be_finite_where_the_expression_is_compact(x, bad):
    expr = two_parts(x)
    before = content(expr)
    factors = np.array([1.0, bad, 1.0])
    divisors = np.array([1.0, 0.0, 1.0])
    for operation in (lambda: expr * factors, lambda: expr.__imul__(factors),
                      lambda: expr * factors.astype("f4"),
                      lambda: expr * sp.csr_matrix(factors), lambda: expr / divisors,
                      lambda: expr.__itruediv__(divisors), lambda: expr * np.array([bad])):  # fmt: skip
        with np.errstate(all="ignore"), pytest.raises(tv.TaviroError) as caught:
            operation()
        assert caught.value.args == (TVO.ERROR_INVALID_ARGUMENT, "Multiplier is infinite or NaN")
        assert content(expr) == before
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        full = expr._to_full() * factors
        assert not np.isfinite(full._learr[1].constant)
    with np.errstate(all="ignore"):
        assert not np.isfinite((expr * bad)._const).any()


def test_arrays_of_objects_are_no_factors(x, form):
    with pytest.raises(TypeError):
        _ = two_parts(x) * np.array([1.0, 2.0, 3.0], dtype=object)


def test_a_matrix_of_numpy_keeps_its_axes_and_is_refused(x):
    expr = 2 * x.reshape(3, 1)
    with pytest.raises(ValueError, match="numpy.matrix"):
        expr *= np.arange(3.0).reshape(3, 1).view(np.matrix)


def test_compact_products_and_those_that_leave(m, x):
    one, expr = 2 * m.addMVar(1) + 1, 2 * x
    spread = one * np.arange(1.0, 6.0)
    assert spread._is_compact and spread.shape == (5,)
    assert spread._matmulparts[0][0].toarray().ravel().tolist() == [2, 4, 6, 8, 10]
    table = expr * np.ones((2, 3))
    assert table.shape == (2, 3) and not table._is_compact and expr._is_compact
    assert own_lists(table)
    scaled = expr * np.ones(3)
    assert scaled._matmulparts[0][1]._vararr is expr._matmulparts[0][1]._vararr
    assert not np.shares_memory(scaled._const, expr._const)


def test_quadratic_products_leave_the_operands_compact(m, x):
    left, right = 2 * x + 1, 3 * x - 1
    product = left * right
    assert isinstance(product, tv.MQuadExpr) and not product._is_compact
    assert left._is_compact and right._is_compact
    v = x[0].item()
    element, linear = product._qearr[0], product._ndle._learr[0]
    assert (element.coeffs, element.vars1, element.vars2) == ([6.0], [v], [v])
    assert terms(linear) == (-1.0, [(1.0, v)])
    scalar = MLinExpr._from_var(v) * v
    assert scalar.shape == () and isinstance(scalar, tv.MQuadExpr)
    kept = left
    left *= x
    assert isinstance(left, tv.MQuadExpr) and isinstance(kept, MLinExpr)


def test_linear_parts_are_moved_not_copied(x):
    v, w = x._vararr[0], x._vararr[1]
    mixed = np.array([(v + 1) * (w + 2), v + w + v], dtype=object)
    linear, quadratic = mixed[0].linear, mixed[1]
    taken = MLinExpr._split_lin_quad(mixed)
    assert taken[0] is linear and taken[1] is quadratic
    assert terms(taken[1]) == (0.0, [(2.0, v), (1.0, w)])
    assert all(isinstance(q, tv.QuadExpr) and q.linear.vars == [] for q in mixed)
    assert mixed[1].coeffs == []
    with pytest.raises(TypeError):
        MLinExpr._split_lin_quad(np.array([1.0], dtype=object))


def test_division(x, form):
    expr = 4 * x + 2
    for half in (expr / 2, expr / np.full(3, 2), expr / np.float32(2)):
        assert content(half) == content(expr * 0.5)
    for wrong in (lambda: expr / 0, lambda: expr.__itruediv__(0.0)):
        with pytest.raises(ZeroDivisionError):
            wrong()
    kept = expr
    expr /= 2
    assert expr is kept and elements(expr)[0].constant == 1
    assert expr.__itruediv__(x) is NotImplemented
    for nonlinear in (1 / expr, expr / x, expr / expr, np.ones(3) / expr, expr**3, 2.0**expr):
        assert isinstance(nonlinear, tv.MNLExpr) and nonlinear.shape == (3,)


def test_sizes_of_zero(m):
    full = (2 * m.addMVar(0))._to_full()
    full *= 2.0
    with pytest.raises(ValueError):
        full *= np.zeros(0)
    with pytest.raises(ValueError):
        _ = full * np.zeros(0)
    compact = 2 * m.addMVar(0)
    assert (compact * np.zeros(0)).shape == (0,)
