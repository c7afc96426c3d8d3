"""ModelCore: numbering and removal; handles; and the gathering of expressions to arrays."""

import gc
import numbers
import weakref

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

import taviropy as tv
from taviropy._scalars import ModelCore, gather_linear, gather_quadratic, sum_pairs

INVALID, GONE = tv.TVO.Error.ERROR_INVALID_ARGUMENT, tv.TVO.Error.NOT_IN_MODEL


class Model(ModelCore):
    pass


def refused(code, words):
    return pytest.raises(tv.TaviroError, match=words, check=lambda e: e.args[0] == code)


# Numbering


STEPS = st.lists(
    st.one_of(
        st.tuples(st.just("new"), st.integers(0, 5)),
        st.tuples(st.just("discard"), st.sets(st.integers(0, 40), max_size=6)),
        st.tuples(st.just("settle"), st.just(0)),
    ),
    max_size=30,
)


@given(STEPS)
def test_numbering_follows_a_plain_list(steps):
    """Against two lists of ids: those in place and those that wait."""
    m, placed, waiting, marked = Model(), [], [], set()
    for step, what in steps:
        if step == "new":
            first = m.numbering(1).next_id()
            made = m.new_elements(1, what)
            assert [v._colno for v in made] == [-1] * what
            waiting += range(first, first + what)
        elif step == "discard":
            ids = what & (set(placed + waiting) - marked)
            m.numbering(1).discard(np.array(sorted(ids), dtype=np.int32))
            marked |= ids
        else:
            before = placed + waiting
            kept = m.numbering(1).settle()
            assert (kept is None) == (not marked)
            placed, waiting = [k for k in before if k not in marked], []
            if kept is not None:
                assert [before[k] for k in kept] == placed
            marked = set()
        numbers = m.numbering(1).numbers(np.arange(m.numbering(1).next_id()))
        assert numbers.dtype == np.int32 and len(numbers) == m.numbering(1).next_id()
        for k, number in enumerate(numbers):
            expected = placed.index(k) if k in placed else -1 if k in waiting else -2
            assert number == expected
        if m.numbering(1).all_in_place():
            assert placed == list(range(len(placed)))
    assert [v._colno for v in m.elements(1, np.arange(len(numbers)) if steps else [])] == (
        list(numbers) if steps else []
    )


def test_discard_marks_once():
    m = Model()
    m.new_elements(2, 4)
    m.numbering(2).settle()
    m.numbering(2).discard([3])
    m.numbering(2).discard([3, 3])
    with pytest.raises(IndexError, match="no element has the id 9: there are 4"):
        m.numbering(2).discard([0, 9])
    np.testing.assert_array_equal(m.numbering(2).settle(), [0, 1, 2])
    m.numbering(2).discard([3])  # gone, and nothing more happens
    assert m.numbering(2).settle() is None and m.numbering(1).next_id() == 0
    with pytest.raises(ValueError, match="no kind 3"):
        m.numbering(3).settle()


def test_ids_of_arrays_lists_and_handles():
    m = Model()
    a = m.new_elements(1, (2, 3, 4))
    assert a.dtype == object and a.shape == (2, 3, 4)
    ids = np.arange(24).reshape(a.shape)
    for key in (np.s_[...], np.s_[:, ::-1, ::2], np.s_[1, 1, 1:1], np.s_[0, 0, 0]):
        found = m.ids(1, a[key])
        assert found.dtype == np.int32 and found.ndim == 1
        np.testing.assert_array_equal(found, ids[key].ravel())
    np.testing.assert_array_equal(m.ids(1, a.T), ids.T.ravel())
    np.testing.assert_array_equal(m.ids(1, a.reshape(24)[::-5]), ids.reshape(24)[::-5])
    assert m.ids(1, [a[0, 1, 1], a[0, 0, 0]]).tolist() == [5, 0]
    assert m.new_elements(1, ()).shape == () and m.new_elements(1, 0).size == 0


