"""Rays and certificates: checked by arithmetic, whichever engine said that there is no optimum."""

import numpy as np
import pytest
from scipy.optimize import minimize

import taviropy as tv
from taviropy import TaviroError

INF = np.inf


def new(engine="auto"):
    model = tv.Model(engine=engine)
    model.setOption("log", False)
    return model


def assert_is_ray(m, x):
    """The objective improves along it, and no row or bound ends it."""
    (matrix, senses, _), ray = m.getCoefficients(), x.Ray.reshape(-1)
    change = matrix @ ray
    assert m.ObjSense * (x.Obj.reshape(-1) @ ray) < 0 and abs(ray).max() == 1
    assert (change[senses != ">"] <= 1e-9).all() and (change[senses != "<"] >= -1e-9).all()
    assert (ray[np.isfinite(x.LB.reshape(-1))] >= 0).all()
    assert (ray[np.isfinite(x.UB.reshape(-1))] <= 0).all()


def assert_is_certificate(m, x, c):
    """No point between the bounds comes up to what the sum of the rows needs."""
    (matrix, senses, rhs), y = m.getCoefficients(), c.Certificate.reshape(-1)
    assert (y[senses == "<"] <= 0).all() and (y[senses == ">"] >= 0).all()
    weights = y @ matrix
    weights[abs(weights) < 1e-9] = 0.0
    used = weights != 0.0
    ends = np.where(weights > 0.0, x.UB.reshape(-1), x.LB.reshape(-1))
    assert weights[used] @ ends[used] < y @ rhs and abs(y).max() == 1


@pytest.mark.parametrize("engine", ["auto", "highs", "clarabel", "scip"])
def test_each_engines_claims_come_with_their_proof(engine):
    m = new(engine)
    x = m.addMVar((2, 2), lb=[[-INF, 0], [0, 0]], ub=[[INF, INF], [INF, 7]], obj=[[0, -1], [-1, 5]])
    c = m.addConstr(np.array([[1.0, -1], [1, 3]]) @ x <= [[4, 2], [2, 9]])
    e = m.addConstr(x[0, 0] + x[1, 1] == 3)
    m.optimize()
    assert m.Status == "OPTIMAL"
    for read in (lambda: x.Ray, lambda: c.Certificate):
        with pytest.raises(TaviroError, match="only a model that was solved and is"):
            read()
    m.remove([c, e])
    m.optimize()
    assert_is_ray(m, x)
    m.setObjective(x.sum(), "max")
    m.optimize()
    assert_is_ray(m, x)
    m.addConstr(x.sum(axis=0) <= [5, 5])
    m.addConstr(x[0] - x[1] >= 1)
    m.addConstr(x.sum() >= 11)
    m.optimize()
    assert m.Status == "INFEASIBLE"
    assert_is_certificate(m, x, m.getConstrs())


@pytest.mark.parametrize("seed", range(24))
def test_proofs_of_random_models(seed):
    rng = np.random.default_rng(seed)
    m, n, k = new(), int(rng.integers(2, 9)), int(rng.integers(1, 9))
    lower = np.where(rng.random(n) < 0.3, -INF, rng.integers(-3, 3, n))
    x = m.addMVar(n, lb=lower, ub=np.where(rng.random(n) < 0.6, INF, 4))
    x_type = "I" if seed % 4 == 0 else "C"
    units = 10.0 ** rng.integers(-3, 4, k)  # rows on scales that differ
    rows = units[:, None] * rng.integers(-3, 4, (k, n))
    c = m.addConstr(rows @ x <= units * rng.integers(-9, 8, k))
    c.Sense, x.VType = m.update() or rng.choice(list("<>="), k, p=[0.4, 0.4, 0.2]), x_type
    m.setObjective(rng.integers(-4, 5, n) @ x, rng.choice(["min", "max"]))
    m.optimize()
    if m.Status == "UNBOUNDED":
        assert_is_ray(m, x)
    elif m.Status == "INFEASIBLE" and x_type == "C":
        assert_is_certificate(m, x, c)
    else:
        assert m.Status == "OPTIMAL" or x_type == "I"


@pytest.mark.parametrize("engine", ["auto", "scip"])
@pytest.mark.parametrize("seed", range(12))
def test_certificates_of_convex_quadratic_rows(engine, seed):
    """The sum of the rows, so multiplied, is concave and below zero wherever the bounds let it."""
    rng = np.random.default_rng(seed)
    m, n = new(engine), 4
    x = m.addMVar(n, lb=-INF if seed % 2 else -5, ub=INF if seed % 3 else 5)
    centre, F = 3 * rng.normal(size=n), rng.normal(size=(n, n))
    Q = F @ F.T + np.eye(n)
    far = m.addConstr((x - centre) @ Q @ (x - centre) <= 1)
    ball = m.addConstr(-(x @ x) + x[0] >= -3)
    A, rhs = rng.normal(size=(3, n)), np.array([9.0, 2.0, 2.0])
    c = m.addConstr(A[:1] @ x >= rhs[:1])
    d = m.addConstr(A[1:] @ x <= rhs[1:])
    m.optimize()
    if m.Status != "INFEASIBLE":
        return
    y = np.append(c.Certificate, d.Certificate)
    z = [float(np.ravel(q.QCertificate)[0]) for q in (far, ball)]
    assert y[0] >= 0 and (y[1:] <= 0).all() and z[0] <= 0 <= z[1]

    def total(v):
        rows = y @ (A @ v - rhs) + z[0] * ((v - centre) @ Q @ (v - centre) - 1)
        return rows + z[1] * (-v @ v + v[0] + 3)

    bounds = list(zip(x.LB, x.UB, strict=True))
    for start in (np.zeros(n), centre):
        found = minimize(lambda v: -total(v), start, bounds=bounds, method="L-BFGS-B")
        assert total(found.x) < 0


def test_quadratic_parts_and_other_constraints_bound_rays():
    m = new()
    x = m.addMVar(3, lb=-INF)
    m.addConstr((x[0] - x[1]) ** 2 + x[0] <= 4)  # free along (-1, -1)
    m.setObjective((x[2] - x[1]) ** 2 + x[0] - 3)
    m.optimize()
    np.testing.assert_allclose(x.Ray, [-1, -1, -1])
    m.addGenConstrNL(m.addVar(ub=1), tv.exp(x[2].item()))
    m.optimize()
    if m.Status in ("UNBOUNDED", "INFEASIBLE_OR_UNBOUNDED"):
        with pytest.raises(TaviroError, match="no direction was found"):
            _ = x.Ray


def test_what_linear_rows_cannot_prove_is_said():
    m = new()
    x = m.addMVar(2, vtype="B")
    c = m.addConstr(2 * x.sum() == 1)
    m.optimize()
    with pytest.raises(TaviroError, match="without integrality.*conflict"):
        _ = c.Certificate
    c.RHS = 5
    m.optimize()
    assert_is_certificate(m, x, c)
    x.LB, x.UB = 1, 0
    m.optimize()
    with pytest.raises(TaviroError, match="between the bounds of the variable 'C0'"):
        _ = c.Certificate
