"""Every operator of MLinExpr, MQuadExpr and MNLExpr with every kind of operand, beside what NumPy
does with the values.

One table: expressions of each shape and form, operands of each kind and shape, all operators from
either side. The result must have NumPy's shape and values, or fail as NumPy does; operands keep
their values, and nothing of them is shared with the result.
"""

import operator
import warnings
from decimal import Decimal
from fractions import Fraction
from numbers import Number

import numpy as np
import pytest
import scipy.sparse as sp
from linear import block, keeping_compact
from quadratics import value_of
from trees import value_of as tree_value
from trees import values_of

import taviropy as tv

SHAPES = [(), (1,), (3,), (3, 1), (1, 3), (1, 1), (2, 3), (2, 1, 3)]
SOME_SHAPES = [(), (3,), (3, 1), (2, 3)]
BINARY = [operator.add, operator.sub, operator.mul, operator.truediv, operator.matmul]
IN_PLACE = {
    operator.iadd: operator.add, operator.isub: operator.sub, operator.imul: operator.mul,
    operator.itruediv: operator.truediv, operator.ipow: operator.pow,
}  # fmt: skip
EXPRESSIONS = (tv.MVar, tv.MLinExpr, tv.MQuadExpr, tv.MNLExpr)


class Operands:
    """Expressions and their operands, fresh ones at each request, and the point of all values."""

    def __init__(self):
        m, self.at, self.blocks = tv.Model(), {}, {}
        for k, shape in enumerate(SHAPES):
            self.blocks[shape], at, _ = block(m, shape, seed=k)
            self.at.update(at)
        self.var = self.blocks[3,][0].item()
        rng = np.random.default_rng(0)
        self.arrays = {shape: rng.integers(1, 9, shape) / 4.0 for shape in SHAPES}

    def expression(self, shape, form):
        """A linear expression of a shape and form, a nonlinear one, or a quadratic one by name."""
        if form == "quadratic":
            return self.quadratic(shape)
        if form == "nonlinear":
            return self.blocks[shape].nl * 1.5
        with keeping_compact(1):
            expr = 2 * self.blocks[shape] + self.arrays[shape]
            if form == "parts":
                expr += 0.5 * self.blocks[shape]
        return expr._to_full() if form == "full" and expr._is_compact else expr

    def quadratic(self, name):
        x, w, one = self.blocks[3,], self.blocks[3, 1], self.blocks[1,]
        Q = np.array([[1.0, 0.0, 2.0], [0.0, 3.0, 0.0], [4.0, 0.0, 0.0]])
        corner = one.reshape(1, 1)
        with keeping_compact(1):
            return {
                "0d": lambda: x @ Q @ x + x.sum() + 1.0,
                "0d two parts": lambda: x @ Q @ x + w.T[0] @ w.T[0] - 1.0,
                "0d no part": lambda: tv.MQuadExpr.zeros(()) + 5.0,
                "0d full": lambda: (x * x).sum() + x.sum(),
                "one": lambda: one * one + 2 * one,
                "one by one": lambda: corner @ np.ones((1, 1)) @ corner + 1.0,
                "vector": lambda: x * x + x + 1.0,
                "matrix": lambda: self.blocks[2, 3] * x - self.blocks[2, 3],
                "column": lambda: w * w,
            }[name]()

    def operand(self, kind, shape=None):
        """One operand. Kinds without a shape are scalars, or of one shape."""
        x = self.blocks[shape] if shape is not None else None
        array = self.arrays[shape] if shape is not None else None
        scalar_linear = 2 * self.var + 1.5
        return {
            "int": lambda: 3, "float": lambda: -0.5, "bool": lambda: True,
            "float64": lambda: np.float64(0.25), "int32": lambda: np.int32(-2),
            "Fraction": lambda: Fraction(3, 4), "Decimal": lambda: Decimal("-1.5"),
            "longdouble": lambda: np.longdouble(0.5), "bool_": lambda: np.True_,
            "Var": lambda: self.var, "LinExpr": lambda: scalar_linear,
            "QuadExpr": lambda: self.var * self.var + scalar_linear,
            "NLExpr": lambda: tv.NLExpr(tv.MVar.fromvar(self.var).nl.item()._root),
            "array": lambda: array, "ints": lambda: (4 * array).astype(int),
            "float32": lambda: array.astype("f4"),
            "fortran": lambda: np.asfortranarray(array), "bools": lambda: array > 0,
            "swapped": lambda: array.astype(">f8"),
            "strided": lambda: np.repeat(array, 2, axis=-1)[..., ::2] if shape else array,
            "csr": lambda: sp.csr_matrix(array), "coo": lambda: sp.coo_matrix(array),
            "csc_array": lambda: sp.csc_array(array), "lil": lambda: sp.lil_matrix(array),
            "MVar": lambda: x, "MLinExpr": lambda: self.expression(shape, "compact"),
            "MLinExpr full": lambda: self.expression(shape, "full"),
            "MQuadExpr": lambda: x * x + 1.0, "MNLExpr": lambda: x.nl,
            "quadratic": lambda: self.quadratic("0d two parts"),
            "wide": lambda: np.ones((3, 2)),
            "long array": lambda: np.arange(1, 4, dtype=np.longdouble),
            "numpy.matrix": lambda: np.array([[1.0], [2.0], [3.0]]).view(np.matrix),
            "numpy.matrix of one": lambda: np.array([[2.0]]).view(np.matrix),
        }[kind]()  # fmt: skip

    def value(self, operand):
        """What NumPy computes with."""
        if isinstance(operand, tv.Var):
            return np.array(self.at[operand])
        if isinstance(operand, tv.LinExpr):
            return value_of(tv.MLinExpr._from_linexpr(operand), self.at)
        if isinstance(operand, tv.QuadExpr):
            return value_of(tv.MQuadExpr._from_quad_expr(operand), self.at)
        if isinstance(operand, tv.NLExpr):
            return np.array(tree_value(operand._root, self.at))
        if isinstance(operand, tv.MVar):
            return value_of(tv.MLinExpr._from_mvar(operand), self.at)
        if isinstance(operand, tv.MNLExpr):
            return values_of(operand, self.at)
        if isinstance(operand, EXPRESSIONS):
            return value_of(operand, self.at)
        return operand.toarray() if sp.issparse(operand) else np.asarray(operand, dtype=float)


