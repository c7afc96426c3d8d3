"""MNLExpr: the trees that operators build, what they share, and what in-place changes reach."""

import gc
import operator

import numpy as np
import pytest
import scipy.sparse as sp
from trees import form, forms, point, roots, values_of

import taviropy as tv
from taviropy._core import _ExprTree


@pytest.fixture
def y(m):
    return m.addMVar((2, 3), name="y")


# ---- Operators element by element -----------------------------------------------------------

OPERATORS = [operator.add, operator.sub, operator.mul, operator.truediv, operator.pow]


@pytest.mark.parametrize(
    "op, node",
    list(zip(OPERATORS, ["plus", "minus", "multiply", "divide", "pow"], strict=True)),
)
def test_one_node_on_top_of_shared_ones(x, op, node):
    nl, other = x.nl, (2 * x).copy() ** 3
    before = roots(nl)
    for left, right in [(nl, other), (other, nl)]:
        result = op(left, right)
        for element, a, b in zip(roots(result), roots(left), roots(right), strict=True):
            assert element.op == node and element.children[0] is a and element.children[1] is b
    for result, at in [(op(nl, 3), 1), (op(3, nl), 0)]:
        assert [form(t.children[at]) for t in roots(result)] == [3.0] * 3
        assert len({id(t.children[at]) for t in roots(result)}) == 1  # one node for the number
    assert all(a is b for a, b in zip(roots(nl), before, strict=True))
    assert [form(t) for t in roots(-nl)] == [("uminus", v) for v in x.tolist()]


IN_PLACE = [operator.iadd, operator.isub, operator.imul, operator.itruediv, operator.ipow]


@pytest.mark.parametrize("op, plain", list(zip(IN_PLACE, OPERATORS, strict=True)))
def test_in_place_operators_change_the_elements_alone(x, y, op, plain):
    at, xv, yv = point(x, y)
    for operand, number in [(3, 3), (2, 2), (x, xv), (y.nl, yv), (np.ones(3), 1)]:
        nl = y.nl
        array, elements = nl._nlearr, list(nl._nlearr.flat)
        assert op(nl, operand) is nl and nl._nlearr is array
        assert all(a is b for a, b in zip(array.flat, elements, strict=True))
        np.testing.assert_allclose(values_of(nl, at), plain(yv, number))
    nl = x.nl
    op(nl, nl)
    np.testing.assert_allclose(values_of(nl, at), plain(xv, xv))


def test_squares(x):
    a = x[0].item()
    nl = x[:1].nl
    square, power = ("square", a), ("pow", a, 2.0)
    for exponent in [2, 2.0, np.float64(2), np.array(2.0), np.array([2]), np.array([[2.0]])]:
        result = nl**exponent
        assert forms(result) == [square]
        assert result.shape == np.broadcast_shapes((1,), np.shape(exponent))
    assert forms(nl ** np.array([2.0, 2.0])) == [power, power]
    assert forms(nl ** np.array([3.0])) == [("pow", a, 3.0)]
    nl **= 2
    assert forms(nl) == [square]
    nl = x[:1].nl
    nl **= np.array([2.0])
    assert forms(nl) == [power]


def test_shapes_that_do_not_fit(x, y):
    nl = x.nl
    before = roots(nl)
    with pytest.raises(
        ValueError, match=r"could not be broadcast together with shapes \(3,\) \(2,\)"
    ):
        nl + np.ones(2)
    for operand in [np.ones((2, 3)), y, np.ones(2)]:
        with pytest.raises(ValueError):
            nl += operand
    with pytest.raises(ValueError):
        x[:1].nl.__imul__(np.ones(3))
    assert all(a is b for a, b in zip(roots(nl), before, strict=True))
    assert gc.isenabled()


