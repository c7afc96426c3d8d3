"""Sparse operands: malformed ones are refused, all others give what SciPy's own calls give."""

import operator

import numpy as np
import pytest
import scipy.sparse as sp
from hypothesis import given, settings
from hypothesis import strategies as st
from linear import content

import taviropy as tv
from taviropy._util import _sparse_left_matmul_kernel, _sparse_right_matmul_kernel

M = tv.Model()
VARIABLES = M.addMVar(12)

# ---- Malformed matrices ---------------------------------------------------------------------


def broken(matrix, **fields):
    """The matrix with some of its arrays replaced, behind the back of SciPy's checks."""
    for name, value in fields.items():
        setattr(matrix, name, value)
    return matrix


def ints(*values, dtype=np.int32):
    return np.array(values, dtype=dtype)


def breakages(family):
    """Malformed 3 by 3 matrices, each with what the message must tell."""
    make = {
        f: getattr(sp, f"{f}_{family}") for f in ["csr", "csc", "coo", "bsr", "dia", "lil", "dok"]
    }
    eye, row, col = np.eye(3), ints(0, 1, 2), ints(0, 1, 2)
    for f in ("csr", "csc"):
        for fields, message in [
            ({"indptr": ints(1, 1, 2, 3)}, r"indptr\[0\] = 1"),
            ({"indptr": ints(0, 2, 1, 3)}, r"indptr\[2\] = 1 is less than indptr\[1\] = 2"),
            ({"indptr": ints(0, 1, 2, 9)}, r"indptr\[3\] = 9, but indices has 3"),
            ({"indptr": ints(0, 1)}, "indptr has 2 entries instead of 4"),
            ({"indptr": np.array([0, 1, 2, 9])}, r"indptr\[3\] = 9"),
            ({"indptr": np.array([0.0, 1.0, 2.0, 3.0])}, "indptr is no array of integers.*float64"),
            ({"indices": ints(0, 1, 3)}, r"indices\[2\] = 3, but .* from 0 to 2"),
            ({"indices": ints(0, -1, 2)}, r"indices\[1\] = -1"),
            ({"indices": np.array([0, 2**40, 2])}, r"indices\[1\] = 1099511627776"),
            ({"indices": ints(0, 1)}, "indices has 2 entries, but data has 3"),
            ({"indices": ints(0, 1, 2).reshape(3, 1)}, "indices has 2 axes"),
            ({"indices": [0, 1, 2]}, "indices is no array of integers but list"),
            ({"data": np.ones(2)}, "data has 2 entries"),
            ({"data": np.ones((3, 1))}, "data has 2 axes"),
            ({"data": [1.0, 1.0, 1.0]}, "data is no array but list"),
        ]:
            yield broken(make[f](eye), **fields), message
    wide = make["csr"]((2, 10))
    yield broken(wide, indptr=ints(0, 1, 1), indices=ints(11), data=np.ones(1)), r"from 0 to 9"
    for coords, message in [
        ((row, ints(0, 1, 3)), r"coords\[1\]\[2\] = 3"),
        ((ints(-1, 1, 2), col), r"coords\[0\]\[0\] = -1"),
        ((row, ints(0, 1)), r"coords\[1\] has 2 entries, but data has 3"),
        ((row, np.array([0.0, 1.0, 2.0])), r"coords\[1\] is no array of integers"),
        ((row,), "coords has 1 arrays instead of 2"),
    ]:
        yield broken(make["coo"](eye), coords=coords), message
    for fields, message in [
        ({"indices": ints(7)}, r"indices\[0\] = 7"),
        ({"indptr": ints(0, 5)}, r"indptr\[1\] = 5"),
        ({"data": np.ones((1, 2, 2))}, "blocks"),
        ({"data": np.ones(9)}, "data has 1 axes instead of 3"),
    ]:
        yield broken(make["bsr"](sp.csr_array(eye), blocksize=(3, 3)), **fields), message
    for fields, message in [
        ({"offsets": ints(0, 1)}, "1 diagonals, but offsets has 2 entries"),
        ({"offsets": np.array([0.0])}, "offsets is no array of integers"),
        ({"data": np.ones(3)}, "data has 1 axes instead of 2"),
        ({"data": np.ones((2, 3)), "offsets": ints(1, 1)}, "offset 1 is given twice"),
        ({"offsets": ints(2**31 - 1)}, "offset 2147483647 lies outside"),
    ]:
        yield broken(make["dia"](eye), **fields), message
    lil = make["lil"](eye)
    lil.rows[1] = [-1]
    yield lil, r"rows\[1\]\[0\] = -1"
    lil = make["lil"](eye)
    lil.rows[1] = [0, 1]
    yield lil, r"rows\[1\] and data\[1\] have different lengths, 2 and 1"
    yield broken(make["lil"](eye), rows=np.array([[0], [1]], dtype=object)), "rows has"
    dok = make["dok"](eye)
    dok._dict[(5, 0)] = 1.0
    yield dok, r"\(5, 0\)"


MALFORMED = [pytest.param(A, text, id=f"{type(A).__name__}-{text}")
             for family in ("matrix", "array") for A, text in breakages(family)
             if A.shape == (3, 3)]  # fmt: skip