SCALARS = ["int", "float", "bool", "float64", "int32", "Fraction", "Decimal", "longdouble", "bool_",
           "Var", "LinExpr", "QuadExpr", "NLExpr"]  # fmt: skip
EVERYWHERE = ["array", "MVar", "MLinExpr", "MLinExpr full"]
SOMEWHERE = ["ints", "float32", "fortran", "swapped", "bools", "strided", "MQuadExpr", "MNLExpr"]
SPARSE = ["csr", "coo", "csc_array", "lil"]
TABLE = (
    [(kind, None) for kind in SCALARS]
    + [(kind, shape) for kind in EVERYWHERE for shape in SHAPES]
    + [(kind, shape) for kind in SOMEWHERE for shape in SOME_SHAPES]
    + [(kind, shape) for kind in SPARSE for shape in SHAPES if len(shape) == 2]
)
MATRICES = ["numpy.matrix", "numpy.matrix of one"]
MORE = [(kind, None) for kind in ("quadratic", "wide", "long array", *MATRICES)]
QUADRATIC = ["0d", "0d two parts", "0d no part", "0d full", "one", "one by one", "vector", "matrix",
             "column"]  # fmt: skip
NUMBERS = (int, float, np.generic, Number)
SCALAR_OBJECTS = (tv.Var, tv.LinExpr, tv.QuadExpr, tv.NLExpr)


def outcome(operation, left, right):
    with warnings.catch_warnings(), np.errstate(all="ignore"):
        warnings.filterwarnings("ignore", "Chained matrix", RuntimeWarning)
        try:
            return operation(left, right)
        except (ValueError, TypeError) as error:
            return type(error)


def wanted(operation, left, right, values):
    """NumPy's outcome, or that of the few places where expressions have rules of their own."""
    if operation is operator.matmul:
        if isinstance(left, (*NUMBERS, *SCALAR_OBJECTS)) or isinstance(right, NUMBERS):
            return TypeError
        if isinstance(right, SCALAR_OBJECTS):
            return TypeError
        if any(value.ndim not in (1, 2) for value in values):
            return (ValueError, TypeError)
    if operation is operator.sub and sp.issparse(right):
        return TypeError
    if operation is operator.truediv:
        of_linear = isinstance(left, tv.NLExpr) and isinstance(right, tv.MLinExpr)
        if of_linear or (
            isinstance(left, (tv.MVar, tv.MLinExpr)) and isinstance(right, tv.MQuadExpr)
        ):
            return TypeError
    return outcome(operation, *values)


def close(found, expected):
    return np.allclose(found, expected, rtol=1e-6, atol=1e-12, equal_nan=True)


