"""CasADi's scalar graphs (SX)."""

import casadi


def w6(d):
    x, y = casadi.SX.sym("x", d.n), casadi.SX.sym("y", d.n)
    return x**3 / (1 + y)