OPERATIONS = [operator.add, operator.sub, operator.mul, operator.matmul, operator.truediv]


@pytest.mark.parametrize(("A", "message"), MALFORMED)
def test_malformed_operands_are_refused_and_change_nothing(A, message, form):
    x, X = VARIABLES[:3], VARIABLES[:9].reshape(3, 3)
    for expr in (x, X, 2 * x + 1, 2 * X + 1):
        before = None if isinstance(expr, tv.MVar) else content(expr)
        for operation in OPERATIONS:
            for left, right in ((expr, A), (A, expr)):
                if operation is operator.sub and right is A:
                    continue  # a sparse matrix isn't subtracted
                # SciPy converts these, or multiplies, before it hands over.
                early = A.format in ("lil", "dok") or operation is operator.mul
                if left is A and early:
                    continue
                with pytest.raises(ValueError, match=f"malformed.*{message}.*rebuild"):
                    operation(left, right)
        if before:
            for operation in (operator.iadd, operator.imul, operator.itruediv):
                with pytest.raises(ValueError, match=message):
                    operation(expr, A)
            assert content(expr) == before


@pytest.mark.parametrize(("A", "message"), MALFORMED)
def test_malformed_matrices_are_refused_where_they_are_only_data(A, message):
    X = VARIABLES[:9].reshape(3, 3)
    with pytest.raises(ValueError):
        M.addConstr(X <= A)
    # No operand of a nonlinear expression, but SciPy's own operator would come next.
    with pytest.raises(ValueError, match=f"malformed.*{message}"):
        X.nl * A
    q, objects = X[0] * X[0], np.array([1, 2, 3], dtype=object)
    for product in (
        lambda: q * A, lambda: q @ A, lambda: tv.MQuadExpr._from_quadfun(X[0], A, X[1]),
        lambda: _sparse_right_matmul_kernel(objects, A, operator.mul, sum),
        lambda: _sparse_left_matmul_kernel(A, objects, operator.mul, sum),
    ):  # fmt: skip
        with pytest.raises(ValueError, match="malformed|exceeds matrix"):  # SciPy's own for dok
            product()
    # Lists of values: an iteration over A would be SciPy's.
    with pytest.raises(ValueError, match=message):
        X[0].UB = A
    with pytest.raises(TypeError, match=r"no list of values; its toarray\(\) is one"):
        tv.LinExpr(A, X[0].tolist())


def test_negative_extents_are_refused():
    for make in (sp.csr_matrix, sp.csc_array, sp.coo_array, sp.bsr_array, sp.dia_array):
        A = broken(make(np.eye(3)), _shape=(-1, 3))
        for operation in (operator.add, operator.matmul, operator.mul):
            with pytest.raises(ValueError, match="negative"):
                operation(VARIABLES[:3], A)


def test_indices_are_checked_against_an_axis_of_length_zero():
    A = broken(sp.csr_matrix((2, 0)), indptr=ints(0, 1, 1), indices=ints(0), data=np.ones(1))
    with pytest.raises(ValueError, match="no valid index"):
        tv.MLinExpr._from_compact_affine_expr(A=A, x_right=VARIABLES[:0])


def test_room_behind_the_last_entry_is_legal():
    x, roomy = VARIABLES[:3], sp.csr_matrix(np.eye(3))
    for name in ("data", "indices"):
        array = getattr(roomy, name)
        setattr(roomy, name, np.concatenate([array, np.full(2, 77, array.dtype)]))
    assert content(roomy @ x) == content(sp.csr_matrix(np.eye(3)) @ x)
    assert content(x @ roomy) == content(x @ sp.csr_matrix(np.eye(3)))
    quadratic = (x @ roomy @ x)._quadparts[0][1]
    assert quadratic.nnz == 3 and (quadratic.toarray() == np.eye(3)).all()


# ---- The same matrices as SciPy's -----------------------------------------------------------

VALUES = st.sampled_from([0.0, -0.0, 1.0, -1.0, 0.1, 0.7, -2.5, 1e16, np.nan, np.inf])
DTYPES = st.sampled_from(["f8", "f8", "f8", "i8", "f4", "?", "i1", "u8"])


@st.composite
def matrices(draw, rows=None, cols=None, long=False):
    """Any format, dtype and order of entries; duplicates and stored zeros included."""
    m = draw(st.integers(0, 5)) if rows is None else rows
    n = draw(st.integers(0, 30 if long else 5)) if cols is None else cols
    size = draw(st.integers(0, 3 * n)) if m * n else 0
    places = st.tuples(st.integers(0, max(m - 1, 0)), st.integers(0, max(n - 1, 0)))
    entries = draw(st.lists(places, min_size=size, max_size=size))
    row, col = np.array(entries, dtype=int).reshape(-1, 2).T
    data = np.array(draw(st.lists(VALUES, min_size=size, max_size=size)), dtype=float)
    dtype = draw(DTYPES)
    if dtype != "f8":
        data = np.clip(np.nan_to_num(data), 0, 100).astype(dtype)
    family = draw(st.sampled_from(["matrix", "array"]))
    kind = draw(st.sampled_from(["raw", "coo", "csr", "csc", "bsr", "dia", "lil", "dok", "dense"]))
    if kind == "raw":  # csr as it comes: unsorted, with duplicates, perhaps of wide indices
        order = np.argsort(row, kind="stable")
        indptr = np.concatenate([[0], np.cumsum(np.bincount(row, minlength=m))]).astype(int)
        A = getattr(sp, f"csr_{family}")((data[order], col[order], indptr), shape=(m, n))
        if draw(st.booleans()):
            A.indices, A.indptr = A.indices.astype(np.int64), A.indptr.astype(np.int64)
        return A
    A = getattr(sp, f"coo_{family}")((data, (row, col)), shape=(m, n))
    return A.toarray() if kind == "dense" else A.asformat(kind)


