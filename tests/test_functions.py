"""The nonlinear functions of the package over numbers, arrays and expressions."""

import numpy as np
import pytest
import scipy.sparse as sp
from trees import form, value_of, values_of

import taviropy as tv

NAMES = ["exp", "log", "sqrt", "sin", "cos", "tan", "abs"]


@pytest.fixture
def x():
    return tv.Model().addMVar((2, 2), name="x")


@pytest.mark.parametrize("name", NAMES)
def test_expressions_become_trees_with_a_node_of_that_name(x, name):
    function, numpy_function = getattr(tv, name), getattr(np, name)
    xv = np.array([[0.5, 1.0], [1.5, 2.0]])
    at = dict(zip(x._vararr.flat, xv.flat, strict=True))
    v = x[0, 0].item()
    for argument, value in [
        (v, 0.5),
        (2 * v + 1, 2.0),
        (v * v + 1, 1.25),
        (tv.NLExpr._from_var(v) + 3, 3.5),
    ]:
        result = function(argument)
        assert type(result) is tv.NLExpr and result._root.op == name
        assert value_of(result._root, at) == pytest.approx(numpy_function(value))
    for argument, value in [
        (x, xv),
        (x[0] + 1, xv[0] + 1),
        (x * x, xv * xv),
        (x[0] @ x[1], xv[0] @ xv[1]),
        (x**3, xv**3),
        (x[:0], xv[:0]),
        (x[1, 1], xv[1, 1]),
    ]:
        result = function(argument)
        assert type(result) is tv.MNLExpr and result.shape == np.shape(value)
        assert all(element._root.op == name for element in result._nlearr.flat)
        np.testing.assert_allclose(values_of(result, at), numpy_function(value))


def test_trees_are_shared_and_arguments_stay(x):
    nl = x.nl
    before = [element._root for element in nl._nlearr.flat]
    result = tv.exp(nl)
    for element, root, old in zip(result._nlearr.flat, nl._nlearr.flat, before, strict=True):
        assert element._root.children == (old,) and element._root.children[0] is old
        assert root._root is old
    scalar = nl._nlearr[0, 0]
    assert tv.log(scalar)._root.children[0] is scalar._root
    a = x[0, 0].item()
    assert form((tv.exp(x) / (1 + x))._nlearr[0, 0]._root) == (
        "divide",
        ("exp", a),
        ("plus", a, 1.0),
    )


@pytest.mark.parametrize("name", NAMES)
def test_numbers_and_arrays_are_numpys(name):
    function, numpy_function = getattr(tv, name), getattr(np, name)
    for argument in [
        2,
        0.25,
        np.float32(0.5),
        np.int64(3),
        np.array(0.5),
        np.arange(1, 5).reshape(2, 2),
    ]:
        result, wanted = function(argument), numpy_function(argument)
        assert type(result) is type(wanted)
        np.testing.assert_array_equal(result, wanted, strict=True)
    with pytest.warns(RuntimeWarning):
        assert np.isnan(tv.log(-1.0))


@pytest.mark.parametrize("argument", ["spam", None, [1.0, 2.0], sp.eye(2), {}])
def test_anything_else_is_refused_with_what_is_accepted(argument):
    with pytest.raises(
        TypeError, match=rf"^taviropy\.exp does not take a {type(argument).__name__}; .*MNLExpr"
    ):
        tv.exp(argument)


def test_an_array_of_variables_is_numpys_as_well(x):
    result = tv.sqrt(x._vararr)
    assert type(result) is np.ndarray and result.shape == (2, 2)
    assert [form(e._root) for e in result.flat] == [("sqrt", v) for v in x._vararr.flat]
