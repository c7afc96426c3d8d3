"""What a solve took: attributes of the model that every engine fills."""

import numpy as np
import pytest

import taviropy as tv


@pytest.mark.parametrize("engine", ["highs", "scip", "clarabel"])
def test_statistics_of_a_solve(engine):
    m = tv.Model("m", engine=engine)
    m.setOption("log", False)
    assert (m.Nodes, m.Iterations) == (0, 0)
    with pytest.raises(tv.TaviroError, match="'Gap': the model has not been solved"):
        _ = m.Gap
    rng = np.random.default_rng(3)
    x = m.addMVar(30, ub=3)
    m.addConstr(rng.random((20, 30)) @ x <= 10)
    m.setObjective(rng.random(30) @ x, "max")
    m.optimize()
    assert m.Iterations > 0 and m.Gap == pytest.approx(0, abs=1e-9)
    if engine == "clarabel":
        return
    x.VType = "I"
    m.setOption("gap", 0.2)
    m.optimize()
    assert m.Nodes > 0
    assert m.Gap == pytest.approx((m.Bound - m.Objective) / m.Objective, abs=1e-9) and m.Gap <= 0.2
    x.LB = 3.5
    m.optimize()
    with pytest.raises(tv.TaviroError, match="'Gap': the model is infeasible"):
        _ = m.Gap
