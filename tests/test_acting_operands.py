"""Operands whose own code acts in the middle of an operation: it changes the lists and arrays that
native code is walking over. The outcome may be an error, and is never a crash."""

import gc
import numbers
from contextlib import suppress

import numpy as np
import pytest
import scipy.sparse as sp

import taviropy as tv
from taviropy import _matrixapi, _util


class Acting:
    """Runs a function of no arguments wherever it is asked for a number, and counts how often."""

    def __init__(self, act, number=1):
        self.act, self.number, self.asked = act, number, 0

    def value(self):
        self.asked += 1
        self.act()
        return self.number

    def __float__(self):
        return float(self.value())

    def __index__(self):
        return int(self.value())


class ActingNumber(Acting):
    """Taken for a number."""


numbers.Number.register(ActingNumber)


class ActingFloat(float):
    """A number whose finalizer acts."""

    act = staticmethod(lambda: None)

    def __del__(self):
        self.act()


@pytest.fixture
def x():
    m = tv.Model()
    m.setOption("log", False)
    x = m.addMVar(3, ub=1.0, obj=-1.0)
    m.optimize()
    return x


def full(x):
    """A full MLinExpr of three terms an element, and its first element."""
    e = (np.ones((3, 3)) @ x).copy()
    e._convert_to_full()
    return e, e._learr[0]


def full_quadratic(x):
    q = x * x + x
    return q, q._qearr[0]


LINEAR = {
    "imul": lambda e, x: e.__imul__(2.0),
    "imul array": lambda e, x: e.__imul__(np.full(3, 2.0)),
    "mul": lambda e, x: e * 2.0,
    "mul array": lambda e, x: e * np.full(3, 2.0),
    "neg": lambda e, x: -e,
    "product": lambda e, x: e * x,
    "getValue": lambda e, x: e.getValue(),
    "matmul": lambda e, x: np.ones((2, 3)) @ e,
    "add to compact": lambda e, x: (1.0 * x).__iadd__(e._learr[0]),
    "nonlinear": lambda e, x: tv.exp(e),
    "square": lambda e, x: e**2,
}
QUADRATIC = {
    "imul": lambda q, x: q.__imul__(2.0),
    "mul": lambda q, x: q * 2.0,
    "copy": lambda q, x: q.copy(),
    "getValue": lambda q, x: q.getValue(),
    "normalize": lambda q, x: q._normalize(),
    "add": lambda q, x: q + q,
}


@pytest.mark.parametrize(
    ("make", "operation"),
    [(full, f) for f in LINEAR.values()] + [(full_quadratic, f) for f in QUADRATIC.values()],
    ids=[f"linear {n}" for n in LINEAR] + [f"quadratic {n}" for n in QUADRATIC],
)
def test_a_term_list_is_read_without_asking_what_stands_in_it(x, make, operation):
    for field in ("coeffs", "vars", "vars1"):
        e, element = make(x)
        items = getattr(element, field, None)
        if items is None:
            continue
        held = [Acting(element.clear), Acting(items.clear)]
        items[0] = held[0]
        items[-1] = held[1]
        with suppress(
            TypeError, AttributeError, ValueError
        ):  # not all operations look at all fields
            operation(e, x)
        assert held[0].asked == held[1].asked == 0


def test_a_variable_with_a_model_of_its_own_making(x):
    class Foreign:
        @property
        def _cmodel(self):
            element.vars.clear()
            element.coeffs.clear()
            gc.collect()
            return x._cmodel

    e, element = full(x)
    element.vars[0] = Foreign()
    with pytest.raises(TypeError, match="expected a Var"):
        e.getValue()
    assert len(element.vars) == 3


def test_values_are_those_of_the_terms_before_the_solution_was_read(x, monkeypatch):
    e, element = full(x)
    q, product = full_quadratic(x)
    original = _matrixapi._gettypedattrlist

    def clearing(*args):
        element.clear()
        product.clear()
        return original(*args)

    monkeypatch.setattr(_matrixapi, "_gettypedattrlist", clearing)
    assert e.getValue().tolist() == [3.0, 3.0, 3.0]
    monkeypatch.setattr(_matrixapi, "_gettypedattrlist", original)
    assert e.getValue().tolist() == [0.0, 3.0, 3.0]


@pytest.mark.parametrize("operation", ["_mul", "_normalize"])
def test_a_finalizer_of_a_coefficient_drops_what_is_being_changed(x, operation):
    v = x[0].item()
    q = v * v + (v + v)
    act = ActingFloat(2.0)
    act.act = q.clear
    q.linear.coeffs[0] = act
    del act
    q._mul(3.0) if operation == "_mul" else q._normalize()
    assert q.size() == 0 and q.linear.size() == 0  # cleared by the finalizer, when all was done

    e = v + v + v
    act = ActingFloat(2.0)
    act.act = e.clear
    e.coeffs[0] = act
    del act
    e._mul(3.0) if operation == "_mul" else e._normalize()
    assert e.size() == 0


