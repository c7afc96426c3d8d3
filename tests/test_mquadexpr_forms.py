"""MQuadExpr: the two forms, what they hold, and the builders that choose between them."""

import copy
import pickle

import numpy as np
import pytest
import scipy.sparse as sp
from quadratics import terms, value_of
from trees import point

import taviropy as tv

MQuadExpr, MLinExpr = tv.MQuadExpr, tv.MLinExpr


@pytest.fixture
def y(m):
    return m.addMVar(2, name="y")


Q = sp.csr_matrix(np.array([[1.0, 0.0], [2.0, 3.0], [0.0, 4.0]]))


# ---- The two forms --------------------------------------------------------------------------


def test_a_product_of_vectors_makes_no_scalar_expressions(x, y):
    q = x @ Q @ y
    assert q._is_compact
    assert q._qearr is None
    assert q.shape == ()
    ((left, matrix, right),) = q._quadparts
    assert isinstance(matrix, sp.coo_matrix)
    at, xs, ys = point(x, y)
    assert value_of(q, at) == pytest.approx(xs @ Q @ ys)


def test_the_scalar_terms_are_the_stored_entries_in_their_order(x, y):
    # A duplicate, a stored zero, rows out of order: all of it is legal, and kept.
    matrix = sp.coo_matrix(([5.0, 0.0, 7.0, 1.0], ([2, 0, 2, 1], [1, 1, 1, 0])), shape=(3, 2))
    q = MQuadExpr._from_quadfun(x, matrix, y)
    xs, ys = x.tolist(), y.tolist()
    wanted = [(5.0, 2, 1), (0.0, 0, 1), (7.0, 2, 1), (1.0, 1, 0)]
    assert terms(q._extract_quadexpr()) == [(c, xs[i], ys[j]) for c, i, j in wanted]
    assert q._is_compact


def test_parts_are_merged_block_by_block(x, y):
    q = MQuadExpr._from_quadfun(x, Q, y)
    q += MQuadExpr._from_quadfun(y[:1], np.array([[3.0]]), x[:1])
    assert len(q._quadparts) == 2
    at, xs, ys = point(x, y)
    q._concat_quadparts()
    ((left, matrix, right),) = q._quadparts
    assert (left.shape, matrix.shape, right.shape) == ((4,), (4, 3), (3,))
    assert value_of(q, at) == pytest.approx(xs @ Q @ ys + 3 * ys[0] * xs[0])


def test_a_full_twin_leaves_the_form_alone_and_conversion_does_not(x, y):
    q = x @ Q @ y + y.sum() + 2.0
    at, *_ = point(x, y)
    value, linear = value_of(q, at), q._ndle
    twin = q._to_full()
    assert q._is_compact
    assert not twin._is_compact
    assert value_of(twin, at) == value
    q._convert_to_full()
    assert q._quadparts is None
    assert q._ndle is not linear
    assert value_of(q, at) == value
    array = q._qearr
    q._convert_to_full()
    assert q._qearr is array


def test_item_joins_the_linear_part_in_a_copy(x, y):
    q = x @ Q @ y + x.sum() + 2.0
    at, *_ = point(x, y)
    value = value_of(q, at)
    qe = q.item()
    assert isinstance(qe, tv.QuadExpr)
    assert len(qe.coeffs) == 4
    assert len(qe.linear.coeffs) == 3
    assert qe.linear.constant == 2.0
    qe.clear()
    assert value_of(q, at) == value
    with pytest.raises(ValueError, match="size 1"):
        (x * x).item()


def test_the_constructor_refuses_what_breaks_the_forms(x, y):
    zero, coo = MLinExpr.zeros(()), sp.coo_matrix(Q)
    MQuadExpr(quadparts=[(x, coo, y)], ndle=zero)
    broken = [
        {},
        {"ndle": zero},
        {"quadparts": [], "ndle": MLinExpr.zeros(2)},
        {"quadparts": [(x, coo, y)], "ndle": MLinExpr.zeros(0)},
        {"quadparts": [(y, coo, x)], "ndle": zero},
        {"quadparts": [(x, Q, y)], "ndle": zero},
        {"quadparts": [(x, coo.astype(np.float32), y)], "ndle": zero},
        {"quadparts": [(x._vararr, coo, y)], "ndle": zero},
        {"qearr": np.empty(2, dtype=object), "ndle": zero},
        {"qearr": np.empty((), dtype=object), "quadparts": [], "ndle": zero},
    ]
    for arguments in broken:
        with pytest.raises(AssertionError):
            MQuadExpr(**arguments)
    with pytest.raises(ValueError, match="3"):
        MQuadExpr(quadparts=[(x, coo)], ndle=zero)


