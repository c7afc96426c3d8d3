"""By how much what is infeasible must give."""

import numpy as np
import pytest

import taviropy as tv


@pytest.mark.parametrize("seed", range(8))
def test_what_gives_makes_the_model_feasible_and_less_does_not(m, seed):
    rng = np.random.default_rng(seed)
    A, b = rng.integers(-3, 4, (8, 5)).astype(float), rng.integers(-20, 5, 8).astype(float)
    x = m.addMVar(5, ub=4, vtype="I" if seed % 2 else "C", name="x")
    less = m.addConstr(A[:6] @ x <= b[:6])
    more, equal = m.addConstr(A[6] @ x >= b[6] + 25), m.addConstr(A[7] @ x == b[7] - 0.5)
    weights = rng.integers(1, 4, 8).astype(float)
    r = m.relax(None, weights, bounds=x, bound_weights=2.0)
    assert r.is_optimal and r.total == pytest.approx(
        weights @ r.constrs + 2 * (r.lower + r.upper).sum(), abs=1e-5
    )
    assert m.NumVars == 5 and m.NumConstrs == 8
    m.optimize()
    assert (m.Status == "OPTIMAL") == (r.total < 1e-7)
    x.LB, x.UB = -r.lower - 1e-7, 4 + r.upper + 1e-7
    less.RHS = b[:6] + r.constrs[:6] + 1e-7
    more.RHS = b[6] + 25 - r.constrs[6] - 1e-7
    m.remove(equal)
    m.addConstr(A[7] @ x <= b[7] - 0.5 + r.constrs[7] + 1e-7)
    m.addConstr(A[7] @ x >= b[7] - 0.5 - r.constrs[7] - 1e-7)
    m.optimize()
    assert m.Status == "OPTIMAL"
    again = m.relax(less, bounds=False)
    assert again.total == pytest.approx(0, abs=1e-5)


def test_text_and_chosen_constraints(m):
    x = m.addMVar(2, ub=1, name="x")
    a = m.addConstr(x.sum() >= 3, name="a")
    ball = m.addConstr(x @ x <= 1, name="ball")
    m.addConstr(x[:1] >= 0.5, name="b")
    r = m.relax(tv.MConstr(np.array([a.item()], "O")) if a.shape else None)
    assert r.constrs[0] == pytest.approx(3 - np.sqrt(2), abs=1e-5)
    assert "a by 1.585" in str(r) and r.lower is None
    m.remove(ball)
    assert "the UB of x" in str(m.relax(a, bounds=True, weights=5.0))
    a.RHS = 2
    assert str(m.relax()) == "Nothing has to give: the model is feasible"


def test_what_is_refused(m):
    x = m.addMVar(2, ub=1)
    c, d = m.addConstr(x <= -1), m.addConstr(x >= 0.5)
    with pytest.raises(tv.TaviroError, match="what may not give"):
        m.relax(d)
    for bad in (0.0, -1.0, np.inf, np.nan):
        with pytest.raises(tv.TaviroError, match="positive"):
            m.relax(c, weights=bad)
    with pytest.raises(ValueError, match="shape"):
        m.relax(c, weights=np.ones(3))
    with pytest.raises(TypeError, match="MConstr, not MVar"):
        m.relax(x)
