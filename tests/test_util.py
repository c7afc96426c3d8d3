"""Shape rules against NumPy, the product kernels, and the native handle of a model."""

import fractions
import operator

import numpy as np
import pytest
import scipy.sparse as sp
from hypothesis import given
from hypothesis import strategies as st
from hypothesis.extra import numpy as hnp

import taviropy as tv
from taviropy._util import (
    __pyx_capi__,
    _all_refs_match,
    _axis_to_axeslist,
    _broadcast_shapes,
    _dense_matmul_kernel,
    _isscalar,
    _isstr,
    _matmul_shape,
    _sparse_left_matmul_kernel,
    _sparse_right_matmul_kernel,
)

SHAPES = st.lists(st.sampled_from([0, 1, 1, 2, 3]), max_size=4).map(tuple)


def test_single_values():
    numbers = [1, True, 1.5, 1j, fractions.Fraction(1, 2), np.float32(1), np.int8(1), np.True_]
    others = ["1", None, [1], (), np.array(1.0), np.ones(1), np.str_("1"), object(), float]
    assert all(map(_isscalar, numbers)) and not any(map(_isscalar, others))
    assert _isstr("a") and _isstr(np.str_("a")) and not _isstr(b"a") and not _isstr(1)


@given(st.lists(st.one_of(SHAPES, st.integers(0, 3)), max_size=4))
def test_broadcast_shapes(shapes):
    try:
        expected = np.broadcast_shapes(*shapes)
    except ValueError:
        with pytest.raises(ValueError, match="do not broadcast"):
            _broadcast_shapes(*shapes)
    else:
        assert _broadcast_shapes(*shapes) == expected


def test_shapes_refuse():
    with pytest.raises(ValueError, match=r"\(2, 3\) and \(4,\) do not broadcast"):
        _broadcast_shapes((2, 3), (4,))
    for bad in ("ab", 1.5, (1.0,), None, {1: 2}):
        with pytest.raises(TypeError):
            _broadcast_shapes(bad)
    with pytest.raises(ValueError, match="negative"):
        _broadcast_shapes((2, -1))


@given(SHAPES, SHAPES)
def test_matmul_shape(left, right):
    fits = {len(left), len(right)} <= {1, 2} and left[-1] == right[0]
    if fits:
        assert _matmul_shape(left, right) == np.matmul(np.ones(left), np.ones(right)).shape
    else:
        assert _matmul_shape(left, right, do_raise=False) is None
        with pytest.raises(ValueError) as refusal:
            _matmul_shape(left, right)
        assert str(left) in str(refusal.value) and str(right) in str(refusal.value)


@given(SHAPES.filter(len), st.data())  # NumPy has axes 0 and -1 where there is no dimension
def test_axis_to_axeslist(shape, data):
    ndim = len(shape)
    axis = data.draw(
        st.one_of(
            st.none(),
            st.integers(-ndim - 1, ndim),
            st.lists(st.integers(-ndim - 1, ndim)).map(tuple),
        )
    )
    try:
        expected = np.ones(shape).sum(axis=axis).shape
    except (ValueError, np.exceptions.AxisError):
        with pytest.raises(IndexError, match="axis"):
            _axis_to_axeslist(axis, ndim)
    else:
        axes = _axis_to_axeslist(axis, ndim)
        assert tuple(shape[k] for k in range(ndim) if axes[k] >= 0) == expected
        assert [place for place in axes if place >= 0] == list(range(len(expected)))


def test_axis_of_another_type():
    assert _axis_to_axeslist(None, 0) == []
    with pytest.raises(TypeError):
        _axis_to_axeslist("0", 2)
    with pytest.raises(TypeError):
        _axis_to_axeslist(1.0, 2)


def test_all_refs_match():
    a = np.array([[object(), object()], [object(), object()]])
    assert _all_refs_match(a, a.copy()) and _all_refs_match(a[:, ::-1].T, a[:, ::-1].T)
    assert not _all_refs_match(a, a.T) and not _all_refs_match(a, a.ravel())
    assert not _all_refs_match(None, a) and not _all_refs_match(a, None)
    assert not _all_refs_match(a[:0], a[:0])
    assert _all_refs_match(np.array(a[0, 0]), np.array(a[0, 0]))
    with pytest.raises(TypeError, match="dtype object"):
        _all_refs_match(a, np.ones((2, 2)))


# Kernels


PAIRS = st.sampled_from(
    [
        ((3,), (3,)),
        ((2, 3), (3,)),
        ((3,), (3, 2)),
        ((2, 3), (3, 4)),
        ((2, 0), (0, 3)),
        ((0, 2), (2, 3)),
    ]
)


