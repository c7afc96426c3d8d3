"""MLinExpr: zeros, affine expressions, products of matrices and variables, scalar expressions."""

import numpy as np
import pytest
import scipy.sparse as sp
from hypothesis import assume, given, settings
from hypothesis import strategies as st
from linear import block, content, elements, keeping_compact, own_lists, terms, values

import taviropy as tv

MLinExpr = tv.MLinExpr


# ---- Affine expressions ---------------------------------------------------------------------


def test_affine_expression_owns_what_it_holds(m):
    x = m.addMVar(3)
    A, b = sp.csr_matrix(np.eye(3)), np.ones(3)
    expr = MLinExpr._from_compact_affine_expr(A=A, x_right=x, b=b)
    before = content(expr)
    A.data[:] = b[:] = 9.0
    assert content(expr) == before
    stored, variables = expr._matmulparts[0]
    assert type(stored) is sp.csr_matrix and stored.dtype == np.float64
    assert variables is not x and variables._vararr.base is x._vararr


@pytest.mark.parametrize(
    ("arguments", "text"),
    [
        (lambda x: {"A": np.eye(3)}, "Matmul expression has no variables"),
        (lambda x: {"A": np.eye(3), "x_left": x, "x_right": x},
         "Matmul expression has too many variables"),
        (lambda x: {"A": np.ones((1, 3)), "x_right": x, "b": np.ones((2, 2))},
         "Compact state cannot have shape (2, 2)"),
        (lambda x: {"A": np.ones((1, 2)), "x_right": tv.vstack((x[:2], x[:2]))},
         "Right variable's shape (2, 2) is not compact"),
        (lambda x: {"A": np.ones((2, 1)), "x_left": tv.vstack((x[:2], x[:2]))},
         "Left variable's shape (2, 2) is not compact"),
    ],
)  # fmt: skip
def test_affine_expressions_that_cannot_be(m, arguments, text):
    with pytest.raises(ValueError) as error:
        MLinExpr._from_compact_affine_expr(**arguments(m.addMVar(3)))
    assert str(error.value) == text


def test_constants_of_any_shape(m):
    b = np.arange(8).reshape(2, 2, 2)
    expr = MLinExpr._from_compact_affine_expr(b=b)
    assert expr._is_compact and expr._const.dtype == np.float64 and expr.shape == (2, 2, 2)
    assert MLinExpr._from_compact_affine_expr().shape == ()
    row = MLinExpr._from_compact_affine_expr(A=np.ones((2, 3)), x_right=m.addMVar(3), b=5)
    assert row._const.tolist() == [5.0, 5.0]


@pytest.mark.parametrize("side", ["left", "right"])
def test_one_by_one_matrix_scales_a_block_of_variables(m, side):
    x, at, X = block(m, (4, 1) if side == "left" else (1, 4))
    for A in (np.array([[2.5]]), sp.coo_matrix([[2.5]])):
        expr = x @ A if side == "left" else A @ x
        assert expr._is_compact
        np.testing.assert_allclose(values(expr, at), 2.5 * X)


# ---- Products -------------------------------------------------------------------------------

FORMATS = [
    np.array, np.asfortranarray, lambda A: np.repeat(A, 2, axis=-1)[..., ::2], lambda A: A.astype("f4"),
    lambda A: A.astype(int), lambda A: A > 1, lambda A: A.astype(object), lambda A: A.astype(">f8"),
]  # fmt: skip
SPARSE = [sp.csr_matrix, sp.csc_matrix, sp.coo_matrix, sp.csr_array, sp.lil_matrix, sp.dia_matrix]


def unsorted(A):
    """The same matrix with the entries of each row in falling order, and a stored zero in front."""
    rows = [[(0, 0.0)] + [(j, a) for j, a in enumerate(row) if a][::-1] for row in A]
    flat = [entry for row in rows for entry in row]
    indptr = np.cumsum([0] + [len(row) for row in rows])
    data, indices = [a for _, a in flat], [j for j, _ in flat]
    return sp.csr_matrix((data, indices, indptr), shape=A.shape)


@settings(max_examples=150, deadline=None)
@given(st.data())
def test_products_have_numpys_values(data):
    k = data.draw(st.integers(0, 4))
    extent = st.integers(0, 3)
    left = data.draw(st.sampled_from([(k,), (data.draw(extent), k)]))
    right = data.draw(st.sampled_from([(k,), (k, data.draw(extent))]))
    on_left = data.draw(st.booleans())
    # No row of no variables: such a block can only be scaled.
    one_row = len(left) == 1 or left[0] == 1
    assume(on_left or not (k == 0 and one_row and len(right) == 2 and right[1] > 1))
    x, at, X = block(tv.Model(), left if on_left else right)
    dense = np.random.default_rng(1).integers(-3, 4, right if on_left else left) / 2
    formats = FORMATS + (SPARSE + [unsorted] if dense.ndim == 2 and dense.size else [])
    A = data.draw(st.sampled_from(formats))(dense)
    wanted = A.toarray() if sp.issparse(A) else np.asarray(A, dtype=float)
    kept = wanted.copy()
    with keeping_compact(data.draw(st.integers(0, 1))):
        expr = MLinExpr._from_matmul_left(x, A) if on_left else MLinExpr._from_matmul_right(A, x)
    np.testing.assert_allclose(values(expr, at), X @ wanted if on_left else wanted @ X)
    assert expr.shape == (X @ wanted if on_left else wanted @ X).shape
    np.testing.assert_array_equal(A.toarray() if sp.issparse(A) else A, kept)
    if not expr._is_compact:
        assert own_lists(expr)


