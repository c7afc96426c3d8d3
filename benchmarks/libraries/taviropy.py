"""taviropy itself."""

import taviropy as tv


def _loaded(m):
    m.load()
    return m


def w1(d):
    m = tv.Model()
    x = m.addMVar(d.n)
    m.setObjective(d.c @ x)
    m.addConstr(d.A @ x + d.b <= d.r)
    return _loaded(m)


w2 = w1


def w3(d):
    m = tv.Model()
    x = m.addMVar(d.n)
    for idx, a, r in zip(d.idx, d.a, d.r, strict=True):
        m.addConstr(a @ x[idx] <= r)
    return _loaded(m)


def w4(d):
    m = tv.Model()
    X = m.addMVar((d.k, d.k))
    m.addConstr(d.A @ X <= d.B)
    m.addConstr(X.sum(axis=0) == 1)
    m.addConstr(X.sum(axis=1) <= d.s)
    return _loaded(m)


def w5(d):
    m = tv.Model()
    x = m.addMVar(d.n)
    m.setObjective(x @ d.Q @ x + d.c @ x)
    return _loaded(m)


w5_dense = w5


def w6(d):
    m = tv.Model()
    x, y = m.addMVar(d.n), m.addMVar(d.n)
    return x**3 / (1 + y)
