"""Which way a constraint takes into a model: small linear ones wait in a buffer for the update."""

import numpy as np
import pytest
import scipy.sparse as sp

import taviropy as tv
from taviropy._scalars import data_of

b = np.arange(1.0, 4.0)


def lane(model, constr):
    """The rows that a constraint leaves in the buffer, and the right-hand sides that come out."""
    model.update()
    made = model.addConstr(constr)
    waiting = len(data_of(model)._row_buffer)
    model.update()
    return waiting, made.shape if hasattr(made, "shape") else None, np.ravel(made.RHS).tolist()


def test_what_waits_in_the_buffer(m):
    x, v = m.addMVar(3), m.addVar()
    A, a, i = np.arange(9.0).reshape(3, 3), np.array([1.0, 2.0]), [0, 2]
    cases = [
        (A @ x <= 1, (3,), [1, 1, 1]),
        (A @ x <= 1.5, (3,), [1.5] * 3),
        (A @ x + b <= np.float64(2), (3,), [1, 0, -1]),
        (A @ x + x >= b, (3,), [1, 2, 3]),
        (A @ x == np.repeat(b, 2)[::2], (3,), [1, 2, 3]),
        (A @ x.reshape(3, 1) <= b.reshape(3, 1), (3, 1), [1, 2, 3]),
        (sp.csr_array(A) @ x <= b, (3,), [1, 2, 3]),
        (b @ x <= 7, (), [7]),
        (a @ x[i] <= np.array([4.0]), (1,), [4]),
        (a @ x[i] + 1 <= np.array([[4.0]]), (1, 1), [3]),
        (np.array([a]) @ x[i] <= np.array(4.0), (1,), [4]),
        (2 * v + 1 <= 3, None, [2]),
        (v <= 2 * v, None, [0]),
    ]
    for constr, shape, rhs in cases:
        assert lane(m, constr) == (len(rhs), shape, rhs), constr


def test_what_takes_the_general_way(m):
    x = m.addMVar(3)
    for constr, shape in [
        (2 * x <= np.arange(3), (3,)),
        (2 * x <= b.astype("f4"), (3,)),
        (2 * x <= b.astype(object), (3,)),
        (2 * x <= b.reshape(3, 1), (3, 3)),
        (x[:1] * 2 <= b, (3,)),
        (2 * x <= 2 * x[::-1], (3,)),
        (x <= b, (3,)),
        (x.sum() <= 7, ()),
        ((2 * x)._to_full() <= b, (3,)),
    ]:
        waiting, made, _ = lane(m, constr)
        assert (waiting, made) == (0, shape)


@pytest.mark.parametrize("bad", [np.ma.array(b, mask=[0, 1, 0]), np.array([1, np.nan, 2])], ids=str)
def test_what_is_refused_leaves_no_rows(m, bad):
    x = m.addMVar(3)
    for constr in (2 * x <= bad, 2 * x + np.array([0, np.inf, 0]) <= np.array([0, np.inf, 0])):
        with pytest.raises(tv.TaviroError):
            m.addConstr(constr)
        assert len(data_of(m)._row_buffer) == 0
    m.update()
    assert m.NumConstrs == 0
