"""What NumPy and pandas do with the matrix classes: the right block, or a TypeError.

NumPy asks a class how its functions work on it, and is told here, in four tables:

- functions that are defined below, `np.sum` or `np.concatenate`, by operators and methods,
- functions that look at a shape alone, `np.zeros_like`, work on any array of that shape,
- functions that put elements elsewhere, `np.repeat`, move places, by which a block is then indexed;
  the result is always a copy,
- everything else is a TypeError that says what to use.

The universal functions behind operators never come here but go to the operators (`_ufunc`).
Functions that NumPy doesn't ask about, `np.array` first of all, take a block for one object.
"""

from __future__ import annotations

import sys
from collections.abc import Callable, Iterable
from functools import cache, partial
from typing import Any, NoReturn

from . import _functions
from ._matrixapi import MLinExpr, MNLExpr, MQuadExpr, MVar
from ._matrixapi import concatenate as concatenate_blocks
from ._ufunc import ArrayUfunc, define_order

__all__ = ["attach"]

type Block = MVar | MLinExpr | MQuadExpr | MNLExpr
type Function = Callable[..., Any]

_CLASSES = (MVar, MLinExpr, MQuadExpr, MNLExpr)

# What replaces a function that has no counterpart, for a block x.
_CURES = {
    "add.reduce": "use x.sum(axis)",
    "amax": "add a variable t to the model with t >= x",
    "amin": "add a variable t to the model with t <= x",
    "array_equal": "use x == y in addConstr",
    "average": "use w @ x / w.sum()",
    "clip": "set the bounds LB and UB, or add constraints",
    "cumsum": "use np.tri(x.size) @ x, or a variable y with y[1:] == y[:-1] + x[1:]",
    "diag": "use np.eye(x.size) * x",
    "einsum": "use *, @ and sum(axis)",
    "expm1": "use tv.exp(x) - 1",
    "fabs": "use tv.abs(x)",
    "kron": "use tv.concatenate, or x.reshape and *",
    "linalg.norm": "use tv.sqrt((x * x).sum()), or bound the square (x * x).sum()",
    "log10": "use tv.log(x) / np.log(10)",
    "log1p": "use tv.log(1 + x)",
    "log2": "use tv.log(x) / np.log(2)",
    "max": "add a variable t to the model with t >= x",
    "maximum": "add a variable t to the model with t >= x and t >= y",
    "min": "add a variable t to the model with t <= x",
    "minimum": "add a variable t to the model with t <= x and t <= y",
    "tensordot": "use @ or (x * A).sum(axis)",
    "tril": "use np.tri(*x.shape) * x",
    "triu": "use np.triu(np.ones(x.shape)) * x",
    "where": "use mask * x + (1 - mask) * y with mask an array of 0 and 1",
}
_OTHERWISE = "use operators, indexing, sum(axis), tv.concatenate, and tv.exp and its kin"

# Functions of the shape of their first argument.
_OF_SHAPE = "shape ndim size zeros_like ones_like empty_like full_like"

# Functions that put the elements of their first argument elsewhere, and do nothing else.
_MOVES = (
    "array_split broadcast_to copy delete diagonal dsplit "
    "expand_dims flip fliplr flipud hsplit matrix_transpose moveaxis permute_dims ravel repeat "
    "reshape roll rollaxis rot90 split squeeze swapaxes tile transpose unstack vsplit"
)

# The same for each of their arguments.
_MOVES_OF_EACH = "atleast_1d atleast_2d atleast_3d"


# Functions by operators and methods


def sum(a: Any, axis: Any = None) -> Any:
    return a.sum(axis)


def mean(a: Any, axis: Any = None) -> Any:
    total = a.sum(axis)
    return total / (a.size / total.size if total.size else 1.0)


def trace(a: Any, offset: int = 0, axis1: int = 0, axis2: int = 1) -> Any:
    import numpy as np

    return np.diagonal(a, offset, axis1, axis2).sum(-1)