def test_copies_of_the_standard_library_work(x, y):
    for q in (x @ Q @ y + 1.0, x * x):
        twin = copy.copy(q)
        assert twin._ndle is q._ndle
        assert twin.shape == q.shape
    bare = object.__new__(MQuadExpr)
    assert pickle.loads(pickle.dumps(bare)).__dict__ == {}


# ---- Builders -------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("left", "right"), [(3, 3), ((3, 1), (1, 2)), ((), 3), ((2, 3), 3), ((1, 1), ()), (1, (2, 1))]
)
def test_element_wise_products_broadcast(m, left, right, form):
    x, y = m.addMVar(left), m.addMVar(right)
    q = MQuadExpr._from_mvar_times_mvar(x, y)
    at, xs, ys = point(x, y)
    np.testing.assert_allclose(value_of(q, at), xs * ys)
    assert q.shape == (xs * ys).shape
    assert q._is_compact == (form == 1 and q.size == 1)
    full = MQuadExpr._from_mvar_times_mvar(x, y, force_full=True)
    assert {len(qe.coeffs) for qe in full._qearr.flat} == {1}
    assert len({id(qe) for qe in full._qearr.flat}) == full.size


def test_an_empty_product_has_no_part(m):
    q = m.addMVar(0) * m.addMVar(1)
    assert (q.shape, q._quadparts) == ((0,), [])


def test_a_scalar_expression_is_split_and_left_as_it_was(m):
    u, v = m.addVar(), m.addVar()
    qe = 2 * u * v + 3 * u + 4
    q = MQuadExpr._from_quad_expr(qe)
    assert (q.shape, q._is_compact) == ((), False)
    (element,) = q._qearr.flat
    assert terms(element) == [(2.0, u, v)]
    assert (element.linear.coeffs, element.linear.constant) == ([], 0.0)
    assert (qe.linear.coeffs, qe.linear.constant) == ([3.0], 4.0)
    assert q._ndle.getConstant() == 4.0


@pytest.mark.parametrize("dense", [False, True])
@pytest.mark.parametrize("kind", [(3, 2), ((1, 3), (2, 1)), ((2, 3), (2, 4)), ((1, 3), 2)])
def test_quadratic_functions(m, kind, dense, form):
    x, y = m.addMVar(kind[0]), m.addMVar(kind[1])
    matrix, c, d = Q.toarray() if dense else Q, np.arange(3.0), np.array([[1.0]])
    z = m.addMVar(3)
    at, xs, ys, zs = point(x, y, z)
    q = MQuadExpr._from_quadfun(x, matrix, y, c=c, z=z, d=d)
    np.testing.assert_allclose(value_of(q, at), xs @ Q @ ys + c @ zs + d)
    assert q._is_compact == (form == 1 and q.size == 1)


def test_a_quadratic_function_owns_its_matrix(x, y):
    at, xs, ys = point(x, y)
    matrix = sp.coo_matrix(Q)
    q = MQuadExpr._from_quadfun(x, matrix, y)
    before = value_of(q, at)
    matrix.data *= 100.0
    assert value_of(q, at) == before


def test_a_broadcast_quadratic_function_has_an_object_an_element(x, y):
    q = MQuadExpr._from_quadfun(x, Q, y, d=np.arange(3.0))
    assert q.shape == (3,)
    assert len({id(qe) for qe in q._qearr}) == 3
    at, xs, ys = point(x, y)
    np.testing.assert_allclose(value_of(q, at), xs @ Q @ ys + np.arange(3.0))


def test_quadratic_functions_refuse_what_does_not_chain(x, y):
    for bad in [(y, Q, y), (x, Q, x)]:
        with pytest.raises(ValueError, match="2"):
            MQuadExpr._from_quadfun(*bad)
    with pytest.raises(ValueError, match="matmul"):
        MQuadExpr._from_quadfun(x, Q, y, c=np.ones(2))  # no z


def test_linear_expressions_are_widened(x):
    at, xs = point(x)
    for linear, force_full in [(2 * x + 1, False), (x.sum(), False), (x.sum(), True)]:
        q = MQuadExpr._from_mlinexpr(linear, force_full=force_full)
        assert q._is_compact == (linear.size == 1 and not force_full)
        np.testing.assert_allclose(value_of(q, at), value_of(linear, at))
        q += 1.0
        assert not np.any(value_of(q, at) == value_of(linear, at))
