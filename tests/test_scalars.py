"""Scalar expressions: constructors, arithmetic, comparisons, and what NumPy makes of them."""

import copy
import operator

import numpy as np
import pytest
import scipy.sparse as sp
from hypothesis import given
from hypothesis import strategies as st

import taviropy as tv
from taviropy import LinExpr, NLExpr, QuadExpr, TempConstr
from taviropy._scalars import data_of

VALUES = (2.0, -0.5, 3.0)


@pytest.fixture(scope="module")
def solved():
    """A model whose variables x, y, z have the values VALUES."""
    with tv.Model() as m:
        m.setOption("log", False)
        names = ["x", "y", "z"]
        made = [m.addVar(lb=v, ub=v, name=n) for v, n in zip(VALUES, names, strict=True)]
        m.optimize()
        yield m, *made


@pytest.fixture(scope="module")
def xyz(solved):
    return solved[1:]


def linear(le):
    """(constant, [(coefficient, variable index)]), in stored order."""
    return le.constant, [(c, v._colno) for c, v in zip(le.coeffs, le.vars, strict=True)]


def quadratic(qe):
    terms = zip(qe.coeffs, qe.vars1, qe.vars2, strict=True)
    return [(c, u._colno, v._colno) for c, u, v in terms], linear(qe.linear)


# Constructors


def test_linexpr_forms(xyz):
    x, y, z = xyz
    coeffs, variables = [1.0, 2.0], [x, y]
    cases = {
        LinExpr(): (0.0, []),
        LinExpr(3): (3.0, []),
        LinExpr(np.float32(0.5)): (0.5, []),
        LinExpr(x): (0.0, [(1.0, 0)]),
        LinExpr(-2, y): (0.0, [(-2.0, 1)]),
        LinExpr(coeffs, variables): (0.0, [(1.0, 0), (2.0, 1)]),
        LinExpr((1, np.int64(2)), (z, z)): (0.0, [(1.0, 2), (2.0, 2)]),
        LinExpr(np.array([1, 2]), np.array([x, z])): (0.0, [(1.0, 0), (2.0, 2)]),
        LinExpr(2 * x + 1): (1.0, [(2.0, 0)]),
        LinExpr([], []): (0.0, []),
        LinExpr(None): (0.0, []),
    }
    for le, expected in cases.items():
        assert linear(le) == expected
        assert all(type(c) is float for c in le.coeffs) and le.cont_ref is None
    le = LinExpr(coeffs, variables)
    coeffs.append(3.0)
    variables.clear()
    assert linear(le) == (0.0, [(1.0, 0), (2.0, 1)])


def test_constructors_refuse(xyz):
    x, y, _ = xyz
    for error, words, make in [
        (ValueError, "3 coefficients for 2 variables", lambda: LinExpr([1, 2, 3], [x, y])),
        (TypeError, "variable 1 is of type 'int'", lambda: LinExpr([1, 2], [x, 5])),
        (TypeError, "coefficient is of type 'str'", lambda: LinExpr([1, "2"], [x, y])),
        (TypeError, "expected a number", lambda: LinExpr("2", y)),
        (TypeError, "expected a number", lambda: LinExpr(np.ones((2, 2)), [x, y])),
        (TypeError, "list or an array", lambda: LinExpr(1.0, [x])),
        (TypeError, "LinExpr of 'str'", lambda: LinExpr("x")),
        (TypeError, "LinExpr of .*QuadExpr", lambda: LinExpr(x * y)),
        (TypeError, "QuadExpr of .*NLExpr", lambda: QuadExpr(x**3)),
        (TypeError, "0 to 2 arguments", lambda: LinExpr(1, 2, 3)),
        (TypeError, "keyword", lambda: LinExpr(coeffs=[])),
        (TypeError, "float", lambda: LinExpr(1j)),
        (TypeError, "cannot create", lambda: type(x)()),
    ]:
        with pytest.raises(error, match=words):
            make()


def test_quadexpr_forms(xyz):
    x, y, _ = xyz
    q = x * y + 2 * x
    assert quadratic(QuadExpr()) == ([], (0.0, []))
    assert quadratic(QuadExpr(2)) == ([], (2.0, []))
    assert quadratic(QuadExpr(y)) == ([], (0.0, [(1.0, 1)]))
    assert quadratic(QuadExpr(q)) == ([(1.0, 0, 1)], (0.0, [(2.0, 0)]))
    twin = QuadExpr(q)
    twin.getLinExpr().clear()
    assert quadratic(twin) == ([(1.0, 0, 1)], (0.0, []))
    assert quadratic(q)[1] == (0.0, [(2.0, 0)])


