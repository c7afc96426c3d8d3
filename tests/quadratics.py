"""Values of matrix expressions at a point, taken from their terms."""

import linear
import numpy as np
import trees

import taviropy as tv


def terms(qe):
    """The quadratic terms of a QuadExpr, in stored order."""
    return list(zip(qe.coeffs, qe.vars1, qe.vars2, strict=True))


def _value(qe, at):
    constant, linear_terms = linear.terms(qe.linear)
    return (
        constant
        + sum(c * at[v] for c, v in linear_terms)
        + sum(c * at[u] * at[v] for c, u, v in terms(qe))
    )


def value_of(expr, at):
    """The values of the elements of a matrix expression, in its shape; its form stays."""
    if isinstance(expr, tv.MNLExpr):
        return trees.values_of(expr, at)
    if isinstance(expr, tv.MLinExpr):
        return linear.values(expr, at)
    full = expr._to_full() if expr._is_compact else expr
    values = np.array([_value(qe, at) for qe in full._qearr.flat], dtype=float)
    return values.reshape(expr.shape) + linear.values(full._ndle, at)