def test_form_of_a_product(m):
    x, X = m.addMVar(3), m.addMVar((3, 2))
    A = np.ones((2, 3))
    assert (A @ x)._is_compact and not (A @ X)._is_compact and not (np.ones(3) @ X)._is_compact
    assert (np.ones(3) @ x).shape == () and (np.ones(3) @ x)._is_compact
    assert not (X[:, :1] @ np.ones((1, 2)))._is_compact


def test_terms_of_dense_and_sparse_products(m, form):
    X = m.addMVar((3, 2))
    v = X.tolist()
    A = np.array([[0.0, 2.0, 0.0], [1.0, 0.0, 3.0]])
    dense, sparse = elements(A @ X), elements(sp.csr_matrix(A) @ X)
    assert terms(dense[1]) == (0.0, [(0.0, v[0][1]), (2.0, v[1][1]), (0.0, v[2][1])])
    assert terms(sparse[2]) == (0.0, [(1.0, v[0][0]), (3.0, v[2][0])])
    back = unsorted(A)
    assert terms(elements(back @ X)[3])[1] == [(0.0, v[0][1]), (3.0, v[2][1]), (1.0, v[0][1])]
    left = elements(X.T @ back.T)[3]  # columns of the transpose go by rising row
    assert [u for _, u in terms(left)[1]] == [v[0][1], v[0][1], v[2][1]]


def test_zero_extents(m):
    x, empty = m.addMVar(3), m.addMVar(0)
    nothing = np.ones((2, 0)) @ empty
    assert nothing.shape == (2,) and len(nothing._matmulparts) == 1
    nothing = empty @ np.ones((0, 2))
    assert nothing.shape == (2,) and nothing._matmulparts == []
    assert (np.ones((0, 3)) @ x).shape == (0,)
    assert (np.ones((2, 0)) @ m.addMVar((0, 4))).shape == (2, 4)


@pytest.mark.parametrize("flag", [1, 0])
def test_operands_that_are_refused(m, flag):
    x, X = m.addMVar(2), m.addMVar((2, 2))
    with keeping_compact(flag):
        for call in (MLinExpr._from_matmul_right, lambda a, b: MLinExpr._from_matmul_left(b, a)):
            for operands, shown in [((np.eye(2), 5), "5"), (([1], x), "[1]"), ((None, x), "None")]:
                with pytest.raises(ValueError, match="^Cannot construct MLinExpr from ") as error:
                    call(*operands)
                assert str(error.value).endswith(shown)
        with pytest.raises(Exception, match=r"3"):
            _ = np.ones((2, 3)) @ x
        shaped = type("Shaped", (), {"shape": (2, 2), "__str__": lambda self: "shaped"})()
        with pytest.raises(ValueError, match="^Cannot construct MLinExpr from shaped$"):
            MLinExpr._from_matmul_right(shaped, X)
        for A in (np.eye(2).view(np.matrix), np.eye(2) * 1j, np.array([[None, 1]] * 2)):
            with pytest.raises(TypeError):
                _ = A @ X
        with pytest.raises(ValueError, match="string"):
            _ = np.array([["1", "a"]] * 2) @ X


def test_sparse_vectors_are_refused(m, form):
    x = m.addMVar((3, 2))
    for vector in (sp.coo_array([1.0, 0.0, 2.0]), sp.csr_array([1.0, 0.0, 2.0])):
        for variables in (x, x[:, 0], x[:, :1]):
            with pytest.raises(IndexError, match=r"shape \(3,\).*reshape"):
                _ = vector @ variables
        with pytest.raises((IndexError, ValueError)):
            _ = x.T @ vector


# ---- Variables and scalar expressions -------------------------------------------------------


@pytest.mark.parametrize("shape", [(), (1,), (3,), (3, 1), (1, 3), (1, 1), (0,), (0, 2)])
def test_variables_as_an_expression(m, shape):
    x = m.addMVar(shape)
    compact, full = MLinExpr._from_mvar(x), MLinExpr._from_mvar(x, force_full=True)
    assert compact._is_compact and not full._is_compact
    assert compact._matmulparts == [] if x.size == 0 else len(compact._matmulparts) == 1
    assert content(compact) == content(full)
    assert [terms(le) for le in full._learr.flat] == [(0.0, [(1.0, v)]) for v in x._vararr.flat]
    assert x.shape == np.empty(shape).shape
    with keeping_compact(0):
        assert not MLinExpr._from_mvar(x)._is_compact
    with pytest.raises(AssertionError):
        MLinExpr._from_mvar_compact(m.addMVar((2, 2)))


def test_scalar_objects(m):
    v, w = m.addVar(), m.addVar()
    le = 2 * v + 3
    assert terms(MLinExpr._from_var(v).item()) == (0.0, [(1.0, v)])
    wrapped = MLinExpr._from_linexpr(le)
    assert wrapped.shape == () and wrapped._learr[()] is not le
    assert terms(wrapped._learr[()]) == terms(le)
    for call, wrong in [(MLinExpr._from_var, le), (MLinExpr._from_linexpr, v)]:
        with pytest.raises(Exception, match="^Wrong type$"):
            call(wrong)
    several = MLinExpr._from_linexprs(o for o in [le, v, 1.5, MLinExpr._from_var(w)])
    assert [terms(e) for e in several._learr] == [
        (3.0, [(2.0, v)]), (0.0, [(1.0, v)]), (1.5, []), (0.0, [(1.0, w)]),
    ]  # fmt: skip
    assert several._learr[0] is not le
    with pytest.raises(ValueError, match="size 0"):
        MLinExpr._from_linexprs([])