def compare(world, operation, left, right):
    """The result beside NumPy's; gives the result and the values of the operands before."""
    values = [world.value(left), world.value(right)]
    expected = wanted(IN_PLACE.get(operation, operation), left, right, values)
    if operation is operator.isub and sp.issparse(right):
        expected = outcome(operator.sub, *values)
    result = outcome(operation, left, right)
    if operation in IN_PLACE and isinstance(expected, np.ndarray) and stays(operation, left, right):
        if expected.shape != values[0].shape:
            expected = ValueError  # in place, an expression cannot grow
        else:
            assert result is left
    if isinstance(expected, (type, tuple)):
        assert isinstance(result, type) and issubclass(result, expected), result
    else:
        assert isinstance(result, EXPRESSIONS), result
        with np.errstate(all="ignore"):
            assert result.shape == expected.shape and close(world.value(result), expected)
    return result, values


def stays(operation, left, right):
    """Whether an expression that is changed in place remains what it is."""
    if isinstance(right, (*NUMBERS, np.ndarray)) or sp.issparse(right):
        return True
    if isinstance(left, tv.MNLExpr):
        return True
    if operation not in (operator.iadd, operator.isub):
        return False
    if isinstance(left, tv.MQuadExpr):
        rebinds = operation is operator.iadd and isinstance(right, tv.MVar)
        return not rebinds and not isinstance(right, (tv.NLExpr, tv.MNLExpr))
    return isinstance(right, (tv.Var, tv.LinExpr, tv.MVar, tv.MLinExpr))


def disturb(result):
    """Changes all of a result that can be changed."""
    if isinstance(result, (tv.MLinExpr, tv.MQuadExpr)):
        result += 1.0
        result.clear()


@pytest.fixture(scope="module")
def world():
    return Operands()


@pytest.mark.parametrize(
    "shape_form",
    [(s, f) for s in SHAPES for f in ("compact", "parts", "full")]
    + [(name, "quadratic") for name in QUADRATIC]
    + [(s, "nonlinear") for s in SOME_SHAPES],
    ids=str,
)
def test_operators_with_every_operand(world, form, shape_form):
    is_nonlinear = shape_form[1] == "nonlinear"
    operators = BINARY + [operator.pow] * is_nonlinear
    in_place = [*IN_PLACE][: None if is_nonlinear else -1]
    for kind, shape in TABLE + MORE * (shape_form[1] == "quadratic"):
        if is_nonlinear and kind in SPARSE:
            operators, in_place = [operator.matmul], []  # no operands of its other operators
        operand = world.operand(kind, shape)
        before = world.value(operand)
        cases = [(op, reflected) for op in operators for reflected in (False, True)]
        for operation, reflected in cases + [(op, False) for op in in_place]:
            # A matrix would make the product one, and SciPy's kron takes no swapped bytes.
            if operation is operator.matmul and kind in ("swapped", *MATRICES):
                continue
            expr = world.expression(*shape_form)
            pair = (operand, expr) if reflected else (expr, operand)
            try:
                result, values = compare(world, operation, *pair)
                if operation not in IN_PLACE or result is not expr:
                    assert np.array_equal(world.value(expr), values[reflected])
                disturb(result)
                assert np.array_equal(world.value(operand), before)
            except AssertionError as error:
                error.add_note(f"{operation.__name__} {kind} {shape} reflected={reflected}")
                raise


@pytest.mark.parametrize("operand", ["a", [1.0], None, {}, object(), slice(3)], ids=repr)
def test_other_operands_are_type_errors(world, form, operand):
    for shape in ((), (3,), (2, 3)):
        expr = world.expression(shape, "compact")
        for operation in (*BINARY, *IN_PLACE, operator.pow):
            for pair in ((expr, operand), (operand, expr)):
                if operation in IN_PLACE and pair[0] is operand:
                    continue
                with pytest.raises(TypeError):
                    operation(*pair)


@pytest.mark.parametrize("shape", SHAPES, ids=str)
@pytest.mark.parametrize("form_of", ["compact", "full"])
def test_powers(world, form, shape, form_of):
    for kind, other in [("float64", None), ("int", None), ("Var", None), ("LinExpr", None),
                        ("array", shape), ("MVar", shape), ("MQuadExpr", shape)]:  # fmt: skip
        operand = world.operand(kind, other)
        for base, exponent in ((world.expression(shape, form_of), operand),
                               (operand, world.expression(shape, form_of))):  # fmt: skip
            compare(world, operator.pow, base, exponent)
    expr = world.expression(shape, form_of)
    for two in (2, 2.0, np.int64(2), np.array(2), np.array([2.0]), np.array([[2]])):
        result, _ = compare(world, operator.pow, expr, two)
        assert isinstance(result, tv.MQuadExpr)
    assert isinstance(expr ** np.full(2, 2.0) if shape == () else expr**3, tv.MNLExpr)
