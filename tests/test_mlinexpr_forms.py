"""MLinExpr: the fields of its two forms, their invariants, and the way from compact to full."""

import copy

import numpy as np
import pytest
import scipy.sparse as sp
from linear import content, elements, own_lists, terms

import taviropy as tv

MLinExpr, MVar = tv.MLinExpr, tv.MVar


@pytest.fixture
def y(m):
    return m.addMVar(2, name="y")


def unsorted_matrix():
    """Row 0 unsorted and with a stored zero, row 1 empty, row 2 with an entry twice."""
    data, indices = np.array([5.0, 0.0, 1.0, 2.0]), np.array([2, 0, 1, 1])
    return sp.csr_matrix((data, indices, np.array([0, 2, 2, 4])), shape=(3, 3))


@pytest.mark.parametrize(
    ("shape", "linear", "quadratic"),
    [
        ((), True, True), (1, True, True), ((1, 1), True, True), ((0,), True, True),
        ((0, 1), True, True), ((0, 0), True, True), ((5,), True, False), ((5, 1), True, False),
        ((1, 5), True, False), ((0, 7), True, False), ((7, 0), True, False), ([3, 1], True, False),
        ((2, 2), False, False), ((1, 1, 1), False, False), ((0, 3, 4), False, False),
        ((np.int64(2), np.int32(2)), False, False),
    ],
)  # fmt: skip
def test_zeros_and_which_shapes_are_compact(shape, linear, quadratic, monkeypatch):
    assert shape == 1 or MLinExpr._allows_compact(shape) is linear
    for cls, compact in ((MLinExpr, linear), (tv.MQuadExpr, quadratic)):
        shapes, zero = np.zeros(shape), cls.zeros(shape)
        assert (zero._is_compact, zero.shape) == (compact, shapes.shape)
        assert (zero.ndim, zero.size) == (shapes.ndim, shapes.size)
        monkeypatch.setattr(cls, "_keep_compact", 0)
        full = cls.zeros(shape)
        assert not full._is_compact and full.shape == zero.shape
        if cls is MLinExpr:
            assert all(terms(le) == (0.0, []) for le in elements(zero))
            assert own_lists(full) and content(full) == content(zero)


def test_constructor_keeps_what_it_wraps(x):
    A, b = sp.csr_matrix(np.eye(3)), np.ones(3)
    parts = [(A, x)]
    compact = MLinExpr(matmulparts=parts, b=b)
    assert compact._is_compact and compact._learr is None
    assert compact._matmulparts is parts and compact._const is b
    array = np.array([tv.LinExpr(), tv.LinExpr()])
    full = MLinExpr(array)
    assert not full._is_compact and full._learr is array
    assert full._matmulparts is None and full._const is None


@pytest.mark.parametrize(
    "arguments",
    [
        lambda x: {},
        lambda x: {"matmulparts": []},
        lambda x: {"b": np.zeros(3)},
        lambda x: {"matmulparts": [], "b": [1.0]},
        lambda x: {"wraponly": [tv.LinExpr()]},
        lambda x: {"wraponly": np.array([tv.LinExpr()]), "b": np.zeros(1)},
        lambda x: {"matmulparts": [(sp.csr_matrix((0, 3)), x)], "b": np.zeros(0)},
        lambda x: {"matmulparts": [(sp.csc_matrix(np.eye(3)), x)], "b": np.zeros(3)},
        lambda x: {"matmulparts": [(sp.csr_array(np.eye(3)), x)], "b": np.zeros(3)},
        lambda x: {"matmulparts": [(sp.csr_matrix(np.eye(3, dtype=int)), x)], "b": np.zeros(3)},
        lambda x: {"matmulparts": [(sp.csr_matrix(np.eye(3)), x[:2])], "b": np.zeros(3)},
        lambda x: {"matmulparts": [(sp.csr_matrix(np.eye(3)), x.reshape(3, 1))], "b": np.zeros(3)},
        lambda x: {"matmulparts": [(sp.csr_matrix(np.eye(3)), x._vararr)], "b": np.zeros(3)},
    ],
)
def test_constructor_asserts_the_invariants(x, arguments):
    with pytest.raises(AssertionError):
        MLinExpr(**arguments(x))


def test_form_is_checked_when_it_is_asked_for(x):
    broken = 2 * x
    broken._learr = np.empty(3, dtype=object)
    with pytest.raises(AssertionError):
        _ = broken._is_compact
    broken._matmulparts = None
    with pytest.raises(AssertionError):
        _ = broken.shape


@pytest.mark.parametrize("shape", [(), (1,), (4,), (4, 1), (1, 4), (0,), (0, 3)])
def test_shape_in_both_forms(m, shape):
    x = m.addMVar(shape)
    compact, full = MLinExpr._from_mvar(x), MLinExpr._from_mvar(x, force_full=True)
    assert compact._is_compact and not full._is_compact
    for expr in (compact, full):
        assert (expr.shape, expr.ndim, expr.size) == (x.shape, x.ndim, x.size)
    assert compact._leading_adim == x.size


