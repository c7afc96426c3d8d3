"""Linear matrix expressions as plain data and as numbers, for tests."""

import contextlib

import numpy as np

import taviropy as tv


def terms(element):
    """The constant of a LinExpr, and its terms as pairs in stored order."""
    return element.constant, list(zip(element.coeffs, element.vars, strict=True))


def elements(expr):
    """The LinExpr objects of an expression, in C order; its form stays."""
    full = expr._to_full() if expr._is_compact else expr
    return list(full._learr.flat)


def content(expr):
    """Shape and terms: what must not change where an operation leaves an expression alone."""
    return expr.shape, [terms(le) for le in elements(expr)]


def block(model, shape, seed=7):
    """Variables, and a value for each: as a dictionary and as an array."""
    x = model.addMVar(shape)
    values = np.random.default_rng(seed).uniform(0.5, 2.0, x.shape)
    return x, dict(zip(x._vararr.flat, values.flat, strict=True)), values


def values(expr, at):
    """The values of the elements at a point, taken from their terms."""
    found = [le.constant + sum(c * at[v] for c, v in zip(le.coeffs, le.vars, strict=True))
             for le in elements(expr)]  # fmt: skip
    return np.array(found, dtype=float).reshape(expr.shape)


def own_lists(expr):
    """Whether no two elements of a full expression share an object or a list."""
    found = list(expr._learr.flat)
    parts = [found, [le.coeffs for le in found], [le.vars for le in found]]
    return all(len({id(part) for part in kind}) == len(kind) for kind in parts)


@contextlib.contextmanager
def keeping_compact(flag):
    """The compact form allowed (1) or not (0), for tests that hypothesis drives."""
    before = tv.MLinExpr._keep_compact
    tv.MLinExpr._keep_compact = flag
    try:
        yield
    finally:
        tv.MLinExpr._keep_compact = before