def test_zero_sizes(m):
    empty = m.addMVar((0, 3)).nl
    results = [-empty, empty + 1, 2**empty, empty**2, empty * np.ones(3), np.ones((1, 3)) / empty]
    assert {result.shape for result in results} == {(0, 3)}
    for change, operand in [(empty.__iadd__, 1), (empty.__ipow__, 2), (empty.__imul__, np.ones(3))]:
        with pytest.raises(ValueError, match="zero-sized"):
            change(operand)
    with pytest.raises(ValueError, match="zero-sized"):
        empty[...] = 1


@pytest.mark.parametrize("operand", ["spam", None, [1, 2, 3], sp.eye(3, format="csr"), object()])
def test_foreign_operands_are_declined(x, operand):
    nl = x.nl
    names = [
        "add",
        "radd",
        "iadd",
        "sub",
        "isub",
        "mul",
        "rmul",
        "truediv",
        "itruediv",
        "pow",
        "ipow",
    ]
    assert all(getattr(nl, f"__{name}__")(operand) is NotImplemented for name in names)
    with pytest.raises(TypeError):
        nl + operand


def test_comparisons_give_constraints(m, x):
    """MNLExpr has none of its own: those of variables and scalar expressions are asked, on
    whichever side they stand."""
    nl, v = x**3, m.addVar(name="v")
    for e in (x, v, 2 * v + 1, v * v, tv.NLExpr._from_var(v)):
        for made, sense in [
            (e == nl, tv.TVO.EQUAL),
            (nl == e, tv.TVO.EQUAL),
            (e <= nl, tv.TVO.LESS_EQUAL),
            (nl >= e, tv.TVO.LESS_EQUAL),
            (e >= nl, tv.TVO.GREATER_EQUAL),
            (nl <= e, tv.TVO.GREATER_EQUAL),
        ]:
            assert type(made) is tv.TempConstr
            assert made.lhs is e and made.sense == sense and made.rhs is nl
        for unequal in (lambda e=e: e != nl, lambda e=e: nl != e):
            with pytest.raises(tv.TaviroError, match="Inequality constraints not supported"):
                unequal()
        for strict in (lambda e=e: e < nl, lambda e=e: nl < e):
            with pytest.raises(TypeError, match="not supported between"):
                strict()
    assert m.addConstr(v <= nl).shape == nl.shape
    assert type(m.addConstr(nl == x)) is tv.MGenConstr
    with pytest.raises(TypeError):
        nl <= 1  # noqa: B015


def test_a_variable_equals_a_nonlinear_matrix_expression(m):
    """The norm of a block, and a whole block set to one variable, on the engine that takes it."""
    pytest.importorskip("pyscipopt")
    x, y, z = m.addMVar(2, lb=[3, 4], ub=[3, 4]), m.addVar(), m.addMVar(2)
    norm = m.addConstr(y == tv.sqrt(x @ x))
    block = m.addConstr(tv.exp(z) == y)
    assert type(norm) is type(block) is tv.MGenConstr and norm.shape == () and block.shape == (2,)
    m.optimize()
    np.testing.assert_allclose(y.X, 5)
    np.testing.assert_allclose(z.X, np.log([5, 5]), atol=1e-5)


def test_failures_in_the_middle_leave_the_done_elements_and_the_collector(x):
    nl = x.nl
    calls = []

    def twice(node):
        calls.append(node)
        if len(calls) == 2:
            raise RuntimeError("no more")
        return _ExprTree._from_square(node)

    with pytest.raises(RuntimeError, match="no more"):
        nl._idispatch_unary_op(twice)
    a, b, c = x.tolist()
    assert forms(nl) == [("square", a), b, c]
    assert gc.isenabled()


# ---- Memory layouts and subclasses of ndarray -----------------------------------------------