def assert_same(A, B):
    """Type, shape, dtypes and entries, in their order and to the last bit."""
    assert type(A) is type(B) and A.shape == B.shape
    for name in {"csr": ("data", "indices", "indptr"), "coo": ("data", "row", "col")}[A.format]:
        a, b = getattr(A, name), getattr(B, name)
        assert a.dtype == b.dtype and a.tobytes() == b.tobytes(), (name, a, b)
        assert a.flags.writeable
    assert A.has_canonical_format == B.has_canonical_format


def csr(A, **options):
    return sp.csr_matrix(A, dtype=np.float64, **options)


def part(expr):
    ((A, _),) = expr._matmulparts
    return A


def expression(A):
    """A compact expression on this csr matrix."""
    x = VARIABLES[np.arange(A.shape[1]) % 12]
    return tv.MLinExpr(matmulparts=[(A, x)], b=np.zeros(A.shape[0]))


@settings(max_examples=300, deadline=None)
@given(matrices())
def test_conversions_are_scipys(A):
    m, n = A.shape
    if m > 0 and n > 0:
        assert_same(part(A @ VARIABLES[:n]), csr(A, copy=True))
        transposed = csr(A.T, copy=True)
        transposed.sort_indices()
        assert_same(part(VARIABLES[:m] @ A), transposed)
        quadratic = (VARIABLES[:m] @ A @ VARIABLES[:n])._quadparts
        assert quadratic[0][1].dtype == np.float64
        made = tv.MQuadExpr._from_quadfun(VARIABLES[:m], A, VARIABLES[:n])._quadparts
        assert_same(made[0][1], sp.coo_matrix(A, copy=True, dtype="float"))


@settings(max_examples=300, deadline=None)
@given(st.data())
def test_stacked_and_repeated_rows_are_scipys(data):
    m = data.draw(st.integers(2, 4))
    heights = data.draw(st.lists(st.sampled_from([1, m]), min_size=2, max_size=2))
    first, second = [csr(data.draw(matrices(rows=k, long=True))) for k in heights]
    tall = [A if A.shape[0] == m else sp.kron(np.ones((m, 1)), A) for A in (first, second)]
    if m in heights:
        total = expression(first) + expression(second)
        assert_same(part(total), sp.hstack(tall, format="csr"))
    if heights[0] == m:
        expr = expression(first)
        expr += expression(second)
        added = expr._matmulparts[1][0]
        assert_same(added, second.copy() if heights[1] == m else csr(tall[1], copy=False))
    factors = np.arange(1.0, m + 1)
    scaled = csr(tall[0], copy=True)
    scaled.data *= np.repeat(factors, np.diff(scaled.indptr))
    assert_same(part(expression(first) * factors), scaled)


@settings(max_examples=300, deadline=None)
@given(st.data())
def test_products_are_scipys(data):
    A = csr(data.draw(matrices(rows=data.draw(st.integers(1, 4)))))
    A.indices, A.indptr = A.indices.astype(np.int32), A.indptr.astype(np.int32)
    m, expr = A.shape[0], expression(A)
    left = data.draw(matrices(rows=data.draw(st.integers(1, 4)), cols=m))
    right = data.draw(matrices(rows=m, cols=data.draw(st.integers(1, 4))))
    with np.errstate(all="ignore"):
        if getattr(getattr(left, "indices", None), "dtype", None) != np.int64:
            assert_same(part(left @ expr), csr(left @ A))
        if getattr(getattr(right, "indices", None), "dtype", None) != np.int64:
            assert_same(part(expr @ right), csr(right.T @ A))
        column = tv.MLinExpr(matmulparts=expr._matmulparts, b=np.zeros((m, 1)))
        if m > 1:
            one = data.draw(matrices(rows=1, cols=1))
            assert_same(part(column @ one), csr(sp.kron(one.T, A, format="csr")))


def test_copies_own_their_memory():
    A = sp.csr_matrix(np.eye(3))
    x, stored = VARIABLES[:3], part(A @ VARIABLES[:3])
    for other in (part(2 * (A @ x)), part((A @ x).copy()), part(A @ x + x)):
        for matrix in (A, stored):
            assert not np.shares_memory(other.data, matrix.data)
            assert not np.shares_memory(other.indices, matrix.indices)
    part(A @ x).data[:] = 5.0
    assert (A.data == 1.0).all()
