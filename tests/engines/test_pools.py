"""The points that an engine kept beside the best one."""

import copy
import pickle

import numpy as np
import pytest

import taviropy as tv


def knapsack(engine, sense):
    """A model with several rows, on the way to whose optimum engines find other points."""
    rng = np.random.default_rng(3)
    m = tv.Model(engine=engine)
    m.setOption("log", False)
    x = m.addMVar((4, 10), vtype="B")
    slack = m.addMVar(5, lb=1, ub=50, vtype="S")  # for which HiGHS has columns of its own
    weights = rng.integers(100, 1000, (5, 40)).astype(float)
    c = m.addConstr(weights @ x.reshape(-1) + slack <= 7000)
    sign = 1.0 if sense == "max" else -1.0
    m.setObjective(sign * (rng.integers(100, 1000, 40) @ x.reshape(-1) + 0.1 * slack.sum()), sense)
    return m, x, slack, c, weights


@pytest.mark.parametrize("sense", ["min", "max"])
@pytest.mark.parametrize("engine", ["highs", "scip"])
def test_all_points_of_a_pool_hold_and_the_best_comes_first(engine, sense):
    m, x, slack, c, weights = knapsack(engine, sense)
    m.setOption("threads", 1)
    m.optimize()
    m.load()  # the pool isn't the loaded model's
    count, pool, rest = m.NumSolutions, x.Pool, slack.Pool
    assert count >= 2 and pool.shape == (count, 4, 10) and x[0, 0].item().Pool.shape == (count,)
    np.testing.assert_array_equal(pool[0], x.X)
    flat = pool.reshape(count, -1)
    assert (abs(flat - np.round(flat)) < 1e-5).all()
    assert (weights @ flat.T <= c.RHS[:, None] + 1e-3).all()
    values = flat @ x.Obj.reshape(-1) + rest @ slack.Obj
    assert (np.diff(values * m.ObjSense) >= -1e-6).all()
    assert values[0] == pytest.approx(m.Objective) and len(np.unique(flat.round(), axis=0)) > 1
    np.testing.assert_array_equal(copy.copy(m).getVars().Pool[:, :40], flat)
    twin = pickle.loads(pickle.dumps(m))  # which holds the best point only
    assert twin.NumSolutions == 1 and (twin.getVars().Pool[0, :40] == flat[0]).all()
    m.remove(x[0])
    m.update()
    np.testing.assert_array_equal(x[1:].Pool, pool[:, 1:])


def test_models_without_integers_have_one_point_or_none():
    m = tv.Model()
    m.setOption("log", False)
    x = m.addMVar(2, ub=3, obj=-1.0)
    c = m.addConstr(x.sum() <= 4)
    assert m.NumSolutions == 0
    m.optimize()
    assert m.NumSolutions == 1 and x.Pool.tolist() == [x.X.tolist()]
    c.RHS = -1
    m.optimize()
    assert m.NumSolutions == 0
    with pytest.raises(tv.TaviroError, match="no 'Pool': the model is infeasible"):
        _ = x.Pool
