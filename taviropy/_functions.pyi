from typing import Any, Protocol, overload

from numpy.typing import NDArray

from ._matrixapi import MLinExpr, MNLExpr, MQuadExpr, MVar
from ._scalars import LinExpr, NLExpr, QuadExpr, Var

__all__ = ["abs", "cos", "exp", "log", "sin", "sqrt", "tan"]

class _Function(Protocol):
    @overload
    def __call__(self, x: Var | LinExpr | QuadExpr | NLExpr) -> NLExpr: ...
    @overload
    def __call__(self, x: MVar | MLinExpr | MQuadExpr | MNLExpr) -> MNLExpr: ...
    @overload
    def __call__(self, x: NDArray[Any]) -> NDArray[Any]: ...
    @overload
    def __call__(self, x: complex) -> Any: ...

abs: _Function
cos: _Function
exp: _Function
log: _Function
sin: _Function
sqrt: _Function
tan: _Function
