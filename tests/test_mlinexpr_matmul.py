"""MLinExpr: matrix products, their forms, their warnings, and what they leave of the operands."""

import warnings

import numpy as np
import pytest
import scipy.sparse as sp
from linear import content, terms

import taviropy as tv

MLinExpr, MQuadExpr = tv.MLinExpr, tv.MQuadExpr


def expression(m, shape):
    return 2 * m.addMVar(shape) + 1.0


@pytest.mark.parametrize(("shape", "matrix", "result", "compact"), [
    ((3,), (3,), (), True), ((3,), (3, 1), (1,), True), ((3,), (3, 4), (4,), True), ((1, 3), (3,), (1,), True),
    ((1, 3), (3, 4), (1, 4), True), ((3, 1), (1,), (3,), True), ((3, 1), (1, 1), (3, 1), True),
    ((3, 1), (1, 4), (3, 4), False), ((0,), (0, 2), (2,), True), ((0, 3), (3, 2), (0, 2), True),
])  # fmt: skip
def test_forms_and_shapes(m, shape, matrix, result, compact):
    numbers = np.arange(1.0, 1 + np.prod(matrix)).reshape(matrix)
    expr = expression(m, shape)
    product = expr @ numbers
    assert product.shape == result and product._is_compact == compact
    assert expr._is_compact
    if len(shape) == 1:
        mirrored = numbers.T @ expr
        assert mirrored.shape == result and content(mirrored) == content(product)
    if len(matrix) == 2:
        for make in (sp.csr_matrix, sp.csc_array, sp.coo_array):
            same = expr @ make(numbers)
            assert (same.shape, same._is_compact) == (result, compact)
            if len(shape) == 1:
                assert (make(numbers.T) @ expr).shape == result


def test_the_product_has_variables_of_its_own(m):
    expr = expression(m, 3)
    product = np.eye(3) @ expr
    own, other = expr._matmulparts[0], product._matmulparts[0]
    assert other[1] is not own[1] and other[1]._vararr is own[1]._vararr
    assert not np.shares_memory(other[0].data, own[0].data)


@pytest.mark.parametrize("n", [25, 26])
def test_full_products_of_many_elements_warn_once(m, n):
    full, column = expression(m, (2, n)), np.ones(n)
    big = expression(m, (n, 2))
    cases = [lambda: full @ column, lambda: full @ np.ones((n, 1)), lambda: np.ones((1, 2)) @ full,
             lambda: full @ sp.csr_matrix(np.ones((n, 1))), lambda: full @ big]  # fmt: skip
    for product in cases:
        with warnings.catch_warnings(record=True) as seen:
            warnings.simplefilter("always")
            product()
        assert [w.category for w in seen] == [RuntimeWarning] * (n > 25)
        if seen:
            assert str(seen[0].message) == (
                "Chained matrix multiplications of MVars is inefficient, "
                "collect numeric terms first when building expressions"
            )
            assert seen[0].filename == __file__
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        _ = expression(m, n) @ np.ones((n, n)), full @ m.addMVar(n)


def test_empty_products_and_the_order_of_warning_and_shape(m):
    empty = expression(m, (2, 0))._to_full()
    with pytest.warns(RuntimeWarning):
        assert (empty @ np.ones((0, 30))).shape == (2, 30)
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        none = expression(m, (0, 2))._to_full()
        assert (np.ones((30, 0)) @ none).shape == (30, 2)
        assert isinstance(empty @ m.addMVar(0), MQuadExpr)
    with pytest.warns(RuntimeWarning), pytest.raises(ValueError):
        _ = expression(m, (2, 30)) @ np.ones(29)


def test_like_terms_of_a_full_product_are_merged(m):
    X = m.addMVar((2, 2))
    product = (X + X) @ np.ones(2)
    v, w = X._vararr[0]
    assert terms(product._learr[0]) == (0.0, [(2.0, v), (2.0, w)])


def test_a_vector_by_variables_is_one_quadratic_part(m):
    x, y = m.addMVar(3), m.addMVar(3)
    A, b = np.arange(9.0).reshape(3, 3), np.ones(3)
    expr = A @ x + b
    for product in (expr @ y, y @ expr):
        ((left, Q, right),) = product._quadparts
        assert left._vararr.tolist() == y._vararr.tolist() and right._vararr.tolist() == list(
            x._vararr
        )
        assert (Q.toarray() == A).all() and not np.shares_memory(
            Q.data, expr._matmulparts[0][0].data
        )
        assert terms(product._ndle.item()) == (0.0, [(1.0, v) for v in y._vararr])
    assert (MLinExpr.zeros(3) @ y)._quadparts == []


def test_a_vector_by_an_expression(m):
    x, y = m.addMVar(3), m.addMVar(3)
    left, right = 2 * x + 1, 3 * y + 2
    product = left @ right
    ((u, Q, w),) = product._quadparts
    assert u is left._matmulparts[0][1] and w is right._matmulparts[0][1]
    assert (Q.toarray() == 6 * np.eye(3)).all()
    sums = [A.toarray().ravel().tolist() for A, _ in product._ndle._matmulparts]
    assert product._ndle._const == 6 and sums == [[3.0] * 3, [4.0] * 3]
    assert left._is_compact and right._is_compact


def test_larger_products_of_expressions_make_both_full(m):
    left, right = expression(m, (3, 1)), expression(m, (1, 2))
    assert (left @ right).shape == (3, 2)
    assert not left._is_compact and not right._is_compact
    column, y = expression(m, (3, 1)), m.addMVar((1, 2))
    assert isinstance(column @ y, MQuadExpr) and column._is_compact
