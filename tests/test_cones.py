"""Convex quadratic constraints as cones: which are, their factors, answers and dual values."""

import numpy as np
import pytest
import scipy.sparse as sp
from hypothesis import given, settings
from hypothesis import strategies as st
from inside import view_of

import taviropy as tv
from taviropy import TaviroError
from taviropy.data.quadratic import QuadraticTerms
from taviropy.engines import factor as factors
from taviropy.engines.cones import cones_of
from taviropy.engines.factor import NotConvex, factor

STATUS = tv.TVO.Status


def terms_of(Q):
    """Terms of x' Q x, each pair once."""
    upper = sp.coo_array(np.triu(Q) + np.triu(Q.T, 1))
    return QuadraticTerms(*(c.astype(np.int32) for c in upper.coords), upper.data)


def square(found, size):
    F = sp.coo_array((found.data, (found.rows, found.columns)), shape=(found.rank, size)).toarray()
    return F.T @ F


@settings(deadline=None)
@given(st.integers(0, 2**32 - 1), st.integers(1, 7), st.integers(0, 7), st.booleans())
def test_a_factor_is_found_where_there_is_one(seed, size, rank, dense):
    rng = np.random.default_rng(seed)
    F = rng.normal(size=(rank, size)) * (rng.random((rank, size)) < 0.5)
    units = 10.0 ** rng.integers(-4, 5, size)
    Q = (F * units).T @ (F * units)
    factors_dense, factors._DENSE = factors._DENSE, 3000 if dense else 1
    try:
        found = factor(terms_of(Q))
        scale = np.sqrt(np.outer(Q.diagonal(), Q.diagonal()))
        assert (abs(square(found, size) - Q) <= 1e-6 * scale).all()
        if dense:
            assert found.rank <= max(rank, 1) or found.rank == np.linalg.matrix_rank(F)
        # less than positive semidefinite by far more than the tolerance
        low = Q - 1e-4 * np.diag(Q.diagonal())
        if (Q.diagonal() > 0).all() and np.linalg.eigvalsh(low / scale)[0] < -1e-5:
            with pytest.raises(NotConvex):
                factor(terms_of(low))
    finally:
        factors._DENSE = factors_dense


def test_large_sparse_factors():
    n = 6000
    D = sp.diags_array([1.0, -2.0, 1.0], offsets=[0, 1, 2], shape=(n - 2, n))
    Q = (D.T @ D + 1e-5 * sp.eye_array(n)).tocoo()
    upper = sp.triu(Q).tocoo()
    double = np.where(upper.coords[0] == upper.coords[1], 1.0, 2.0)
    found = factor(QuadraticTerms(*upper.coords, double * upper.data))
    F = sp.coo_array((found.data, (found.rows, found.columns)), shape=(found.rank, n)).tocsr()
    assert abs(F.T @ F - Q).max() < 1e-5
    shifted = double * upper.data - np.where(double == 1.0, 1e-4, 0.0)
    with pytest.raises(NotConvex, match="negative curvature"):
        factor(QuadraticTerms(*upper.coords, shifted))


def quadratic_model(engine="clarabel"):
    m = tv.Model(engine=engine)
    m.setOption("log", False)
    return m


# What is a cone; (constraint on x of 3 and y, z >= 0; the maximum of x.sum()) or a reason why not


def forms(x, y, z):
    Q = np.array([[2.0, 1, 0], [1, 2, 0], [0, 0, 1]])
    return {
        "ball": (x @ x <= 3, 3.0),
        "ellipsoid": (x @ Q @ x <= 2, np.sqrt(2 * np.ones(3) @ np.linalg.inv(Q) @ np.ones(3))),
        "shifted": (x @ x + 2 * x[0] + 1 <= 3, 2.0),
        "by >=": (-(x @ x) >= -3, 3.0),
        "Lorentz": (x @ x <= y * y, 2 * 3**0.5),
        "Lorentz with a constant": (x @ x + 1 <= 4 * y * y, 45**0.5),
        "rotated": (x @ x <= y * z, 6**0.5),
        "rotated with a weight": (x @ x + 0.5 <= 3 * (z * y), 16.5**0.5),
        "a parabola": (x @ x <= y, 6**0.5),
        "linear after all": (x @ np.zeros((3, 3)) @ x + x.sum() <= 2, 2.0),
        "an equation": (x @ x == 3, "is an equation"),
        "a saddle": (x[0] * x[1] <= 3, "without its square"),
        "outside": (x @ x >= 3, "neither convex nor a cone"),
        "heavy": (x @ x + 3 * x[0] * x[1] <= 3, "outweighs"),
        "indefinite": (x @ (np.eye(3) - 0.6) @ x * 1.0 <= 3, "neither|negative|outweighs"),
        "Lorentz of a free y": (x[1:] @ x[1:] <= x[0] * x[0], "neither convex nor a cone"),
        "Lorentz with a slope": (x @ x + x[0] <= y * y, "negative square"),
        "beyond Lorentz": (x @ x - 1 <= y * y, "negative square"),
    }