def test_subclasses_and_fields(xyz):
    class Cost(LinExpr):
        def __init__(self, unit, var):
            super().__init__(2.0, var)
            self.unit = unit

    cost = Cost("EUR", xyz[0])
    assert linear(cost) == (0.0, [(2.0, 0)]) and cost.unit == "EUR"
    assert type(cost + 1) is LinExpr and linear(cost * 2)[1] == [(4.0, 0)]
    for field in ("constant", "coeffs", "vars", "cont_ref"):
        with pytest.raises(AttributeError):
            setattr(LinExpr(), field, None)
    assert LinExpr.__new__(LinExpr).coeffs == [] and QuadExpr.__new__(QuadExpr).vars2 == []


# Arithmetic


def test_order_of_terms(xyz):
    x, y, z = xyz
    assert linear(1 + 2 * x - (y + x) + 3) == (4.0, [(2.0, 0), (-1.0, 1), (-1.0, 0)])
    product = (1 + 2 * x + 3 * y) * (4 - 5 * z)
    terms = [(-10.0, 0, 2), (-15.0, 1, 2)]
    assert quadratic(product) == (terms, (4.0, [(8.0, 0), (12.0, 1), (-5.0, 2)]))
    assert quadratic(x * (y + 0.0)) == ([(1.0, 0, 1)], (0.0, []))
    assert type(LinExpr(2) * LinExpr(3)) is QuadExpr and type(2 * x) is LinExpr
    assert quadratic(x**2) == ([(1.0, 0, 0)], (0.0, []))


def test_normalize(xyz):
    x, y, z = xyz
    le = LinExpr([1, 2, 3, -2, 4], [z, x, z, x, y])
    le._normalize()
    assert linear(le) == (0.0, [(4.0, 2), (0.0, 0), (4.0, 1)])
    q = 2 * x * y + 3 * y * x - z * z + x - x
    q._normalize()
    assert quadratic(q) == ([(5.0, 0, 1), (-1.0, 2, 2)], (0.0, [(0.0, 0)]))


def test_normalize_goes_by_element_not_by_object(solved):
    m, x, *_ = solved
    twin = data_of(m).elements(1, [0])[0]
    assert twin is not x and bool(twin == x) and hash(twin) == hash(x)
    le = LinExpr([1, 2], [x, twin])
    le._normalize()
    assert linear(le) == (0.0, [(3.0, 0)])
    assert NLExpr(x * twin)._root.op == "square"


OPERATIONS = [operator.add, operator.sub, operator.mul, operator.truediv]
IN_PLACE = [operator.iadd, operator.isub, operator.imul, operator.itruediv]
NUMBERS = st.sampled_from([2, -1.5, 0, 1, True, np.float64(0.25), np.int64(-3), np.float32(4)])


@st.composite
def programs(draw):
    """Steps (place of an operation, operands as number or place, in place)."""
    operand = st.one_of(NUMBERS, st.integers(0, 9).map(lambda k: (k,)))
    step = st.tuples(st.integers(0, 3), operand, operand, st.booleans())
    return draw(st.lists(step, min_size=1, max_size=8))


@given(programs())
def test_values_and_untouched_operands(xyz, program):
    """Every result has the value that the operation gives, and changes none of its operands."""
    pool = [(v, value) for v, value in zip(xyz, VALUES, strict=True)]
    for op, left, right, in_place in program:
        (a, a_value), (b, b_value) = (
            pool[k[0] % len(pool)] if isinstance(k, tuple) else (k, float(k)) for k in (left, right)
        )
        if OPERATIONS[op] is operator.truediv and b_value == 0.0:
            continue
        changes = in_place and isinstance(a, LinExpr | QuadExpr | NLExpr)
        a = a.copy() if changes else a
        before = str(a), str(b)
        result = (IN_PLACE if changes else OPERATIONS)[op](a, b)
        assert str(b) == before[1] and (result is a or str(a) == before[0])
        value = OPERATIONS[op](a_value, b_value)
        if isinstance(result, LinExpr | QuadExpr | NLExpr):
            assert result.getValue() == pytest.approx(value)
            if str(result).count(" ") < 60:
                pool.append((result, value))


def test_in_place_results_alias_nothing(xyz):
    x, y, _ = xyz
    le = 2 * x + 1
    for other in (le + 0, le * 1, le / 1, +le, le.copy(), copy.copy(le), copy.deepcopy([le])[0]):
        other *= 3
        other += y
    assert linear(le) == (1.0, [(2.0, 0)])
    same = le
    le += le
    le -= 1
    assert same is le and linear(le) == (1.0, [(2.0, 0), (2.0, 0)])
    q = x * y + le
    q.add(q)
    assert quadratic(q)[0] == [(1.0, 0, 1)] * 2 and len(q.linear.vars) == 4
    q -= q.linear
    assert q.getConstant() == 0.0 and len(q.linear.vars) == 8
    le.clear()
    assert linear(le) == (0.0, []) and copy.copy(x) is x and copy.deepcopy([x])[0] is x


