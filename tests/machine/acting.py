"""Operands that act: their special methods change what an operation is walking over, and then give a
number, an array or what their base class does."""

from __future__ import annotations

import numbers
from collections.abc import Callable
from typing import Any

import numpy as np
import scipy.sparse as sp

import taviropy as tv

FIELDS = ("_vararr", "_learr", "_matmulparts", "_const", "_qearr", "_quadparts", "_ndle", "_nlearr")
FIELDS += ("_root", "_constrarr", "_qconstrarr", "_cmodel", "_keep_compact")


class Stage:
    """What the acting operands act on: the batch that runs."""

    batch: Any = None


def act(chance: float = 0.7) -> None:
    if Stage.batch is not None:
        Stage.batch.act(chance)


def acts(names: str, give: Callable[[Any], Any], chance: float = 0.7) -> Callable[[type], type]:
    """Gives a class methods that act, and then return something, whatever they are given."""

    def method(self: Any, *args: Any, **kwargs: Any) -> Any:
        act(chance)
        return give(self)

    def complete(cls: type) -> type:
        for name in names.split():
            setattr(cls, name, method)
        return cls

    return complete


def acting_property(name: str, give: Callable[[Any], Any] | None = None) -> property:
    """A property that acts; where nothing else is given, it has what was set."""

    def getter(self: Any) -> Any:
        act(0.1)
        return give(self) if give else self.__dict__[name]

    return property(getter, lambda self, value: self.__dict__.__setitem__(name, value))


@acts("__float__", lambda self: float(self.number))
@acts("__int__ __index__", lambda self: int(self.number))
@acts("__bool__", lambda self: bool(self.number))
@acts("__eq__", lambda self: self.number == 1.0)
@acts("__hash__", lambda self: 1)
@acts("__len__", lambda self: 3)
@acts("__str__ __repr__", lambda self: "acting")
@acts("__add__ __radd__ __sub__ __rsub__ __mul__ __rmul__ __truediv__", lambda self: self.number)
@acts("__rtruediv__ __pow__ __rpow__ __matmul__ __rmatmul__ __neg__", lambda self: self.number)
@acts("__le__ __ge__", lambda self: self.number)
@acts("__del__", lambda self: None, 0.1)
class Acting:
    """Acts wherever it is asked for something, and gives a number or an item."""

    def __init__(self, number: float = 1.0) -> None:
        self.number = number

    def __iter__(self) -> Any:
        for k in range(3):
            act()
            yield k

    def __getitem__(self, key: object) -> Any:
        act()
        if isinstance(key, int) and key > 3:
            raise IndexError(key)
        return self.number


class ActingNumber(Acting):
    """Taken for a number."""


numbers.Number.register(ActingNumber)


@acts("__array__", lambda self: np.ones(3))
@acts("tolist", lambda self: [1.0, 2.0, 3.0])
@acts("__buffer__", lambda self: memoryview(np.ones(3)))
class ActingArray(Acting):
    """Taken for an array of three items."""

    shape = acting_property("shape", lambda self: (3,))


class ActingModelled(Acting):
    """Taken for a thing of the model."""

    _cmodel = acting_property("_cmodel", lambda self: Stage.batch.model if Stage.batch else None)
    _root = acting_property("_root", lambda self: tv.NLExpr(1.0)._root)

    @property
    def __class__(self) -> Any:
        act(0.1)
        return Acting


@acts("__float__ __add__ __radd__ __mul__ __rmul__ __neg__", lambda self: 2.0)
@acts("__del__", lambda self: None)
class ActingFloat(float):
    """A float whose finalizer acts as well."""


@acts("__index__ __add__ __radd__ __mul__ __rmul__", lambda self: 1)
@acts("__float__", lambda self: 1.0)
@acts("__del__", lambda self: None)
class ActingInt(int):
    """The same of an int."""


@acts("__array_finalize__", lambda self: None, 0.1)
@acts("item", lambda self: np.asarray(self).flat[0])
class ActingNdarray(np.ndarray):
    """An array that acts where it is read, multiplied or made."""

    def __getitem__(self, key: object) -> Any:
        act(0.1)
        return super().__getitem__(key)

    def __mul__(self, other: object) -> Any:
        act()
        return np.asarray(self) * other

    __rmul__ = __mul__


class ActingCsr(sp.csr_matrix):
    """A matrix that acts where it is asked for its data or its format."""

    data = acting_property("data")
    format = acting_property("format", lambda self: "csr")


class ActingCoo(sp.coo_matrix):
    """The same in another format."""

    data = acting_property("data")


def subclass(base: type, *names: str) -> Any:
    """A class of expressions whose finalizer acts, and methods that act and then do their work."""

    def method(name: str) -> Any:
        def acting(self: Any, *args: Any) -> Any:
            act()
            return getattr(super(type(self), self), name)(*args)

        return acting

    methods = {name: method(name) for name in names}
    return type(f"Acting{base.__name__}", (base,), {**methods, "__del__": lambda self: act()})


_METHODS = ("copy", "_flatten", "_normalize", "add", "_mul", "clear", "getValue", "getConstant")
ActingLinExpr = subclass(tv.LinExpr, *_METHODS)
ActingQuadExpr = subclass(tv.QuadExpr, *_METHODS, "getLinExpr")
ActingNLExpr = subclass(tv.NLExpr)
ActingMLinExpr: Any = type(
    "ActingMLinExpr", (tv.MLinExpr,), {name: acting_property(name) for name in FIELDS[1:4]}
)
ActingMVar: Any = type("ActingMVar", (tv.MVar,), {"_vararr": acting_property("_vararr")})