def integers(shape):
    return hnp.arrays(np.int64, shape, elements=st.integers(-3, 3))


@given(PAIRS, st.data())
def test_kernels_multiply_as_numpy(pair, data):
    left, right = (data.draw(integers(shape)) for shape in pair)
    functions = {"f_multiply": operator.mul, "f_sum": sum}
    objects = left.astype(object), right.astype(object)
    expected = np.asarray(left @ right)
    products = [_dense_matmul_kernel(*objects, **functions)]
    for fmt in ("csr", "csc", "coo", "lil", "dia", "bsr", "dok"):
        if right.ndim == 2:
            products.append(
                _sparse_right_matmul_kernel(
                    objects[0], sp.coo_array(right).asformat(fmt), **functions
                )
            )
        if left.ndim == 2:
            products.append(
                _sparse_left_matmul_kernel(
                    sp.coo_matrix(left).asformat(fmt), objects[1], **functions
                )
            )
    for product in products:
        assert product.dtype == object and product.shape == expected.shape
        np.testing.assert_array_equal(product, expected)


def test_terms_of_the_kernels():
    """Which terms are made, in which order; stored zeros and duplicates stay."""
    functions = {"f_multiply": lambda a, b: (a, b), "f_sum": list}
    left = np.array([["a", "b", "c"]], dtype=object)
    dense = _dense_matmul_kernel(left, np.array(["x", "y", "z"], dtype=object), **functions)
    assert dense[0] == [("a", "x"), ("b", "y"), ("c", "z")]
    matrix = sp.csc_array(([5, 0, 7], [2, 0, 2], [0, 3, 3]), shape=(3, 2))
    (first, second), *_ = _sparse_right_matmul_kernel(left, matrix, **functions)
    assert first == [("a", 0.0), ("c", 5.0), ("c", 7.0)] and second == []
    assert all(type(value) is float for _, value in first)
    found = _sparse_left_matmul_kernel(matrix.T, left.T, **functions)
    assert found[0, 0] == [(0.0, "a"), (5.0, "c"), (7.0, "c")]
    assert matrix.indices.tolist() == [2, 0, 2]


def test_kernels_pass_errors_on():
    a, functions = np.array([1, 2], dtype=object), {"f_multiply": operator.mul, "f_sum": sum}
    with pytest.raises(ValueError, match=r"\(2,\) and \(3, 1\) do not fit"):
        _dense_matmul_kernel(a, np.ones((3, 1), dtype=object), **functions)
    with pytest.raises(ValueError, match="do not fit"):
        _sparse_right_matmul_kernel(a, sp.eye_array(3), **functions)
    with pytest.raises(ValueError, match="1 dimensions; reshape"):
        _sparse_right_matmul_kernel(a, sp.coo_array([1, 2]), **functions)
    for broken in ({"f_multiply": lambda a, b: 1 / 0}, {"f_sum": lambda terms: 1 / 0}):
        with pytest.raises(ZeroDivisionError):
            _dense_matmul_kernel(a, a, **(functions | broken))
    with pytest.raises(TypeError):
        _dense_matmul_kernel(a, a)


def test_a_shape_that_changes_while_it_is_read():
    class Shrinking(sp.csr_array):
        asked = 0

        @property
        def shape(self):
            Shrinking.asked += 1
            return (3, 3) if Shrinking.asked == 1 else (2, 3)

    matrix = Shrinking(sp.csr_array(np.ones((2, 3))))
    Shrinking.asked = 0
    with pytest.raises(ValueError, match=r"shape \(2, 3\) was another one"):
        _sparse_left_matmul_kernel(matrix, np.ones(3, dtype=object), operator.mul, sum)


# The native handle, through the counts that the constraint handles read


def test_handle_of_a_model():
    assert "void *(PyObject *)" in repr(__pyx_capi__["_ptr"])
    m = tv.Model()
    constrs = m.addConstr(m.addMVar(3) <= 1)
    assert constrs._numrows() == 0 and repr(constrs) == "<MConstr (3,) *awaiting model update*>"
    m.update()
    assert constrs._numrows() == 3 and repr(constrs) == "<MConstr (3,)>"
    m.remove(constrs[1])
    m.update()
    assert constrs._numrows() == 2 and repr(constrs) == "<MConstr (3,) (some removed)>"
    constrs._cmodel = 1
    with pytest.raises(TypeError, match="expected a Model or what belongs to one, not 'int'"):
        constrs._numrows()
