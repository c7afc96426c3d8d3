"""MQuadExpr: sums and products beside NumPy's, on both forms, and what they may change."""

import operator
from decimal import Decimal
from fractions import Fraction

import numpy as np
import pytest
import scipy.sparse as sp
from quadratics import point, value_of

import taviropy as tv

MQuadExpr = tv.MQuadExpr
Q = np.array([[1.0, 0.0, 2.0], [0.0, 3.0, 0.0], [4.0, 0.0, 0.0]])


class World:
    """Quadratic expressions of several shapes and forms, operands, and their values at a point."""

    def __init__(self):
        m = self.model = tv.Model()
        x, y, w = m.addMVar(3), m.addMVar((2, 3)), m.addMVar((2, 1))
        u = m.addVar()
        self.at, *_ = point(x, y, w, tv.MVar.fromvar(u))
        xs = x[:1]
        self.quadratic = {
            "0d": x @ Q @ x + x.sum() + 1.0,
            "0d two parts": x @ Q @ x + w.T[0] @ w.T[0] - 1.0,
            "0d no part": MQuadExpr.zeros(()) + 5.0,
            "one": xs * xs + 2 * xs,
            "one by one": xs.reshape(1, 1) @ np.ones((1, 1)) @ xs.reshape(1, 1) + 1.0,
            "vector": x * x + x + 1.0,
            "matrix": y * x - y,
            "column": w * w,
            "0d full": (x * x).sum() + x.sum(),
        }
        self.other = {
            "int": 2, "float": -1.5, "numpy": np.float32(0.5), "zero": 0.0, "bool": np.True_,
            "fraction": Fraction(3, 4), "decimal": Decimal("-1.5"), "long": np.longdouble(0.5),
            "long array": np.arange(1, 4, dtype=np.longdouble),
            "numpy.matrix": np.array([[1.0], [2.0]]).view(np.matrix),
            "numpy.matrix of one": np.array([[2.0]]).view(np.matrix),
            "0d array": np.array(3.0), "one array": np.array([2]), "vector array": np.arange(1.0, 4.0),
            "matrix array": np.arange(1.0, 7.0).reshape(2, 3), "1x1 array": np.array([[4.0]]),
            "sparse": sp.csr_matrix(np.array([[0.0, 1.0, 2.0], [3.0, 0.0, 0.0]])),
            "1x1 sparse": sp.coo_matrix([[2.0]]),
            "Var": u, "LinExpr": 2 * u + 1.0, "QuadExpr": u * u + 3 * u + 1.0,
            "MVar": x, "MVar 0d": x[0], "MVar matrix": y, "MLinExpr": 2 * x + 1.0,
            "MLinExpr full": (y * 2.0 + 1.0), "MLinExpr 0d": x.sum(),
        }  # fmt: skip
        self.other.update({f"{name} too": q.copy() for name, q in self.quadratic.items()})

    def value(self, operand):
        """What NumPy computes with; sparse matrices stand for their arrays."""
        if isinstance(operand, tv.Var):
            return np.array(self.at[operand])
        if isinstance(operand, tv.LinExpr):
            return value_of(tv.MLinExpr._from_linexpr(operand), self.at)
        if isinstance(operand, tv.QuadExpr):
            return value_of(MQuadExpr._from_quad_expr(operand), self.at)
        if isinstance(operand, tv.MVar):
            return np.vectorize(self.at.__getitem__, otypes=[float])(operand._vararr)
        if isinstance(operand, (tv.MLinExpr, MQuadExpr)):
            return value_of(operand, self.at)
        return operand.toarray() if sp.issparse(operand) else np.asarray(operand, dtype=float)


@pytest.fixture
def world(form):
    return World()


def outcome(operation, *operands):
    try:
        with np.errstate(all="ignore"):
            return operation(*operands)
    except (ValueError, TypeError, ZeroDivisionError) as error:
        return type(error)


NAMES = list(World().quadratic)
NUMBERS = [
    name
    for name in World().other
    if not name.startswith(("Var", "Lin", "Quad", "M")) and "too" not in name
]


