"""Nonlinear functions: exp, log, sqrt, sin, cos, tan, abs.

Each takes a number or an array, or an expression of the package in either of two kinds:

- a `Var`, `LinExpr`, `QuadExpr` or `NLExpr` gives an `NLExpr`,
- an `MVar`, `MLinExpr`, `MQuadExpr` or `MNLExpr` gives an `MNLExpr` of the same shape.

The result is a tree with a node of the function's name above the tree of the argument, which it
shares; nothing is evaluated, so a domain (of `log`, of `sqrt`) is the solver's concern. A number or
an ndarray gives what NumPy's function of that name gives. Anything else is a TypeError.
"""

from __future__ import annotations

from functools import partial

from ._core import LinExpr, NLExpr, QuadExpr, Var, _ExprTree
from ._matrixapi import MLinExpr, MNLExpr, MQuadExpr, MVar
from ._util import _isscalar

__all__ = ["abs", "cos", "exp", "log", "sin", "sqrt", "tan"]


def _apply(name, x):
    """The function of that name on any of the arguments that this module's docstring lists."""
    if isinstance(x, (Var, LinExpr, QuadExpr, NLExpr)):
        return NLExpr(_ExprTree._from_function(name, NLExpr._coerce_to_exprtree(x)))

    import numpy as np

    if _isscalar(x) or isinstance(x, np.ndarray):
        return getattr(np, name)(x)

    expression = _as_mnlexpr(x)
    if expression is None:
        raise TypeError(
            f"taviropy.{name} does not take a {type(x).__name__}; it takes numbers, ndarrays, Var, "
            "LinExpr, QuadExpr, NLExpr, MVar, MLinExpr, MQuadExpr and MNLExpr"
        )
    return expression._dispatch_unary_op(partial(_ExprTree._from_function, name))


def _as_mnlexpr(x):
    """An object of a matrix class as an MNLExpr, None for anything else."""
    if isinstance(x, MNLExpr):
        return x
    if isinstance(x, MVar):
        return MNLExpr._from_mvar(x)
    if isinstance(x, MLinExpr):
        return MNLExpr._from_mlinexpr(x)
    if isinstance(x, MQuadExpr):
        return MNLExpr._from_mquadexpr(x)
    return None


def exp(x):
    """ROUTINE:
      exp(x)

    PURPOSE:
      The exponential function, element by element.

    ARGUMENTS:
      x: a number, an ndarray, or a scalar or matrix expression.

    RETURN VALUE:
      NLExpr of a scalar expression, MNLExpr of the same shape of a matrix expression, NumPy's value
      of a number or ndarray.

    EXAMPLE:
      x = model.addMVar(3)
      model.addConstr(y == exp(-x))

    NOTES:
      Raises TypeError for an argument of another type.
    """
    return _apply("exp", x)


def log(x):
    """ROUTINE:
      log(x)

    PURPOSE:
      The natural logarithm, element by element.

    ARGUMENTS:
      x: a number, an ndarray, or a scalar or matrix expression.

    RETURN VALUE:
      NLExpr of a scalar expression, MNLExpr of the same shape of a matrix expression, NumPy's value
      of a number or ndarray.

    EXAMPLE:
      x = model.addMVar(3, lb=0.1)
      model.addConstr(y == log(x))

    NOTES:
      Raises TypeError for an argument of another type. The argument has to be positive where the
      model is feasible.
    """
    return _apply("log", x)


def sqrt(x):
    """ROUTINE:
      sqrt(x)

    PURPOSE:
      The square root, element by element.

    ARGUMENTS:
      x: a number, an ndarray, or a scalar or matrix expression.

    RETURN VALUE:
      NLExpr of a scalar expression, MNLExpr of the same shape of a matrix expression, NumPy's value
      of a number or ndarray.

    EXAMPLE:
      x = model.addMVar(3)
      model.addConstr(y == sqrt(1 + x * x))

    NOTES:
      Raises TypeError for an argument of another type. The argument has to be at least 0 where the
      model is feasible.
    """
    return _apply("sqrt", x)


def sin(x):
    """ROUTINE:
      sin(x)

    PURPOSE:
      The sine of an angle in radians, element by element.

    ARGUMENTS:
      x: a number, an ndarray, or a scalar or matrix expression.

    RETURN VALUE:
      NLExpr of a scalar expression, MNLExpr of the same shape of a matrix expression, NumPy's value
      of a number or ndarray.

    EXAMPLE:
      x = model.addMVar(3)
      model.addConstr(y == sin(2 * x))

    NOTES:
      Raises TypeError for an argument of another type.
    """
    return _apply("sin", x)


def cos(x):
    """ROUTINE:
      cos(x)

    PURPOSE:
      The cosine of an angle in radians, element by element.

    ARGUMENTS:
      x: a number, an ndarray, or a scalar or matrix expression.

    RETURN VALUE:
      NLExpr of a scalar expression, MNLExpr of the same shape of a matrix expression, NumPy's value
      of a number or ndarray.

    EXAMPLE:
      x = model.addMVar(3)
      model.addConstr(y == cos(2 * x))

    NOTES:
      Raises TypeError for an argument of another type.
    """
    return _apply("cos", x)


def tan(x):
    """ROUTINE:
      tan(x)

    PURPOSE:
      The tangent of an angle in radians, element by element.

    ARGUMENTS:
      x: a number, an ndarray, or a scalar or matrix expression.

    RETURN VALUE:
      NLExpr of a scalar expression, MNLExpr of the same shape of a matrix expression, NumPy's value
      of a number or ndarray.

    EXAMPLE:
      x = model.addMVar(3, ub=1.5)
      model.addConstr(y == tan(x))

    NOTES:
      Raises TypeError for an argument of another type.
    """
    return _apply("tan", x)


def abs(x):
    """ROUTINE:
      abs(x)

    PURPOSE:
      The absolute value, element by element.

    ARGUMENTS:
      x: a number, an ndarray, or a scalar or matrix expression.

    RETURN VALUE:
      NLExpr of a scalar expression, MNLExpr of the same shape of a matrix expression, NumPy's value
      of a number or ndarray.

    EXAMPLE:
      x = model.addMVar(3, lb=-1)
      model.addConstr(y == abs(x))

    NOTES:
      Raises TypeError for an argument of another type.
    """
    return _apply("abs", x)