FORMS = forms(*(tv.Model().addMVar(n) for n in (3, (), ())))


@pytest.mark.parametrize("name", FORMS)
def test_forms(name):
    with quadratic_model() as m:
        x = m.addMVar(3, lb=-9, ub=9)
        y, z = m.addMVar(1, ub=2), m.addMVar(1, ub=1)
        constr, expected = forms(x, y[0], z[0])[name]
        c = m.addConstr(constr, name="form")
        m.setObjective(x.sum(), "max")
        if isinstance(expected, str):
            with pytest.raises(TaviroError, match=f"'form'.*({expected})"):
                m.optimize()
            return
        m.optimize()
        assert m.Status == "OPTIMAL" and m.Engine == "clarabel" and m.check()
        assert m.Objective == pytest.approx(expected, abs=1e-5)
        # the dual value is the slope of the optimum
        step = 1e-3
        found = []
        for rhs in (c.QRHS + step, c.QRHS - step):
            c.QRHS = rhs
            with quadratic_model("scip") as n:
                n.setOption("gap", 1e-9)
                x2 = n.addMVar(3, lb=-9, ub=9)
                y2, z2 = n.addMVar(1, ub=2), n.addMVar(1, ub=1)
                d = n.addConstr(forms(x2, y2[0], z2[0])[name][0])
                n.update()
                d.QRHS = float(np.ravel(rhs)[0])
                n.setObjective(x2.sum(), "max")
                n.optimize()
                found.append(n.Objective)
        slope = (found[0] - found[1]) / (2 * step)
        m.addMVar(1)  # so that what was solved stays readable, though the model changed
        assert float(np.ravel(c.QDual)[0]) == pytest.approx(slope, abs=2e-2)


def test_constraints_keep_their_cones_until_they_change():
    with quadratic_model() as m:
        x = m.addMVar(3)
        c = m.addConstr(x @ x <= 1)
        first = cones_of(view_of(m))
        assert cones_of(view_of(m)) is first
        c.QRHS = 2
        assert cones_of(view_of(m)) is not first
        m.remove(c)
        assert cones_of(view_of(m)) == []


# Statuses


@pytest.mark.parametrize("quadratic", [False, True])
def test_statuses(quadratic):
    for rows, cost, status in [
        (("x[0] >= 3", "x[0] <= 2"), 0, STATUS.INFEASIBLE),
        (("x @ x <= 1", "x[0] >= 2"), 1, STATUS.INFEASIBLE),
        (("x[0] + x[1] >= 1",), 1, STATUS.OPTIMAL),
        (("x[0] - x[1] <= 1",), -1, STATUS.UNBOUNDED),
        (("x[0] - x[1] <= 1", "x[2] >= 3", "x[2] <= 2"), -1, STATUS.INFEASIBLE),
    ]:
        with quadratic_model() as m:
            x = m.addMVar(3)
            for row in rows:
                m.addConstr(eval(row))
            m.setObjective(cost * (x[0] + x[1]) + (x[2] * x[2] if quadratic else 0))
            m.optimize()
            assert m.Status == status


def test_limits_and_callbacks_end_a_solve(monkeypatch, capsys):
    with quadratic_model() as m:
        x = m.addMVar(200, lb=-1)
        F = np.random.default_rng(0).normal(size=(100, 200))
        m.addConstr(x @ (F.T @ F + np.eye(200)) @ x <= 1)
        m.setObjective(x.sum(), "max")
        m.setOption("timeLimit", 0.0)
        m.optimize()
        assert m.Status == STATUS.TIME_LIMIT
        m.setOption("timeLimit", 60)
        m.setOption("log", True)
        m.optimize()
        assert m.Status == STATUS.OPTIMAL
        text = capsys.readouterr().out
        assert "Clarabel" in text and text.count("e+") > 10
        m.setOption("max_iter", 2)
        m.optimize()
        assert m.Status == STATUS.FAILED