def check(world, operation, left, right):
    """The result against NumPy's, operands as before, and nothing of them in the result."""
    values = world.value(left), world.value(right)
    result, wanted = outcome(operation, left, right), outcome(operation, *values)
    assert isinstance(result, type) == isinstance(wanted, type), (result, wanted)
    if isinstance(result, type):
        return None
    assert isinstance(result, MQuadExpr)
    assert result.shape == wanted.shape
    np.testing.assert_allclose(value_of(result, world.at), wanted, atol=1e-12)
    result *= 3.0
    result += 1.0
    if result.size:
        result.clear()
    for operand, value in zip((left, right), values, strict=True):
        np.testing.assert_array_equal(world.value(operand), value)
    return result


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("sign", [operator.add, operator.sub])
def test_sums_equal_numpys(world, name, sign):
    for other, operand in world.other.items():
        if sp.issparse(operand) and sign is operator.sub:
            continue
        check(world, sign, world.quadratic[name].copy(), operand)
        # A scalar expression on the left leads its own arithmetic.
        if other not in ("Var", "LinExpr", "QuadExpr") and not sp.issparse(operand):
            check(world, sign, operand, world.quadratic[name].copy())


@pytest.mark.parametrize("name", NAMES)
def test_products_with_numbers_equal_numpys(world, name):
    for other in NUMBERS:
        operand = world.other[other]
        for operation in (operator.mul, operator.truediv):
            if other != "zero" and not (sp.issparse(operand) and operation is operator.truediv):
                check(world, operation, world.quadratic[name].copy(), operand)
        if not sp.issparse(operand):
            check(world, operator.mul, operand, world.quadratic[name].copy())


@pytest.mark.parametrize("name", NAMES)
def test_matrix_products_with_numbers_equal_numpys(world, name):
    matrices = [np.ones((3, 2)), np.arange(3), np.array([2.0]), np.array([[2.0]]), np.ones((2, 2)),
                np.zeros((0, 2)), np.ones((1, 4)), np.ones((4, 1))]  # fmt: skip
    for matrix in [*matrices, *(sp.csr_matrix(a) for a in matrices if a.ndim == 2)]:
        check(world, operator.matmul, world.quadratic[name].copy(), matrix)
        check(world, operator.matmul, matrix, world.quadratic[name].copy())


IN_PLACE = {
    operator.iadd: operator.add, operator.isub: operator.sub, operator.imul: operator.mul,
    operator.itruediv: operator.truediv,
}  # fmt: skip


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("operation", IN_PLACE)
def test_in_place_operators_keep_object_and_shape(world, name, operation):
    scaling = operation in (operator.imul, operator.itruediv)
    for other in NUMBERS if scaling else world.other:
        operand = world.other[other]
        if other == "zero" or (sp.issparse(operand) and operation is not operator.iadd):
            continue
        q = world.quadratic[name].copy()
        value, by = world.value(q), world.value(operand)
        wanted = IN_PLACE[operation](value, by)
        result = outcome(operation, q, operand)
        rebinds = operation is operator.iadd and isinstance(operand, tv.MVar)
        if wanted.shape == value.shape or rebinds:
            assert (result is q) != rebinds
            np.testing.assert_allclose(value_of(result, world.at), wanted, atol=1e-12)
            if rebinds:
                np.testing.assert_array_equal(world.value(q), value)
        else:
            assert result is ValueError
            assert q.shape == value.shape
        np.testing.assert_array_equal(world.value(operand), by)


@pytest.mark.parametrize("name", NAMES)
def test_an_expression_added_to_itself_doubles(world, name):
    q = world.quadratic[name]
    value = world.value(q)
    before = q
    q += q
    assert q is before
    np.testing.assert_allclose(value_of(q, world.at), 2 * value)
    q -= q
    np.testing.assert_allclose(value_of(q, world.at), 0 * value, atol=1e-12)


@pytest.mark.parametrize("name", NAMES)
def test_signs(world, name):
    q = world.quadratic[name]
    value = world.value(q)
    np.testing.assert_array_equal(value_of(-q, world.at), -value)
    same = +q
    same += 1.0
    np.testing.assert_array_equal(value_of(q, world.at), value)
    assert (-q)._is_compact == same._is_compact == q._is_compact


# ---- The form of operands and results -------------------------------------------------------


def test_what_stays_compact():
    quadratic = World().quadratic
    q, one = quadratic["0d"], quadratic["one by one"]
    two = np.array([2.0, 3.0])
    stays = [q + 1, q + World().model.addVar(), q + q, 2.0 * q, q * np.array([2.0]), -q, q / 2,
             q + np.array([[1.0]]), one @ np.array([[2.0]]), sp.csr_matrix([[2.0]]) @ one]  # fmt: skip
    assert all(result._is_compact for result in stays)
    assert (q * np.array([2.0])).shape == (1,)
    assert all(len(result._quadparts) == 1 for result in stays)
    assert q._is_compact
    wide = q + two
    assert q._is_compact
    assert wide.shape == (2,)
    assert len({id(qe) for qe in wide._qearr}) == 2
    assert not (q * two)._is_compact
    assert not q._is_compact  # products that leave the form take their operand along


