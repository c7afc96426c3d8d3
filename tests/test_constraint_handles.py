"""MConstr, MQConstr and MGenConstr as arrays of constraints."""

import copy

import numpy as np
import pytest

import taviropy as tv
from taviropy import _matrixapi


def rows(m, kind, count):
    v, r = m.addVar(), m.addVar()
    add = {
        tv.MConstr: lambda: m.addConstr(v <= 1),
        tv.MQConstr: lambda: m.addConstr(v * v <= 1),
        tv.MGenConstr: lambda: m.addGenConstrNL(r, tv.NLExpr._from_var(v) ** 3),
    }[kind]
    return [add() for _ in range(count)]


KINDS = {
    tv.MConstr: ("_constrarr", "_rowno", "Constr", 2, "_numrows"),
    tv.MQConstr: ("_qconstrarr", "_qconstrno", "QConstr", 4, "_numqconstrs"),
    tv.MGenConstr: ("_constrarr", "_genconstrno", "GenConstr", 5, None),
}
each = pytest.mark.parametrize("kind", KINDS, ids=lambda kind: kind.__name__)


@each
def test_fields_and_properties(m, kind):
    field, index, _, code, count = KINDS[kind]
    elements = np.array(rows(m, kind, 6)).reshape(2, 3)
    handle = kind(elements)
    assert type(kind) is type and kind.__bases__ == (object,)
    assert handle.__dict__ == {"_cmodel": m, field: elements} and getattr(handle, field) is elements
    assert list(handle.__dict__) == ["_cmodel", field]
    assert (handle.shape, handle.size, handle.ndim) == ((2, 3), 6, 2)
    assert (handle._typename, handle._typeenum) == (kind.__name__, code)
    assert handle._idxarr().tolist() == [[-1] * 3] * 2 and handle._idxarr().dtype == np.int32
    m.update()
    assert handle._idxarr().tolist() == [[0, 1, 2], [3, 4, 5]]
    assert [getattr(c, index) for c in elements[0]] == [0, 1, 2]
    for name in ("_numrows", "_numqconstrs"):
        assert hasattr(kind, name) == (name == count)
    assert hasattr(kind, "prefetchAttr") == (kind is not tv.MGenConstr)
    assert not hasattr(kind, "__array_priority__")
    assert (kind.__doc__ is None) == (kind is tv.MGenConstr)
    if count:
        assert getattr(handle, count)() == 6 and getattr(kind(elements[:0]), count)() is None
    assert {field, "tolist"} <= set(dir(handle)) and dir(handle) == sorted(set(dir(handle)))


@each
def test_an_array_is_kept_as_it_is_and_nothing_else_taken(m, kind):
    elements = np.array(rows(m, kind, 2))
    elements.flags.writeable = False
    assert getattr(kind(elements), KINDS[kind][0]) is elements
    assert kind(np.empty((0, 2)))._cmodel is None
    for bad in (elements.tolist(), None, 3):
        with pytest.raises(AssertionError) as error:
            kind(bad)
        assert error.value.args == ()
    with pytest.raises(AttributeError, match="_cmodel"):
        kind(np.ones(2))


@each
def test_indexing_lists_and_items(m, kind):
    elements = np.array(rows(m, kind, 6)).reshape(2, 3)

    class Sub(kind):
        pass

    handle = Sub(elements)
    for key in (0, (0, 1), slice(1), (..., None), [1, 0], elements == None):  # noqa: E711
        part, wanted = handle[key], np.asarray(elements[key], dtype=object)
        assert type(part) is kind and part.shape == wanted.shape
        assert getattr(part, KINDS[kind][0]).tolist() == wanted.tolist()
    assert handle.tolist() == elements.tolist()
    assert handle[1, 2].item() is elements[1, 2] is handle[1, 2].tolist()
    with pytest.raises(ValueError):
        handle.item()
    with pytest.raises(IndexError):
        handle[2]
    twin = copy.copy(handle)
    assert type(twin) is Sub and twin.__dict__ == handle.__dict__


@each
def test_fromlist(m, kind):
    elements = rows(m, kind, 4)

    class Sub(kind):
        pass

    for source in (elements, tuple(elements), [elements[:2], elements[2:]], elements[0], []):
        built = Sub.fromlist(source)
        assert type(built) is Sub
        assert built.shape == np.array(source, dtype=object).shape
    name = KINDS[kind][2]
    stranger = m.addVar()
    for bad in ([elements[0], 1], [1], [[elements[0]], [stranger]]):
        shown = "{obj}" if kind is tv.MGenConstr else str(np.ravel(np.array(bad, dtype=object))[-1])
        with pytest.raises(ValueError) as error:
            kind.fromlist(bad)
        assert str(error.value) == (
            f"{kind.__name__}.fromlist expects a list of {name}s, '{shown}' is not valid input"
        )


@each
def test_repr_tells_of_updates_and_removals(m, kind):
    name = kind.__name__
    assert repr(kind(np.empty(0, dtype=object))) == f"<{name} (0,)>"
    handle = kind.fromlist(rows(m, kind, 3))
    assert repr(handle) == f"<{name} (3,) *awaiting model update*>"
    m.update()
    assert repr(handle) == f"<{name} (3,)>" and repr(handle[0]) == f"<{name} ()>"
    m.remove(handle[0].item())
    m.update()
    assert repr(handle) == f"<{name} (3,) (some removed)>"
    both = kind.fromlist([handle[0].item(), *rows(m, kind, 1)])
    assert repr(both) == f"<{name} (2,) *awaiting model update* (some removed)>"


@pytest.mark.parametrize("kind", [tv.MConstr, tv.MQConstr], ids=lambda kind: kind.__name__)
def test_an_index_above_the_count_awaits_an_update(m, kind):
    handle = kind.fromlist(rows(m, kind, 3))
    m.update()
    for count, note in ((3, ""), (2, ""), (1, " *awaiting model update*")):

        class Counted(kind):
            pass

        setattr(Counted, KINDS[kind][4], lambda self, count=count: count)
        assert repr(Counted.fromlist(handle.tolist())) == f"<{kind.__name__} (3,){note}>"


def test_what_isnt_a_live_model_is_refused_by_the_count():
    handle = tv.MConstr(np.empty(0, dtype=object))
    handle._cmodel = object()
    for act in (handle._numrows, lambda: repr(handle)):
        with pytest.raises(TypeError):
            act()


def test_replaced_names_have_effect(m, monkeypatch):
    handle = tv.MConstr.fromlist(rows(m, tv.MConstr, 2))
    monkeypatch.setattr(_matrixapi, "MConstr", tuple)
    assert handle[:1] == (handle._constrarr[0],)
