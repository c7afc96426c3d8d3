"""MLinExpr: which sums stay compact, what in-place sums change, and what they share."""

import numpy as np
import pytest
import scipy.sparse as sp
from linear import content, elements, terms

import taviropy as tv

MLinExpr = tv.MLinExpr


def compact(x, b=0.0):
    return np.eye(x.size) @ x.reshape(-1) + b


def test_sums_that_stay_compact_and_those_that_cannot(m, x):
    column, row, one = 2 * m.addMVar((3, 1)), 2 * m.addMVar((1, 4)), 2 * m.addMVar(1)
    for total in (x + x, x + 1, x + np.ones(3), compact(x) + sp.csr_matrix([[1, 2, 3]]),
                  compact(x) + m.addVar(), compact(x) + (m.addVar() + 1), one + x):  # fmt: skip
        assert total._is_compact
    table = column + row
    assert table.shape == (3, 4) and not table._is_compact
    assert column._is_compact and row._is_compact
    full = (2 * x)._to_full()
    for total in (full + x, compact(x) + full, full + 1):
        assert not total._is_compact


def test_merged_parts_keep_terms_side_by_side(m, x):
    double = compact(x) + compact(x)
    assert len(double._matmulparts) == 1 and double._matmulparts[0][0].shape == (3, 6)
    v = x[0].item()
    assert terms(elements(double)[0]) == (0.0, [(1.0, v), (1.0, v)])
    wide = 2 * m.addMVar(1) + compact(x)
    (part,) = wide._matmulparts
    assert part[0].shape == (3, 4) and (part[0][:, 0].toarray() == 2).all()


def test_in_place_sums_append_parts_of_their_own(m, x):
    expr, y = compact(x), m.addMVar(3)
    A, other = expr._matmulparts[0][0], compact(y)
    expr += y
    expr += other
    assert [A is expr._matmulparts[0][0], len(expr._matmulparts)] == [True, 3]
    kept = expr._matmulparts[2]
    assert not np.shares_memory(kept[0].data, other._matmulparts[0][0].data)
    assert kept[1] is not other._matmulparts[0][1]
    assert (kept[1]._vararr == other._matmulparts[0][1]._vararr).all()


@pytest.mark.parametrize("parts", [1, 2])
def test_an_expression_added_to_itself_doubles(m, x, form, parts):
    expr = 2 * x + 1.5
    if parts == 2:
        expr += 3 * m.addMVar(3)
    before = content(expr)[1]
    expr += expr
    assert content(expr)[1] == [(2 * c, pairs + pairs) for c, pairs in before]
    expr -= expr
    assert all(constant == 0 for constant, _ in content(expr)[1])


def test_scalar_expressions_reach_every_element(m, x, form):
    v, le = m.addVar(), 2 * m.addVar() + 0 * m.addVar() + 3
    expr, before = 1 * x, terms(le)
    expr += v
    expr += le
    expr += tv.LinExpr(4.0)
    u, w = le.vars
    # A compact matrix has no place for the coefficient 0.0.
    zero = [(0.0, w)] if not form else []
    for element, own in zip(elements(expr), x._vararr, strict=True):
        assert terms(element) == (7.0, [(1.0, own), (1.0, v), (2.0, u), *zero])
    assert terms(le) == before
    assert expr._is_compact == bool(form)


def test_zero_is_added_to_constants_alone(x, form):
    expr = 2 * x
    copy = expr + 0
    assert copy is not expr and content(copy) == content(expr)
    same = expr
    same += 0
    assert same is expr and content(expr) == content(copy)


def test_refused_in_place_sums_change_nothing(m, x, form):
    expr = 2 * x + 1
    before = content(expr)
    uneven = 2 * m.addVar() + 3.0
    uneven.vars.append(m.addVar())
    for wrong in (np.full(3, 1j), np.array(["a"] * 3), np.array([None] * 3), 1j, uneven):
        with pytest.raises((ValueError, TypeError)):
            expr += wrong
        assert content(expr) == before


def test_an_operand_that_is_too_large_leaves_a_compact_expression_alone(m, x):
    expr, parts = compact(x), [(2, 3), (3, 1)]
    for shape in parts:
        with pytest.raises(ValueError):
            expr += 2 * m.addMVar(shape)
        assert expr._is_compact and len(expr._matmulparts) == 1


def test_a_full_operand_makes_the_expression_full_in_place(x):
    expr, full = compact(x), (2 * x)._to_full()
    kept, before = expr, content(full)
    expr += full
    assert kept is expr and not expr._is_compact
    assert expr._const is None and expr._matmulparts is None
    expr._learr[0].clear()
    assert content(full) == before


def test_the_switch_turns_operands_full(x, monkeypatch):
    expr = compact(x)
    monkeypatch.setattr(MLinExpr, "_keep_compact", 0)
    assert expr.__add__("a") is NotImplemented
    assert not expr._is_compact


def test_elements_that_are_no_linear_expressions(x):
    expr = (2 * x)._to_full()
    expr._learr[1] = 5.0
    for other in (1.0, np.ones(3), (2 * x)._to_full()):
        with pytest.raises(TypeError):
            expr += other
    expr._learr[1] = None
    with pytest.raises(AttributeError):
        expr += 1.0


def test_sizes_of_zero(m, form):
    empty = 2 * m.addMVar(0)
    for result in (empty + 1, empty + np.ones(1), empty + empty, empty - m.addMVar(0)):
        assert result.shape == (0,)
    empty += np.zeros(0)
    empty += 1


def test_a_part_needs_elements(m):
    with pytest.raises(AssertionError):
        _ = MLinExpr.zeros(0) + 2 * m.addMVar(1)
