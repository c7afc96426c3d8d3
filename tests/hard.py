"""A model that keeps any solver busy."""

import numpy as np

import taviropy as tv


def market_split(engine="auto", columns=80):
    """A market split that prints nothing, and its binary variables: out of reach for hours."""
    rng = np.random.default_rng(5)
    model = tv.Model(engine=engine)
    model.setOption("log", False)
    x = model.addMVar(columns, vtype="B")
    slack = model.addMVar((2, 8), obj=1)
    A = rng.integers(0, 100, (8, columns)).astype(float)
    model.addConstr(A @ x + slack[0] - slack[1] == A.sum(1) // 2)
    return model, x