@pytest.mark.parametrize("operation", [np.add, np.multiply, np.divide, np.power, np.less_equal])
def test_a_number_that_takes_the_other_operand_out_of_its_array(x, operation):
    expressions = np.empty(2, dtype=object)
    factors = np.empty(2, dtype=object)
    for k in range(2):
        expressions[k] = x[k].item() + 0.0
        factors[k] = ActingNumber(lambda: (expressions.fill(None), factors.fill(None)))
    with suppress(TypeError):
        operation(expressions, factors)
    assert expressions[0] is None


def test_an_index_that_clears_the_expression(x):
    v = x[0].item()
    e, q = v + 2 * v, v * v
    assert e.getCoeff(Acting(e.clear)) == 2.0
    assert q.getVar1(Acting(q.clear, 0)) == v
    assert e.size() == q.size() == 0


def test_lists_of_a_matrix_are_read_without_asking_what_stands_in_them(x):
    A = sp.lil_matrix(np.ones((3, 3)))
    for act in (lambda: A.rows[0].clear(), lambda: A.rows[0].extend([1] * 1000)):
        for lists in (A.rows, A.data):
            A.rows[0], A.data[0] = [0, 1, 2], [1.0, 1.0, 1.0]
            lists[0][1] = held = Acting(act)
            for product in (
                lambda: A @ x,
                lambda: x @ A,
                lambda: (x * x) @ A,
                lambda: A @ tv.exp(x),
            ):
                with pytest.raises(ValueError, match="malformed"):
                    product()
            assert held.asked == 0


def test_entries_that_break_the_matrix_which_they_stand_in(x):
    for form in (sp.csr_matrix, sp.csc_matrix, sp.bsr_matrix):
        A = form(np.ones((3, 3)))
        A.data = A.data.astype(object)
        A.data.flat[4] = Acting(lambda A=A: A.indices.fill(10**6))
        for product in (lambda A=A: A @ x, lambda A=A: x @ A):
            with pytest.raises((ValueError, TypeError)):
                product()


def test_factors_that_exchange_the_matrix_which_they_scale(x):
    class Factors(np.ndarray):
        def __array_finalize__(self, source):
            matrix = e._matmulparts[0][0]
            matrix.data = matrix.data[:0].copy()
            matrix.indptr[:] = 10**6

    e = np.ones((3, 3)) @ x
    factors = np.arange(3).view(Factors)
    e = np.ones((3, 3)) @ x
    for operation in (e.__imul__, e.__mul__):
        with pytest.raises(ValueError, match="malformed"):
            operation(factors)


class ActingMatrix(sp.csr_matrix):
    """Acts once, when it is asked for its values."""

    act = None

    @property
    def data(self):
        if self.act:
            act, self.act = self.act, None
            act()
        return self.__dict__["data"]

    @data.setter
    def data(self, value):
        self.__dict__["data"] = value


def acting_block(x, act_of):
    """A compact expression of two matrices, of which the second acts on the first, or on the list."""
    e = np.eye(3) @ x + 0.0
    parts = e._matmulparts
    parts.append((ActingMatrix(np.eye(3)), x))
    parts[1][0].act = lambda: act_of(parts)
    return e


ACTS = {
    "clears the list": list.clear,
    "makes the list long": lambda parts: parts.extend([parts[0]] * 1000),
    "breaks another matrix": lambda parts: parts[0][0].indptr.fill(10**6),
    "moves its indices": lambda parts: parts[0][0].indices.fill(10**6),
}


@pytest.mark.parametrize("act", ACTS.values(), ids=ACTS)
def test_a_part_that_changes_the_others(x, act):
    m = x._cmodel
    uses = (
        lambda e: m.addConstr(e <= 1),
        lambda e: e.copy(),
        lambda e: e.__imul__(np.arange(3.0)),
        lambda e: e._convert_to_full(),
        lambda e: tv.vstack([e, e]),
        lambda e: np.ones((2, 3)) @ e,
    )
    for use in uses:
        e = acting_block(x, act)
        with suppress(ValueError, IndexError, AssertionError, TypeError, tv.TaviroError):
            use(e)
    m.update()
    assert m.NumConstrs in (0, 3)


def test_a_matrix_that_tells_two_shapes():
    class Shrinking:
        format = "csc"
        data, indices, indptr = np.ones(1), np.zeros(1, np.int32), np.array([0, 1], np.int32)
        shapes = [(3, 4), (1, 1), (1, 1), (1, 1)]

        @property
        def shape(self):
            return self.shapes.pop(0)

    ones = np.ones((2, 3), dtype=object)
    with pytest.raises(ValueError, match="malformed"):
        _util._sparse_right_matmul_kernel(ones, Shrinking(), f_multiply=max, f_sum=sum)