def test_ids_refuse():
    m, other = Model(), Model()
    v, w, c = m.new_element(1), other.new_element(1), m.new_element(2)
    for error, words, elements in [
        (TypeError, "element 1 is of type 'taviropy._core.Constr'", [v, c]),
        (TypeError, "element 0 is of type 'NoneType'", np.empty(1, dtype=object)),
        (TypeError, "buffer format 'd'", np.ones(2)),
    ]:
        with pytest.raises(error, match=words):
            m.ids(1, elements)
    with refused(INVALID, "element 1.*another model"):
        m.ids(1, [v, w])
    m.numbering(1).discard(m.ids(1, v))
    m.numbering(1).settle()
    with refused(GONE, "element 0.*was removed"):
        m.ids(1, v)


# Handles


def test_equality_goes_by_element():
    m, other = Model(), Model()
    for kind in (1, 2, 4, 5):
        a, b = m.new_elements(kind, 2)
        twin = m.elements(kind, [0])[0]
        assert a is not twin and bool(a == twin) and hash(a) == hash(twin)
        for different in (b, other.new_element(kind)):
            assert bool(a == different) is False
        assert len({a, b, twin}) == 2
    c, d = m.new_element(2), m.new_element(4)
    assert c != d and c != 1 and c != m


def test_attributes_of_handles():
    with tv.Model() as m:
        m.setOption("log", False)
        v, w = m.addVar(name="v"), m.addVar()
        with pytest.raises(tv.TaviroError):
            _ = v.LB
        c = m.addConstr(v + w <= 3, name="c")
        m.update()
        v.LB, v.VType = np.float32(1), "I"
        v.setAttr("UB", 5)
        assert (v.LB, v.getAttr("UB"), v.VType, c.RHS, c.ConstrName) == (1.0, 5.0, "I", 3.0, "c")
        assert type(v.LB) is float and type(v.VType) is str and {"LB", "X", "getAttr"} <= {*dir(v)}
        v.VType = "C"
        m.setObjective(v + w, "max")
        m.optimize()
        assert {type(value) for value in (v.X, v.ReducedCost, c.Dual, c.Slack)} == {float}
        assert (v.X + w.X, c.Dual, type(c.Sense), c.Sense) == (3, 1, str, "<")
        for error, words, use in [
            (AttributeError, "'taviropy.Var' object has no attribute 'RHS'", lambda: v.RHS),
            (AttributeError, "no attribute 'Nope'", lambda: v.getAttr("Nope")),
            (AttributeError, "no attribute", lambda: v.nope),
            (AttributeError, "no attribute", lambda: setattr(v, "nope", 1)),
            (AttributeError, "'X' cannot be set", lambda: setattr(v, "X", 1.0)),
            (AttributeError, "cannot be deleted", lambda: delattr(v, "LB")),
            (AttributeError, "_colno", lambda: setattr(v, "_colno", 1)),
            (AttributeError, "__array_interface__", lambda: v.__array_interface__),
        ]:
            with pytest.raises(error, match=words):
                use()


# Life of a model


def test_handle_and_elements_outlive_and_release_the_model():
    m = Model()
    m.extra = 1
    alive, v, capsule = weakref.ref(m), m.new_element(1), m.handle
    e = 2 * v
    del m, v
    assert alive() is not None and e.vars[0]._colno == -1
    del e
    gc.collect()
    assert alive() is None
    del capsule
    m = Model()
    m.itself = m  # a cycle
    alive = weakref.ref(m)
    del m
    gc.collect()
    assert alive() is None


# Gathering


def terms(ptr, *columns):
    rows = zip(ptr[:-1], ptr[1:], strict=True)
    return [list(zip(*(c[a:b].tolist() for c in columns), strict=True)) for a, b in rows]