def diff(a: Any, n: int = 1, axis: int = -1) -> Any:
    for _ in range(n):
        before = (slice(None),) * range(a.ndim)[axis]
        a = a[(*before, slice(1, None))] - a[(*before, slice(None, -1))]
    return a


def take(a: Any, indices: Any, axis: int | None = None) -> Any:
    import numpy as np

    return _moved(np.take, a, indices, axis)


def dot(a: Any, b: Any) -> Any:
    import numpy as np

    a, b = _operand(a), _operand(b)
    if np.ndim(a) == 0 or np.ndim(b) == 0:
        return a * b
    if np.ndim(b) > 2:
        raise TypeError("numpy.dot takes a block and at most a matrix on its right: use @")
    return a @ b


def inner(a: Any, b: Any) -> Any:
    import numpy as np

    return dot(a, b if np.ndim(b) < 2 else np.swapaxes(b, -1, -2))


def vdot(a: Any, b: Any) -> Any:
    import numpy as np

    return np.ravel(a) @ np.ravel(b)


def outer(a: Any, b: Any) -> Any:
    import numpy as np

    return np.reshape(a, (-1, 1)) * np.reshape(b, (1, -1))


def concatenate(arrays: Iterable[Any], axis: int | None = 0) -> Any:
    import numpy as np

    operands = [_operand(each) for each in arrays]
    if axis is None:
        operands, axis = [np.ravel(each) for each in operands], 0
    return concatenate_blocks(tuple(operands), axis)


def vstack(tup: Iterable[Any]) -> Any:
    import numpy as np

    return concatenate([np.atleast_2d(each) for each in tup])


def hstack(tup: Iterable[Any]) -> Any:
    import numpy as np

    operands = [np.atleast_1d(each) for each in tup]
    return concatenate(operands, 0 if np.ndim(operands[0]) == 1 else 1)


def stack(arrays: Iterable[Any], axis: int = 0) -> Any:
    import numpy as np

    return concatenate([np.expand_dims(each, axis) for each in arrays], axis)


def column_stack(tup: Iterable[Any]) -> Any:
    import numpy as np

    columns = [np.reshape(each, (-1, 1)) if np.ndim(each) < 2 else each for each in tup]
    return concatenate(columns, 1)


def append(arr: Any, values: Any, axis: int | None = None) -> Any:
    return concatenate((arr, values), axis)


_DEFINED: tuple[Any, ...] = (append, column_stack, concatenate, diff, dot, hstack, inner, mean)
_DEFINED += (outer, stack, sum, take, trace, vdot, vstack)


def _operand(value: Any) -> Any:
    """A block or a sparse matrix as it is, anything else as an array."""
    import numpy as np

    return value if isinstance(value, _CLASSES) or hasattr(value, "toarray") else np.asarray(value)


# Functions of shapes and places


def _of_shape(func: Function, a: Any, *args: Any, **kwargs: Any) -> Any:
    """What `func` makes of an array of the block's shape."""
    import numpy as np

    return func(np.broadcast_to(0.0, a.shape), *args, **kwargs)


def _moved(func: Function, a: Any, *args: Any, **kwargs: Any) -> Any:
    """What `func` makes of the block, or of each array in its result."""
    import numpy as np

    if not isinstance(a, _CLASSES):
        raise TypeError(f"numpy.{func.__name__} takes a block as its first argument alone")
    moved = func(np.arange(a.size).reshape(a.shape), *args, **kwargs)
    if isinstance(moved, np.ndarray | np.integer):
        return _picked(a, moved)
    return type(moved)(_picked(a, places) for places in moved)


def _moved_each(func: Function, *arrays: Any) -> Any:
    """What `func` makes of each block or array."""
    results = [_moved(func, a) if isinstance(a, _CLASSES) else func(a) for a in arrays]
    return results[0] if len(results) == 1 else tuple(results)


def _picked(a: Any, places: Any) -> Any:
    """The elements at these places, counted in C order."""
    import numpy as np

    if a.ndim == 0:
        return a + np.zeros(np.shape(places)) if np.ndim(places) else a[()]
    return a[np.unravel_index(places, a.shape)]


# NumPy's and pandas' questions


