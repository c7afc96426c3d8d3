"""Which quadratic objectives count as convex, and when that is found out."""

import numpy as np
import pytest
import scipy.sparse as sp
from hypothesis import given, settings
from hypothesis import strategies as st
from hypothesis.extra.numpy import arrays
from inside import engine_of, view_of

import taviropy as tv
from taviropy import TVO, TaviroError
from taviropy.engines import convexity
from taviropy.engines.convexity import is_convex


def convex(Q, sense="min"):
    """The answer for the objective x' Q x."""
    with tv.Model() as m:
        x = m.addMVar(Q.shape[0])
        m.setObjective(x @ Q @ x, sense)
        return is_convex(view_of(m))


def shuffled(Q, rng):
    order = rng.permutation(Q.shape[0])
    return Q.tocsr()[order][:, order]


@settings(deadline=None)
@given(arrays(float, (4, 5), elements=st.integers(-2, 2)), st.integers(0, 2**32 - 1))
def test_sums_of_squares_are_convex_in_any_units(F, seed):
    rng = np.random.default_rng(seed)
    units = 10.0 ** rng.integers(-5, 6, 5)
    Q = F.T @ F
    skewed = Q + np.triu(rng.integers(-3, 4, Q.shape), 1)  # not symmetric, with other values
    symmetric = (skewed + skewed.T) / 2
    lowest = np.linalg.eigvalsh(symmetric)[0]
    assert convex(units[:, None] * Q * units)
    assert convex(-units[:, None] * Q * units, "max")
    if abs(lowest) > 1e-6:
        assert convex(units[:, None] * skewed * units) == (lowest > 0)
    if Q.any():
        assert not convex(units[:, None] * Q * units, "max")


@pytest.mark.parametrize("way", ["_has_cholesky_factor", "_finds_no_negative_curvature"])
def test_large_sparse_matrices(way, monkeypatch):
    rng = np.random.default_rng(2)
    n = 3000
    if way == "_has_cholesky_factor":  # a narrow band, once the columns are in order
        D = sp.diags_array([1.0, -2.0, 1.0], offsets=[0, 1, 2], shape=(n - 2, n))
        squares, slack = shuffled(D.T @ D, rng), 1e-4
    else:
        monkeypatch.setattr(convexity, "_LARGEST_BAND", 0)
        F = sp.random_array((n // 2, n), density=0.004, rng=rng)
        squares, slack = (F.T @ F).tocsr() + 1e-3 * sp.eye_array(n), 5e-3
    taken = []
    original = getattr(convexity, way)
    monkeypatch.setattr(convexity, way, lambda *a: taken.append(way) or original(*a))
    assert convex(squares)
    assert not convex(squares - slack * sp.eye_array(n))
    assert not convex(squares, "max")
    assert taken


def test_an_early_end_of_the_search_is_an_answer():
    n = 40
    ones = np.ones((n, n))  # two distinct eigenvalues: two steps tell all
    search = convexity._finds_no_negative_curvature
    assert search(sp.csr_array(np.eye(n) + ones)) and search(sp.csr_array(ones))
    assert not search(sp.csr_array(ones - 0.01 * np.eye(n)))


def test_loading_does_not_settle_it_but_solving_does():
    pytest.importorskip("pyscipopt")
    with tv.Model() as m:
        m.setOption("log", False)
        x = m.addMVar(2, lb=-1, ub=2)
        m.setObjective(x[0] * x[1])
        m.load()
        assert type(engine_of(m)).__name__ == "ClarabelEngine"
        m.optimize()
        assert type(engine_of(m)).__name__ == "ScipEngine"
        assert m.Objective == pytest.approx(-2)
        m.load()  # what is known is used
        assert type(engine_of(m)).__name__ == "ScipEngine"
    with tv.Model(engine="highs") as m:
        x = m.addMVar(2, lb=-1, ub=2)
        m.setObjective(x[0] * x[1])
        m.load()
        with pytest.raises(TaviroError, match="not convex") as caught:
            m.optimize()
        assert caught.value.args[0] == TVO.Error.NOT_SUPPORTED


def test_malformed_matrices_of_products_are_refused():
    with tv.Model() as m:
        x = m.addMVar(3)
        for spoil in ("row[0] = 7", "col[0] = -1", "data = Q.data[:2]"):
            expr = x @ np.eye(3) @ x
            exec(f"Q.{spoil}", {"Q": expr._quadparts[0][1]})
            with pytest.raises(ValueError, match="malformed"):
                m.setObjective(expr)
        with pytest.raises(TaviroError, match="coefficient nan of variable 'C1'"):
            m.setObjective(x @ np.diag([1.0, np.nan, 1.0]) @ x)
        assert view_of(m).quadratic_objective is None
