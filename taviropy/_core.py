"""The scalar objects and the model, under one name for the package's other modules."""

from ._model import Model
from ._scalars import (
    Constr,
    GenConstr,
    GenExpr,
    LinExpr,
    NLExpr,
    QConstr,
    QuadExpr,
    TempConstr,
    Var,
    _ExprTree,
)

__all__ = [
    "Constr",
    "GenConstr",
    "GenExpr",
    "LinExpr",
    "Model",
    "NLExpr",
    "QConstr",
    "QuadExpr",
    "TempConstr",
    "Var",
    "_ExprTree",
]