def test_in_place_widens_where_it_must(xyz):
    x, y, _ = xyz
    le = original = 2 * x
    le += x * y
    assert type(le) is QuadExpr and linear(original) == (0.0, [(2.0, 0)])
    le /= y
    assert type(le) is NLExpr
    with pytest.raises(TypeError, match="operator \\+"):
        original.add(x * y)
    with pytest.raises(ZeroDivisionError, match="float division by zero"):
        original /= 0
    assert linear(original) == (0.0, [(2.0, 0)])


def test_lists_changed_from_outside_are_refused(xyz):
    x, y, _ = xyz
    q = QuadExpr()
    for spoil, error in [
        (lambda le: le.coeffs.append(1.0), ValueError),
        (lambda le: le.vars.append(y), ValueError),
        (lambda le: le.coeffs.__setitem__(0, "a"), TypeError),
        (lambda le: le.vars.__setitem__(0, None), TypeError),
    ]:
        le = 2 * x + y
        spoil(le)
        for use in (lambda e: e + 1, lambda e: e * e, LinExpr._normalize, LinExpr.getValue, str,
                    q.add, NLExpr, LinExpr.copy):  # fmt: skip
            with pytest.raises(error):
                use(le)
    assert quadratic(q) == ([], (0.0, []))
    le = 2 * x
    le.coeffs[0] = 3
    assert linear(le + 1) == (1.0, [(3.0, 0)])


def test_small_methods(xyz):
    x, y, _ = xyz
    le, q = 2 * x - y, 3 * x * y
    assert (le.size(), le.getCoeff(1), le.getVar(0)) == (2, -1.0, x)
    assert (q.size(), q.getCoeff(0), q.getVar1(0), q.getVar2(0)) == (1, 3.0, x, y)
    for call in (lambda: le.getVar(2), lambda: le.getCoeff(-1), lambda: q.getVar2(1)):
        with pytest.raises(IndexError, match="has no term"):
            call()


# Comparisons


def test_comparisons(xyz):
    x, y, _ = xyz
    sides = [x, 2 * x + 1, x * y, x**3]
    for left in sides:
        for right in [*sides, 3, 2.5, np.float64(1)]:
            for compare, sense in [(operator.le, "<"), (operator.ge, ">"), (operator.eq, "=")]:
                constr = compare(left, right)
                assert type(constr) is TempConstr
                assert (constr.lhs, constr.sense, constr.rhs) == (left, sense, right) or (
                    constr.lhs is left and constr.rhs is right and constr.sense == sense
                )
            with pytest.raises(TypeError, match="write '<='"):
                left < right  # noqa: B015
            with pytest.raises(tv.TaviroError, match="Inequality constraints not supported"):
                left != right  # noqa: B015
    reflected = 3 <= x  # noqa: SIM300
    assert reflected.sense == ">" and reflected.lhs is x
    with pytest.raises(TypeError, match="not supported between"):
        x < "a"  # noqa: B015
    assert (x == None) is False and (x != None) is True  # noqa: E711


def test_truth_value(xyz):
    x, y, z = xyz
    assert y in [x, y] and z not in [x, y] and [x, y, z].index(z) == 2
    assert {x: 1, y: 2}[y] == 2 and len({x, y, x}) == 2
    for misuse in (
        lambda: 1 <= x <= 2,
        lambda: x <= 1 and y <= 1,
        lambda: not x + 0 <= y,
        lambda: x + y in [x + y],
    ):
        with pytest.raises(TypeError, match="no truth value.*addConstr"):
            misuse()


# NumPy and SciPy


@pytest.mark.parametrize("number", [np.float64(2), np.float32(2), np.int64(2), np.True_ + 1])
def test_numpy_scalars_on_either_side(xyz, number):
    x = xyz[0]
    for e in (x, 2 * x + 1, x * x, x**3):
        for op in (operator.add, operator.sub, operator.mul, operator.truediv, operator.pow):
            assert type(op(number, e)) is type(op(2.0, e))
            assert str(op(number, e)) == str(op(2.0, e))
            assert str(op(e, number)) == str(op(e, 2.0))
        for compare in (operator.le, operator.ge, operator.eq):
            assert compare(number, e).lhs is e
            assert compare(number, e).sense == compare(2.0, e).sense