def test_gather_linear():
    m = Model()
    x, y = m.new_elements(1, 2)
    exprs = np.empty((2, 3), dtype=object)
    exprs[...] = [[2 * x + y + 1, 3, x], [tv.LinExpr(), np.float32(0.5), y + y]]
    indptr, ids, coeffs, constants = gather_linear(m, exprs[:, ::-1])
    assert (indptr.dtype, ids.dtype, coeffs.dtype) == (np.int64, np.int32, np.float64)
    assert terms(indptr, ids, coeffs) == [
        [(0, 1.0)], [], [(0, 2.0), (1, 1.0)], [(1, 1.0), (1, 1.0)], [], [],
    ]  # fmt: skip
    assert constants.tolist() == [0.0, 3.0, 1.0, 0.0, 0.5, 0.0]
    indptr, ids, *_ = gather_linear(m, [])
    assert indptr.tolist() == [0] and ids.size == 0


def test_gather_quadratic():
    m = Model()
    x, y = m.new_elements(1, 2)
    found = gather_quadratic(m, [x * y - 2 * y * y + x + 4, 2 * x, 7, y])
    assert terms(*found[:4]) == [[(0, 1, 1.0), (1, 1, -2.0)], [], [], []]
    assert terms(*found[4:7]) == [[(0, 1.0)], [(0, 2.0)], [], [(1, 1.0)]]
    assert found[7].tolist() == [4.0, 0.0, 7.0, 0.0]


def test_gather_refuses():
    m, other = Model(), Model()
    x, foreign, gone = m.new_element(1), other.new_element(1), m.new_element(1)
    m.numbering(1).discard([1])
    m.numbering(1).settle()

    for gather in (gather_linear, gather_quadratic):
        with pytest.raises(TypeError, match="expression 1 is of type 'str'"):
            gather(m, [x, "x"])
        with pytest.raises(TypeError, match="expected a Model"):
            gather(1, [x])
        with refused(INVALID, "another model"):
            gather(m, [x, x + foreign])
        with refused(GONE, "removed"):
            gather(m, [2 * gone])
        spoilt = x + 1
        spoilt.coeffs.clear()
        with pytest.raises(ValueError, match="differ in length"):
            gather(m, [spoilt])
    with pytest.raises(TypeError, match="expression 0 .*expected a number, a Var or a LinExpr"):
        gather_linear(m, [x * x])


def test_a_list_that_changes_while_it_is_gathered():
    """A number may run Python code when it is converted."""
    m = Model()
    x = m.new_element(1)

    class Number(numbers.Number):
        def __init__(self, action):
            self.action = action

        def __float__(self):
            self.action(exprs)
            return 1.0

    for action in (list.clear, lambda exprs: exprs.__setitem__(1, x + x + x)):
        exprs = [Number(action), x + x]
        with pytest.raises(RuntimeError, match="changed"):
            gather_linear(m, exprs)


def test_sum_pairs():
    rng = np.random.default_rng(0)
    parts = [
        (
            rng.integers(0, n, count).astype(np.int32),
            rng.integers(0, n, count).astype(np.int32),
            rng.integers(-2, 3, count).astype(float),
        )
        for n, count in ((1, 4), (6, 40), (6, 0), (40, 300))
    ]
    dense = np.zeros((40, 40))
    for ids1, ids2, data in parts:
        np.add.at(dense, (ids1, ids2), data)
    expected = np.triu(dense + np.tril(dense, -1).T)
    ids1, ids2, data = sum_pairs(parts, 40)
    assert (ids1.dtype, ids2.dtype, data.dtype) == (np.int32, np.int32, np.float64)
    np.testing.assert_array_equal(np.argwhere(expected), np.transpose([ids1, ids2]))
    np.testing.assert_array_equal(data, expected[expected != 0])
    assert all(len(array) == 0 for array in sum_pairs([], 3))
    one = np.zeros(1, np.int32)
    for error, bad in [
        (TypeError, (one, one, one)),
        (TypeError, (one, one)),
        (ValueError, (one, one, np.ones(2))),
        (ValueError, (one, one - 1, np.ones(1))),
        (ValueError, (one, one + 1, np.ones(1))),
    ]:
        with pytest.raises(error, match="sum_pairs"):
            sum_pairs([bad], 1)
