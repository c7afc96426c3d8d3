"""Numbers and arrays of unusual kinds beside matrix expressions: taken whole, or refused before anything changes."""

import operator

import numpy as np
import pytest
import scipy.sparse as sp
from linear import content

import taviropy as tv

IN_PLACE = [operator.iadd, operator.isub, operator.imul, operator.itruediv]


@pytest.fixture
def x(m):
    return m.addMVar((2, 2))


def expressions(x):
    row = x[0]
    return [2 * row + 1.0, (2 * x + 1.0), row * row + row + 1.0, row @ row + row.sum() + 1.0]


def picture(expr):
    """All that an operation could change, but for the form."""
    if isinstance(expr, tv.MLinExpr):
        return content(expr)
    full = expr._to_full() if expr._is_compact else expr
    terms = [(qe.coeffs, qe.vars1, qe.vars2) for qe in full._qearr.flat]
    return content(expr._ndle), repr(terms)


def arrays_of(expr):
    fields = [getattr(expr, name, None) for name in ("_learr", "_const", "_qearr")]
    found = [array for array in fields if array is not None]
    return found + (arrays_of(expr._ndle) if isinstance(expr, tv.MQuadExpr) else [])


@pytest.mark.parametrize("factor", [1j, np.complex128(2), np.complex64(1j)], ids=repr)
def test_complex_numbers_are_refused_before_anything_changes(x, form, factor):
    for expr in expressions(x):
        before = picture(expr)
        for op in (*IN_PLACE, operator.add, operator.sub, operator.mul, operator.truediv):
            with pytest.raises(TypeError):
                op(expr, factor)
            with pytest.raises(TypeError):
                op(expr, np.array(factor))
            assert picture(expr) == before


def test_complex_arrays_don_t_lose_their_imaginary_part(x, form):
    row, numbers = x[0], np.array([[1, 2j], [3, 4]])
    for use in (
        lambda: 2 * row + numbers[0], lambda: row @ numbers, lambda: numbers @ row,
        lambda: sp.csr_array(numbers) @ row, lambda: row * numbers[0],
        lambda: tv.MLinExpr._from_compact_affine_expr(b=numbers[0]),
    ):  # fmt: skip
        with pytest.raises(TypeError):
            use()


def test_what_is_masked_all_over_is_no_factor(x, form):
    for expr in expressions(x):
        before = picture(expr)
        for masked in (np.ma.masked, np.ma.array(np.ones(expr.shape), mask=True)):
            for op in (operator.mul, operator.imul):
                with pytest.raises(tv.TaviroError, match="Multiplier is infinite or NaN"):
                    op(expr, masked)
            with pytest.raises(tv.TaviroError, match="Multiplier is infinite or NaN"):
                masked * expr
        assert picture(expr) == before


def test_expressions_hold_plain_arrays(x, form):
    """A derived class of arrays has rules of its own: a matrix multiplies otherwise."""
    ones = np.ones((2, 2))
    for other in (ones.view(np.matrix), np.ma.array(ones, mask=np.eye(2)), ones.view(np.memmap)):
        for expr in (2 * x + 1.0, x * x, x[0] * x[0]):
            for op in (operator.add, operator.sub, operator.mul, operator.truediv):
                for pair in ((expr, other), (other, expr)):
                    if op is operator.truediv and pair[0] is other:
                        continue
                    if isinstance(expr, tv.MLinExpr) and expr._is_compact:
                        continue
                    result = op(*pair)
                    assert {type(array) for array in arrays_of(result)} == {np.ndarray}
                    assert picture(result) == picture(op(expr, ones)) or pair[0] is other
    for made in (tv.MLinExpr((2 * x)._learr.view(np.matrix)), (x * x) @ ones.view(np.matrix)):
        assert {type(array) for array in arrays_of(made)} == {np.ndarray}


def test_variables_in_a_masked_array_are_refused(x):
    for mask in (False, np.eye(2)):
        with pytest.raises(AttributeError, match="without a mask"):
            tv.MVar(np.ma.array(x._vararr, mask=mask))