def test_full_form_keeps_every_stored_entry_in_order(x, y):
    v, w = x.tolist(), y.tolist()
    expr = MLinExpr._from_compact_affine_expr(A=unsorted_matrix(), x_right=x, b=np.arange(3.0))
    expr._add_matmul_part(np.array([[0.0, 1.0], [4.0, 0.0], [0.0, 0.0]]), y)
    full = expr._to_full()
    assert [terms(le) for le in full._learr.flat] == [
        (0.0, [(5.0, v[2]), (0.0, v[0]), (1.0, w[1])]),
        (1.0, [(4.0, w[0])]),
        (2.0, [(1.0, v[1]), (2.0, v[1])]),
    ]
    assert all(type(c) is float for le in full._learr.flat for c in le.coeffs)
    assert own_lists(full)
    assert expr._is_compact and len(expr._matmulparts) == 1
    assert content(expr) == content(full)


def test_parts_pile_up_until_they_are_merged(x, y):
    expr = MLinExpr._from_mvar(x)
    parts = expr._matmulparts
    expr._concat_matmulparts()
    assert expr._matmulparts is parts
    expr._add_matmul_part(sp.coo_array(np.ones((3, 2))), y)
    assert expr._matmulparts is parts and parts[1][1] is y
    assert type(parts[1][0]) is sp.csr_matrix and parts[1][0].dtype == np.float64
    before = content(expr)
    A, both, b = expr._extract_Axb()
    assert (A.shape, b is expr._const) == ((3, 5), True)
    assert [(A, both)] == [tuple(part) for part in expr._matmulparts]
    assert both.tolist() == x.tolist() + y.tolist()
    assert content(expr) == before and len(parts) == 2
    constant = MLinExpr.zeros(3)
    assert constant._extract_Axb() == (None, None, constant._const)


@pytest.mark.parametrize("A", [np.ones((2, 3)), np.ones((3, 2)), np.ones(3)])
def test_a_part_that_does_not_fit(x, A):
    expr = MLinExpr._from_mvar(x)
    with pytest.raises(AssertionError):
        expr._add_matmul_part(A, x)
    with pytest.raises(AssertionError):
        MLinExpr.zeros(0)._add_matmul_part(np.ones((0, 3)), x)
    assert len(expr._matmulparts) == 1


def test_conversion_in_place(x):
    expr = 2 * x + 1
    before = content(expr)
    expr._convert_to_full()
    assert not expr._is_compact and content(expr) == before
    array = expr._learr
    expr._convert_to_full()
    assert expr._learr is array
    with pytest.raises(AssertionError):
        expr._extract_Axb()


@pytest.mark.parametrize(
    ("b", "wanted"),
    [(np.array([1, -2]), [1.0, -2.0]), (np.array([[2.5, 1.0], [-0.0, 1.0]])[:, 0], [2.5, 0.0])],
)
def test_constants_become_floats(b, wanted):
    found = [le.constant for le in elements(MLinExpr(matmulparts=[], b=b))]
    assert found == wanted and [str(c) for c in found] == [str(c) for c in wanted]


def test_full_form_of_a_complex_constant_is_refused():
    with pytest.raises(TypeError):
        MLinExpr(matmulparts=[], b=np.array([1j]))._to_full()


@pytest.mark.parametrize(
    ("field", "array"),
    [("indptr", [0, 9, 9, 9]), ("indptr", [0, 2, 1, 3]), ("indptr", [-1, 1, 2, 3]),
     ("indices", [0, 1, 7]), ("indices", [0, -1, 2]), ("indptr", [0, 1])],
)  # fmt: skip
def test_a_matrix_spoilt_later_is_an_error(x, field, array):
    expr = MLinExpr._from_mvar(x)
    setattr(expr._matmulparts[0][0], field, np.array(array, dtype=np.int32))
    with pytest.raises((ValueError, IndexError)):
        expr._to_full()


def test_shallow_copies_and_unmade_objects(x):
    for expr in (2 * x + 1, MLinExpr._from_mvar(x, force_full=True)):
        twin = copy.copy(expr)
        assert twin is not expr
        assert all(twin.__dict__[name] is field for name, field in vars(expr).items())
    unmade = MLinExpr.__new__(MLinExpr)
    with pytest.raises(AttributeError):
        repr(unmade)


def test_subclass_results_are_plain(x):
    class Tagged(MLinExpr):
        pass

    assert type(Tagged.zeros(3)) is Tagged and type(Tagged.zeros((2, 2))) is Tagged
    assert type(Tagged.zeros(3).copy()) is MLinExpr
    assert type(Tagged.zeros(3)[0]) is MLinExpr