def test_arrays_of_scalars(xyz):
    x, y, z = xyz
    for scalar in (x, 2 * x, x * y, x**3):
        assert np.array(scalar).shape == () and np.array(scalar, dtype="O").dtype == object
        assert np.array([scalar, scalar], dtype="O").shape == (2,)
    a = np.array([x, y, z])
    assert a.dtype == object
    assert [linear(e) for e in a * np.arange(3.0)] == [(0.0, [(float(k), k)]) for k in range(3)]
    assert linear(a @ np.array([1.0, 2.0, 3.0]))[1] == [(1.0, 0), (2.0, 1), (3.0, 2)]
    assert linear(a.sum())[1] == [(1.0, 0), (1.0, 1), (1.0, 2)]
    assert [type(e) for e in (a * x, x * a, a + (x + 1))] == [np.ndarray] * 3
    assert quadratic((x * a)[1])[0] == [(1.0, 0, 1)]
    a += x
    assert linear(a[2])[1] == [(1.0, 2), (1.0, 0)]
    doubled = np.vectorize(lambda v: 2 * v, otypes=[object])(np.array([x, y]))
    assert linear(doubled[1]) == (0.0, [(2.0, 1)])
    assert list(np.array([x, y, z]) == y) == [False, True, False]
    assert np.exp(x)._root.op == "exp" and np.sqrt(np.array([x]))[0]._root.op == "sqrt"


def test_arrays_of_numbers_give_matrix_expressions(xyz):
    x, y, _ = xyz
    b = np.array([1.0, -2.0])
    value = {x: 2.0, 2 * x + 1: 5.0, x * y: -1.0, x**3: 8.0}
    for e, v in value.items():
        for op in (operator.add, operator.sub, operator.mul, operator.truediv):
            for result, expected in ((op(e, b), op(v, b)), (op(b, e), op(b, v))):
                assert type(result).__module__ == "taviropy._matrixapi"
                items = [result[k].item().getValue() for k in range(2)]
                np.testing.assert_allclose(items, expected)
        assert str(e * np.array(3.0)) == str(e * 3.0)
        assert str(np.array(3.0) * e) == str(3.0 * e)
    assert type(x * sp.eye_array(2, format="csr")).__name__ == "MLinExpr"


def test_comparisons_with_arrays_are_constraints(solved):
    m, x, y, _ = solved
    b = np.array([1.0, 2.0])
    for constr in (x <= b, b >= x):
        assert constr.lhs is x and constr.sense == "<" and constr.rhs is b
    assert (x <= np.array(3.0)).rhs == 3.0
    assert m.addConstr(b == x + y).shape == (2,)
    mvar = tv.MVar.fromlist([x, y])
    for constr in (x <= mvar, x + y <= mvar, x <= 2 * mvar):
        assert constr.sense == ">" and constr.rhs is not mvar
    with pytest.raises(tv.TaviroError, match="Inequality"):
        x != b  # noqa: B015


# Texts


def test_texts(xyz):
    x, y, _ = xyz
    assert (repr(x), str(x)) == ("<Var x>", "x")
    assert str(1 + 2 * x - 3 * y) == "1.0 + 2.0 x + -3.0 y" and str(LinExpr()) == "0.0"
    assert repr(x * y - x) == "<QuadExpr: 0.0 + -1.0 x + 1.0 x * y>"
    assert repr(x <= 1) == "<TempConstr: <Var x> <= 1>"
    assert str((x + 1) ** 3 / -y) == "divide(pow(plus(x; 1.0); 3.0); multiply(-1.0; y))"
    assert repr(abs(x) ** 2) == "<NLExpr: square(abs(x))>" and str(NLExpr._from_plus()) == "plus()"
    long = LinExpr([1.0] * 100_000, [x] * 100_000)
    for text in (str(long), str(QuadExpr(long)), str(NLExpr(long))):
        assert len(text) < 5000 and "..." in text


def test_texts_of_handles():
    m = tv.Model()
    v, w = m.addVar(name="v"), m.addMVar((1, 2), name="w")[0, 1].item()
    assert repr(v) == "<Var v *awaiting update*>" and str(2 * w + v) == "0.0 + 2.0 w[0,1] + 1.0 v"
    c = m.addConstr(v + w <= 1, name="c")
    m.update()
    assert repr(w) == "<Var w[0,1]>" and repr(c) == str(c) == "<Constr c>"
    m.remove(v)
    m.update()
    assert repr(v) == "<Var v (removed)>" and str(v) == "v"
    m.close()
    assert repr(w) == "<Var number 2>" and str(w + 1) == "1.0 + 1.0 number 2"
