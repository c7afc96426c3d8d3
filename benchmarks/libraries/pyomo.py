"""Pyomo's expression trees."""

import pyomo.environ as pyo


def w6(d):
    m = pyo.ConcreteModel()
    m.x, m.y = pyo.Var(range(d.n)), pyo.Var(range(d.n))
    return m, [m.x[i] ** 3 / (1 + m.y[i]) for i in range(d.n)]