def test_layouts_follow_numpy(x, y):
    at, xv, yv = point(x, y)
    nl = y.T.nl
    assert nl._nlearr.flags.f_contiguous
    assert (nl + 1)._nlearr.flags.f_contiguous
    strided = tv.MNLExpr(y.nl._nlearr[::-1, ::2])
    for result, wanted in [
        (nl * np.asfortranarray(yv.T), yv.T * yv.T),
        (nl - y.nl._nlearr.T.copy(order="C").size, yv.T - 6),
        (strided / x[::2], yv[::-1, ::2] / xv[::2]),
        (x[:, None].nl + y[0], xv[:, None] + yv[0]),
    ]:
        np.testing.assert_allclose(values_of(result, at), wanted)
    strided += 1
    np.testing.assert_allclose(values_of(strided, at), yv[::-1, ::2] + 1)


@pytest.mark.filterwarnings("ignore:the matrix subclass:PendingDeprecationWarning")
def test_subclasses_of_ndarray_stay(x):
    at, xv = point(x)
    row = x.reshape(1, 3).nl
    result = row + np.matrix([[1.0, 2.0, 3.0]])
    assert type(result._nlearr) is np.matrix
    np.testing.assert_allclose(values_of(result, at), [xv + [1, 2, 3]])
    masked = np.ma.array([1.0, 2.0, 3.0], mask=[0, 1, 0])
    assert (x.nl * masked)._nlearr.mask.tolist() == [False, True, False]


# ---- Products and sums ----------------------------------------------------------------------


def test_matrix_products_have_the_values_of_numpy(x, y):
    at, xv, yv = point(x, y)
    A = np.array([[1.0, 0, 2], [0, 3, 1]])
    nx, ny = x.nl, y.nl**2
    cases = [
        (A @ nx, A @ xv),
        (nx @ A.T, xv @ A.T),
        (nx @ np.arange(3), xv @ np.arange(3)),
        (ny @ x, yv**2 @ xv),
        (ny @ y.T, yv**2 @ yv.T),
        (ny @ (x + 1), yv**2 @ (xv + 1)),
        (nx @ nx, xv @ xv),
        (x @ y.T.nl, xv @ yv.T),
        (sp.csr_matrix(A) @ nx, A @ xv),
        (sp.csc_array(A) @ y.T.nl, A @ yv.T),
        (ny @ sp.coo_matrix(A.T), yv**2 @ A.T),
        (nx @ sp.csr_array(A.T), xv @ A.T),
    ]
    for result, wanted in cases:
        assert type(result) is tv.MNLExpr
        assert result.shape == wanted.shape
        np.testing.assert_allclose(values_of(result, at), wanted)
    for bad in [np.ones((2, 2)), sp.eye(2), x[:2]]:
        with pytest.raises(ValueError):
            nx @ bad
    for bad in [2, "spam"]:
        with pytest.raises(TypeError):
            nx @ bad


def test_products_with_sparse_matrices_have_no_needless_nodes(x):
    nl = x.nl
    for result in [nl @ sp.eye(3), sp.eye(3) @ nl]:
        assert all(a is b for a, b in zip(roots(result), roots(nl), strict=True))
    a, b, c = x.tolist()
    assert forms(sp.csr_matrix([[0, 2.0, 1]]) @ nl) == [("plus", ("multiply", 2.0, b), c)]
    assert forms(nl @ sp.csr_matrix([[0], [2.0], [0]])) == [("multiply", b, 2.0)]
    assert form(tv.MNLExpr._sum_terms([])._root) == ("plus",)
    assert form(tv.MNLExpr._sum_terms((roots(nl)[0],))._root) == a


def test_sums(m, y):
    nl = y.nl
    assert forms(nl.sum(axis=0)) == [("plus", *column) for column in y._vararr.T]
    assert forms(nl.sum()) == [("plus", *y._vararr.flat)]
    assert nl.sum()._nlearr.item()._root.children[0] is roots(nl)[0]
    empty = m.addMVar((0, 2)).nl
    assert forms(empty.sum(axis=0)) == [("plus",), ("plus",)]
    assert empty.sum(axis=1).shape == (0,)