@cache
def _by_function() -> dict[Any, Function]:
    """The functions of NumPy that work on blocks."""
    import numpy as np

    table: dict[Any, Function] = {getattr(np, each.__name__): each for each in _DEFINED}
    generic: list[tuple[Function, str]]
    generic = [(_of_shape, _OF_SHAPE), (_moved, _MOVES), (_moved_each, _MOVES_OF_EACH)]
    for apply, names in generic:
        for func in (getattr(np, name) for name in names.split()):
            table[func] = partial(apply, func)
    return table


@cache
def _by_ufunc() -> dict[Any, Function]:
    """The universal functions of one argument that work on blocks."""
    import numpy as np

    table: dict[Any, Function] = {
        np.negative: lambda x: -x,
        np.positive: lambda x: +x,
        np.square: lambda x: x * x,
        np.absolute: _functions.abs,
    }
    for name in ("cos", "exp", "log", "sin", "sqrt", "tan"):
        table[getattr(np, name)] = getattr(_functions, name)
    return table


def _array_function(
    self: Block, func: Any, types: Iterable[type], args: tuple[Any, ...], kwargs: Any
) -> Any:
    import numpy as np

    if not all(issubclass(each, (*_CLASSES, np.ndarray)) for each in types):
        return NotImplemented
    name = f"{func.__module__}.{func.__name__}".removeprefix("numpy.")
    apply = _by_function().get(func)
    if apply is None:
        _refuse(name, self)
    try:
        return apply(*args, **kwargs)
    except TypeError:
        _check_arguments(name, self, apply, args, kwargs)
        raise


def _check_arguments(
    name: str, block: Block, apply: Function, args: tuple[Any, ...], kwargs: Any
) -> None:
    """TypeError where the function knows more arguments than its counterpart here."""
    from inspect import Parameter, Signature, signature

    known = signature(apply)
    try:
        known.bind(*args, **kwargs)
    except TypeError as error:
        bare = [each.replace(annotation=Parameter.empty) for each in known.parameters.values()]
        raise TypeError(
            f"numpy.{name} of an {type(block).__name__}: {error}; use {name}{Signature(bare)}"
        ) from None


def _other_ufunc(self: Block, ufunc: Any, method: str, *inputs: Any, **kwargs: Any) -> Any:
    name = ufunc.__name__ if method == "__call__" else f"{ufunc.__name__}.{method}"
    if method == "__call__" and kwargs:
        raise TypeError(
            f"numpy.{name} of an {type(self).__name__} takes no {' and no '.join(kwargs)}: "
            f"use the operator, and assign its result"
        )
    apply = _by_ufunc().get(ufunc) if method == "__call__" else None
    if apply is None:
        _refuse(name, self)
    return apply(*inputs)


def _refuse(name: str, block: Block) -> NoReturn:
    raise TypeError(f"numpy.{name} takes no {type(block).__name__}: {_CURES.get(name, _OTHERWISE)}")


def _array(self: Block) -> NoReturn:
    """Blocks have no `__array__`; functions that would go on with an array of one object hear why.

    SciPy's operators for instance see by that array that they have to give way.
    """
    caller = sys._getframe(1)
    module = caller.f_globals.get("__name__", "")
    if module.startswith("pandas.") and caller.f_code.co_name == "dot":
        raise TypeError(
            f"an {type(self).__name__} takes no pandas object for an operand: "
            f"give its numbers in order, by .to_numpy()"
        )
    if module.startswith("numpy.ma."):
        raise TypeError(
            f"the functions of numpy.ma take no {type(self).__name__}: {_OTHERWISE}; "
            f"operators take masked arrays"
        )
    raise AttributeError("__array__")


def attach(classes: Iterable[Any]) -> None:
    """Gives the classes the attributes by which NumPy and pandas know how to treat them."""
    for cls in classes:
        define_order(cls)
        cls.__array_ufunc__ = ArrayUfunc(_other_ufunc)
        cls.__array_function__ = _array_function
        cls.__array__ = property(_array)
        cls.__pandas_priority__ = 5000  # above every class of pandas: its operators give way
