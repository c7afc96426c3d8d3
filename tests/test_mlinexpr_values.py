"""MLinExpr: printing, resetting, copying, sums, values, and comparisons."""

import numpy as np
import pytest
import scipy.sparse as sp
from linear import block, content, own_lists, terms, values

import taviropy as tv

MLinExpr = tv.MLinExpr


def test_repr_tells_form_and_parts(m):
    x = m.addMVar(2, name="x")
    m.update()
    expr = MLinExpr.zeros(2)
    assert repr(expr) == "<MLinExpr (2,) >\narray([ 0.0,  0.0])"
    expr += x
    assert repr(expr).startswith("<MLinExpr (2,)  >\n")
    expr += x
    assert repr(expr).startswith("<MLinExpr (2,)   >\n") and expr._is_compact
    assert repr(expr).startswith("<MLinExpr (2,)  >\n")  # printing has merged the parts
    texts = [str(le) for le in expr[:]._learr]
    assert repr(expr) == f"<MLinExpr (2,)>\narray([ {texts[0]},  {texts[1]}])"
    assert repr(expr[0]) == f"<MLinExpr ()>\narray( {texts[0]})"
    assert np.get_printoptions()["formatter"] is None


def test_clear_keeps_objects_and_form(m, form):
    x = m.addMVar(3)
    expr = 2 * x + 1
    was_compact, const, array = expr._is_compact, expr._const, expr._learr
    objects = None if array is None else list(array)
    expr.clear()
    assert expr._is_compact is was_compact and expr._const is const and expr._learr is array
    assert content(expr) == ((3,), [(0.0, [])] * 3)
    assert expr._matmulparts == [] if was_compact else list(array) == objects
    view = expr[1:]
    expr[:] = 4.0
    expr.clear()
    assert content(view) == ((2,), [(0.0, [])] * 2)


def test_copies_share_nothing(m, form):
    x = m.addMVar(3)
    expr = 2 * x
    expr += x
    expr += 1.0
    before = content(expr)
    twin = expr.copy()
    assert twin._is_compact is expr._is_compact is bool(form)
    assert content(twin) == content(+expr) == before
    if form:
        assert len(expr._matmulparts) == len(twin._matmulparts) == 1
        (A, u), (B, w) = expr._matmulparts[0], twin._matmulparts[0]
        assert u is not w and u._vararr is w._vararr
        assert not any(
            np.shares_memory(getattr(A, name), getattr(B, name))
            for name in ("data", "indices", "indptr")
        )
    twin *= 3.0
    twin[0] = 7.0
    assert content(expr) == before and own_lists(twin)
    array = expr.getConstant()
    array[:] = 9.0
    assert content(expr) == before


def test_sums_keep_terms_side_by_side(m):
    x = m.addMVar((2, 2))
    (a, b), (c, d) = x.tolist()
    expr = 1.0 * x
    assert terms(expr.sum().item())[1] == [(1.0, a), (1.0, b), (1.0, c), (1.0, d)]
    assert [terms(le)[1] for le in expr.sum(axis=0)._learr] == [
        [(1.0, a), (1.0, c)], [(1.0, b), (1.0, d)],
    ]  # fmt: skip
    both = expr[0].sum() + expr[0].sum()
    assert len(both.item().coeffs) == 4
    both._normalize()
    assert terms(both.item())[1] == [(2.0, a), (2.0, b)]


@pytest.mark.parametrize("shape", [(), (3,), (1, 3), (2, 3)])
def test_values_at_a_solution(m, form, shape):
    at = np.random.default_rng(3).uniform(-2.0, 2.0, shape)
    x = m.addMVar(shape, lb=at, ub=at)
    y = m.addMVar(shape, lb=2 * at, ub=2 * at)
    expr = 2 * x + 1
    expr += y
    constant = MLinExpr.zeros(shape) + 4.0
    assert np.array_equal(constant.getValue(), np.full(shape, 4.0))
    with pytest.raises(tv.TaviroError):
        expr.getValue()
    m.optimize()
    for value, wanted in [(expr.getValue(), 4 * at + 1), (expr.getConstant(), np.ones(shape))]:
        assert type(value) is np.ndarray and value.dtype == np.float64
        assert value.shape == shape
        np.testing.assert_allclose(value, wanted)
    np.testing.assert_allclose(expr[...].getValue(), 4 * at + 1)


def test_values_over_two_models():
    total = 0.0
    for number in (1.0, 5.0):
        m = tv.Model()
        m.setOption("log", False)
        x = m.addMVar(2, lb=number, ub=number)
        m.optimize()
        total = x.sum() + total
    assert total.getValue() == 12.0


def test_expressions_without_elements(m):
    empty = MLinExpr.zeros((0, 2, 2))
    assert empty.getValue().shape == (0, 2, 2) and empty.copy().shape == (0, 2, 2)
    assert empty.sum(axis=0).shape == (2, 2)
    for method in (empty.getConstant, empty.clear, empty._normalize):
        with pytest.raises(ValueError):
            method()
    empty._flatten()
    compact = MLinExpr.zeros(0)
    assert compact.getConstant().shape == compact.getValue().shape == (0,)
    compact.clear()


def test_negation_is_scaling(m, form):
    x, at, X = block(m, 3)
    expr = sp.eye(3, format="csr") @ x + 1
    np.testing.assert_allclose(values(-expr, at), -X - 1)
    np.testing.assert_allclose(values(+expr, at), X + 1)
    assert (-expr)._is_compact is expr._is_compact is bool(form)