def test_adding_a_scalar_quadratic_expression_makes_full():
    world = World()
    q, qe = world.quadratic["0d"], world.other["QuadExpr"]
    assert not (q + qe)._is_compact
    assert q._is_compact
    constant = float(q._getConstant())
    q += qe
    assert not q._is_compact
    assert q._qearr.item().linear.coeffs == []
    assert float(q._getConstant()) == constant + 1.0
    assert (len(qe.linear.coeffs), qe.linear.constant) == (1, 1.0)


def test_the_switch_turns_operands_full(monkeypatch):
    quadratic = World().quadratic
    monkeypatch.setattr(MQuadExpr, "_keep_compact", 0)
    for use in (
        lambda q: q + 1,
        lambda q: 2 * q,
        lambda q: q.__iadd__("no"),
        lambda q: q @ np.ones(3),
    ):
        q = quadratic["one"].copy()
        assert q._is_compact
        outcome(use, q)
        assert not q._is_compact


def test_a_compact_scaling_changes_the_coefficients_of_a_copy():
    q = World().quadratic["0d"]
    data = q._quadparts[0][1].data
    before = data.copy()
    (doubled,) = (2.0 * q)._quadparts
    np.testing.assert_array_equal(data, before)
    np.testing.assert_array_equal(doubled[1].data, 2 * before)
    q *= 2.0
    assert q._quadparts[0][1].data is data
    np.testing.assert_array_equal(data, 2 * before)


def test_an_array_of_two_scales_nothing_compact():
    q = World().quadratic["0d"]
    with pytest.raises(ValueError, match="size|broadcast"):
        q *= np.array([1.0, 2.0])
    assert q._is_compact


def test_long_products_keep_the_order_of_their_terms():
    m = tv.Model()
    x = m.addMVar(400)
    weights = np.arange(400.0)
    element = (weights @ (x * x)).item()
    assert element.coeffs == weights.tolist()
    assert element.vars1 == x.tolist()
    twice = (x[:2] * x[1::-1]) @ np.array([3.0, 4.0])  # x0 x1 and x1 x0 are one term
    assert twice._qearr.item().coeffs == [7.0]


# ---- What is not quadratic any more ---------------------------------------------------------


@pytest.mark.parametrize("name", ["0d", "vector"])
def test_higher_degrees_are_nonlinear(name):
    world = World()
    q, x = world.quadratic[name], world.other["MVar"]
    u, le, qe = (world.other[name] for name in ("Var", "LinExpr", "QuadExpr"))
    nonlinear = [
        q * x, x * q, q * u, q * q, q * qe, le * q, q**2, q ** np.array(2.0), 2.0**q, 1.0 / q,
        np.ones(3) / q, q / q, q / x, q / u, qe / q, q + x.nl,
    ]  # fmt: skip
    assert {type(result) for result in nonlinear} == {tv.MNLExpr}
    assert {result.shape for result in nonlinear} <= {q.shape, (3,)}


def test_refusals():
    world = World()
    q, x = world.quadratic["vector"], world.other["MVar"]
    for use in (
        lambda: x / q, lambda: (2 * x) / q, lambda: q + "a", lambda: "a" - q, lambda: q * None,
        lambda: q @ 2, lambda: 2 @ q, lambda: q - sp.csr_matrix((1, 3)), lambda: pow(q, 2, 5),
    ):  # fmt: skip
        with pytest.raises(TypeError):
            use()
    for zero in (0, 0.0, np.float64(0)):
        with pytest.raises(ZeroDivisionError, match="float division by zero"):
            q / zero
        with pytest.raises(ZeroDivisionError, match="float division by zero"):
            q /= zero
    for use in (lambda: q + np.ones(4), lambda: q @ np.ones(4), lambda: np.ones((2, 2)) @ q):
        with pytest.raises(ValueError, match="3"):
            use()
    malformed = sp.coo_matrix(([1.0], ([0], [0])), shape=(3, 3))
    malformed.coords = (np.array([10**6]), np.array([0]))
    for use in (lambda: q * malformed, lambda: q @ malformed, lambda: malformed @ q):
        with pytest.raises(ValueError, match="1000000"):
            use()
