"""Type of the matrix classes' `__array_ufunc__`."""

from collections.abc import Callable
from typing import Any

class ArrayUfunc:
    def __init__(self, fallback: Callable[..., Any]) -> None: ...
    def __call__(
        self, block: Any, ufunc: Any, method: str, /, *inputs: Any, **keywords: Any
    ) -> Any: ...

def define_order(cls: type, /) -> None: ...
