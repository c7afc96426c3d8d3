"""Every operand on the left of a variable array reaches the right reflected method."""

import operator

import numpy as np
import pytest
import scipy.sparse as sp

import taviropy as tv

REFLECTED = {
    operator.add: "__radd__", operator.sub: "__rsub__", operator.mul: "__rmul__",
    operator.matmul: "__rmatmul__", operator.truediv: "__rtruediv__",
    operator.le: "__ge__", operator.ge: "__le__", operator.eq: "__eq__", operator.ne: "__ne__",
}  # fmt: skip
COMPARISONS = [operator.le, operator.ge, operator.eq, operator.ne]
FORMATS = ["bsr", "coo", "csc", "csr", "dia", "dok", "lil"]
DTYPES = ["?", "i1", "u2", "i4", "i8", "f4", "f8", "g", "c16", "O"]


def spying(name):
    return lambda self, other: (name, other)


class Spy(tv.MVar):
    """Tells which of its methods was called, and with what."""


for _name in {*REFLECTED.values(), "__rpow__"}:
    setattr(Spy, _name, spying(_name))


@pytest.fixture
def x():
    return tv.Model().addMVar(3)


def check(left, spy, operators=REFLECTED):
    for op in operators:
        name, other = op(left, spy)
        assert name == REFLECTED[op], (op, type(left))
        if isinstance(left, np.generic) and op in COMPARISONS:
            assert other == left and other.dtype == left.dtype  # comes as an array without an axis
            continue
        # Some sparse formats hand over a copy of themselves in another one.
        assert other is left or (sp.issparse(left) and (other != left).nnz == 0), (op, type(left))


def sparse_matrices():
    dense = np.array([[1.0, 0.0, 2.0], [0.0, 3.0, 0.0], [4.0, 5.0, 0.0]])
    for fmt in FORMATS:
        for kind in ("matrix", "array"):
            yield getattr(sp, f"{fmt}_{kind}")(dense)
            yield getattr(sp, f"{fmt}_{kind}")(dense.astype(np.int64))
    yield sp.coo_array(dense[0])
    yield sp.csr_array(dense[0])
    yield sp.csr_matrix((3, 3))
    yield sp.eye(3)


def arrays():
    for dtype in DTYPES:
        square = np.arange(9).reshape(3, 3).astype(dtype)
        yield from (square, np.asfortranarray(square), square[::-1, ::2], square[0], square[:0])
        yield from (np.array(2).astype(dtype), square.view(np.matrix))
    yield np.array(["a", "b", "c"])


def test_arrays_give_way_to_every_reflected_method(x):
    for shape in ((3,), (3, 1), (1, 3), ()):
        spy = Spy(x._vararr if shape == (3,) else np.resize(x._vararr, shape))
        for left in arrays():
            check(left, spy)
            if not isinstance(left, np.matrix):  # whose powers are repeated products
                assert (left**spy)[0] == "__rpow__"


def test_masked_arrays_give_way_in_arithmetic(x):
    # Their comparisons never ask the other operand.
    check(np.ma.array([1.0, 2.0, 3.0]), Spy(x._vararr), list(REFLECTED)[:5])


def test_numpy_scalars_give_way_to_every_reflected_method(x):
    for dtype in DTYPES[:-1]:
        left = np.ones((), dtype)[()]
        check(left, Spy(x._vararr))
        assert (left ** Spy(x._vararr))[0] == "__rpow__"
    for left in (2, 2.0, True, 2j):
        check(left, Spy(x._vararr))


def test_sparse_matrices_give_way_to_every_reflected_method(x):
    for left in sparse_matrices():
        for spy in (
            Spy(x._vararr),
            Spy(x._vararr.reshape(3, 1)),
            Spy(x._vararr[0]),
            Spy(np.tile(x._vararr, (3, 1))),
        ):
            check(left, spy)


def test_an_empty_variable_array_on_the_right_of_arrays():
    empty = tv.MVar(np.empty(0, dtype=object))
    for result in (np.ones(0) + empty, np.ones((2, 0)) @ empty, 2.0 * empty):
        assert isinstance(result, tv.MLinExpr)
    assert isinstance(np.ones(0) <= empty, tv.TempConstr)
