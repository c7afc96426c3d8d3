"""PySCIPOpt: its matrix variables for dense data, its scalar expressions where they are quicker."""

import pyscipopt as ps
from pyscipopt import quicksum


def _model():
    m = ps.Model()
    m.hideOutput()
    return m


def _rows(m, x, A, rhs):
    start = A.indptr
    for i in range(A.shape[0]):
        entries = range(start[i], start[i + 1])
        m.addCons(quicksum(A.data[k] * x[A.indices[k]] for k in entries) <= rhs[i])


def w1(d):
    m = _model()
    x = [m.addVar(lb=0) for _ in range(d.n)]
    m.setObjective(quicksum(c * v for c, v in zip(d.c, x, strict=True)))
    _rows(m, x, d.A, d.r - d.b)
    return m


def w2(d):
    m = _model()
    x = [m.addVar(lb=0) for _ in range(d.n)]
    m.setObjective(quicksum(c * v for c, v in zip(d.c, x, strict=True)))
    for row, rhs in zip(d.A, d.r - d.b, strict=True):
        m.addCons(quicksum(a * v for a, v in zip(row, x, strict=True)) <= rhs)
    return m


def w3(d):
    m = _model()
    x = [m.addVar(lb=0) for _ in range(d.n)]
    for idx, a, r in zip(d.idx.tolist(), d.a.tolist(), d.r.tolist(), strict=True):
        m.addCons(quicksum(c * x[i] for c, i in zip(a, idx, strict=True)) <= r)
    return m


def w4(d):
    m = _model()
    X = [[m.addVar(lb=0) for _ in range(d.k)] for _ in range(d.k)]
    for j in range(d.k):
        _rows(m, [X[i][j] for i in range(d.k)], d.A, d.B[:, j])
        m.addCons(quicksum(X[i][j] for i in range(d.k)) == 1)
    for i in range(d.k):
        m.addCons(quicksum(X[i]) <= d.s[i])
    return m
