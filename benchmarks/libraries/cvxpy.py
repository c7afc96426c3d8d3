"""cvxpy, to the arrays that it hands to a solver."""

import cvxpy as cp


def _data(objective, constraints, solver):
    return cp.Problem(cp.Minimize(objective), constraints).get_problem_data(solver)


def w1(d):
    x = cp.Variable(d.n, nonneg=True)
    return _data(d.c @ x, [d.A @ x + d.b <= d.r], cp.HIGHS)


w2 = w1


def w3(d):
    x = cp.Variable(d.n, nonneg=True)
    rows = zip(d.idx, d.a, d.r, strict=True)
    return _data(0, [a @ x[idx] <= r for idx, a, r in rows], cp.HIGHS)


def w4(d):
    X = cp.Variable((d.k, d.k), nonneg=True)
    rows = [d.A @ X <= d.B, cp.sum(X, axis=0) == 1, cp.sum(X, axis=1) <= d.s]
    return _data(0, rows, cp.HIGHS)


def w5(d):
    x = cp.Variable(d.n, nonneg=True)
    return _data(cp.quad_form(x, d.Q, assume_PSD=True) + d.c @ x, [], cp.OSQP)


w5_dense = w5
