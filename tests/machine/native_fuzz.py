"""Random operations on operands that act: whose special methods change lists, arrays, matrices or the
model in the middle of an operation. The outcome is a result or a Python exception, never a crash.

    python tests/machine/native_fuzz.py --operations 200000 --seed 1

runs batches of operations, each with a model of its own; the seed of a batch stands on the standard
output before it begins. `--operations 1 --seed N --trace` replays one batch and tells each step.
Under `tools/sanitize` it finds what a plain build survives by luck.
"""

from __future__ import annotations

import argparse
import contextlib
import faulthandler
import gc
import inspect
import math
import operator
import random
import sys
import threading
import warnings
from collections.abc import Iterator
from typing import Any

import acting
import numpy as np
import scipy.sparse as sp
from acting import FIELDS, Acting, Stage
from guarded_scipy import guard

import taviropy as tv
from taviropy import _core, _matrixapi, _scalars, _util

BATCH = 60  # operations on one model
MOST_TERMS, MOST_ELEMENTS = 60, 40  # of an expression that stays: sizes could double at each step
MOST_ITEMS = 40

MATRIX_CLASSES = (tv.MVar, tv.MLinExpr, tv.MQuadExpr, tv.MNLExpr)
HANDLE_CLASSES = (tv.MConstr, tv.MQConstr, tv.MGenConstr)
SCALAR_CLASSES = (tv.Var, tv.LinExpr, tv.QuadExpr, tv.NLExpr, tv.Constr, tv.TempConstr)
OURS = (*MATRIX_CLASSES, *HANDLE_CLASSES, *SCALAR_CLASSES, tv.Model)

BINARY = (
    *(operator.add, operator.sub, operator.mul, operator.truediv, operator.pow, operator.matmul),
    *(operator.le, operator.ge, operator.eq, operator.ne, operator.lt),
    *(operator.iadd, operator.isub, operator.imul, operator.itruediv, operator.imatmul),
)
UNARY = (
    *(operator.neg, operator.pos, abs, repr, str, hash, bool, float, len, list, dir, iter, round),
    *(np.asarray, np.array, np.sum, np.sqrt, np.isfinite, np.mean, tv.exp, tv.log, tv.sin, tv.abs),
)
# Not called: what ends the process or its classes, walks other memory by design, or is SciPy's and
# NumPy's own way with what is broken already.
SKIPPED = {
    *("__class__", "__new__", "__init_subclass__", "__subclasshook__", "__subclasses__"),
    *("__reduce__", "__reduce_ex__", "__setstate__", "__getstate__", "__delattr__", "__dict__"),
    *("optimize", "write", "load", "close", "conflict", "addMVar", "setOption", "__sizeof__"),
    *("attach", "_attrlist", "_dense_array", "_sparse_left_matmul_kernel"),
    "_sparse_right_matmul_kernel",
}


class Finding(BaseException):
    """What is no crash, and a fault all the same; no operand catches it."""


class Given(list[Any]):
    """A list that an operation is given. It stays as it is: NumPy itself doesn't hold the items of a
    list while it asks them what they are."""


def changeable(value: Any, depth: int = 4) -> list[Any]:
    """What can be changed within an object: lists, arrays, matrices, expressions."""
    found: list[Any] = []
    inside: list[Any] = []
    if isinstance(value, Given):
        inside = value[:4]
    elif isinstance(value, list | tuple):
        inside = list(value[:4])
        found = [value] if isinstance(value, list) else []
    elif isinstance(value, np.ndarray):
        found, inside = [value], list(value.flat[:4]) if value.dtype == object else []
    elif sp.issparse(value):
        found, inside = (
            [value],
            [v for v in vars(value).values() if isinstance(v, np.ndarray | tuple)],
        )
    elif isinstance(value, tv.LinExpr | tv.QuadExpr):
        names = ("coeffs", "vars", "vars1", "vars2", "linear")
        found, inside = [value], [getattr(value, name, None) for name in names]
    elif isinstance(value, MATRIX_CLASSES):
        found, inside = [value], list(vars(value).values())
    elif isinstance(value, tv.TempConstr):
        inside = [value.lhs, value.rhs]
    if depth:
        for item in inside:
            found += changeable(item, depth - 1)
    return found


class Batch:
    """One model, objects round it, and random operations on them."""

    def __init__(self, seed: int, trace: bool) -> None:
        self.random = random.Random(seed)
        self.trace = trace
        self.depth = 0
        self.items: list[Any] = []
        self.near: list[Any] = []  # lists, arrays, matrices that the operation at hand walks over
        self.errors = 0
        self.model = tv.Model()
        self.model.setOption("log", False)
        self.x = self.model.addMVar(3, name="x")
        self.model.update()
        for _ in range(20):
            with contextlib.suppress(Exception):
                self.keep(self.fresh())

    # ---- operands

    def number(self) -> Any:
        plain = self.random.choice([0.0, 1.0, 2.0, -1.5, 0, 1, 3, -1, True, math.nan, 1e308])
        kind = self.random.choice(
            [Acting, Acting, acting.ActingNumber, acting.ActingFloat, acting.ActingInt, np.float64]
        )
        with contextlib.suppress(Exception):
            return kind(plain)
        return plain

    def shape(self) -> tuple[int, ...]:
        return self.random.choice([(), (3,), (1,), (3, 3), (1, 3), (3, 1), (2, 3), (0,), (2, 1, 3)])

    def array(self) -> Any:
        shape = self.shape()
        values = np.arange(math.prod(shape), dtype=float).reshape(shape)
        kind = self.random.randrange(7)
        if kind == 0:
            return values.view(acting.ActingNdarray)
        if kind == 1:
            objects = np.empty(shape, dtype=object)
            for k in range(objects.size):
                objects.flat[k] = self.any() if self.items else 1.0
            return objects
        if kind == 2:
            return values.astype(
                self.random.choice(["int64", "float32", "complex128", "bool", "U3"])
            )
        if kind == 3:
            return np.ma.masked_greater(values, 1)
        if kind == 4:
            return np.asfortranarray(values)[..., ::-1]
        return values

    def matrix(self) -> Any:
        values = np.arange(9.0).reshape(3, 3) % 4
        form = self.random.choice(
            [sp.csr_matrix, sp.csc_matrix, sp.coo_matrix, sp.lil_matrix, sp.dok_matrix, sp.bsr_matrix,
             sp.dia_matrix, sp.csr_array, acting.ActingCsr, acting.ActingCoo]
        )  # fmt: skip
        with self.quiet():  # SciPy's own constructors trust what they are making
            made = form(values)
        if self.random.random() < 0.1 and hasattr(made, "indices"):
            made.data = made.data.astype(object)
            made.data.flat[0] = self.number()
        return made

    def scalar(self) -> Any:
        v, w = (self.x._vararr.flat[self.random.randrange(3)] for _ in range(2))
        made = self.random.choice(
            [lambda: v, lambda: v + 2 * w, lambda: v * w + v, lambda: _core.NLExpr(v * w),
             lambda: acting.ActingLinExpr(v + w), lambda: acting.ActingQuadExpr(v * w), lambda: acting.ActingNLExpr(v),
             lambda: v + w <= 1, lambda: _core.LinExpr([1.0, 2.0], [v, w])]
        )()  # fmt: skip
        self.salt(made)
        return made

    def salt(self, expression: Any) -> None:
        """Puts what acts into the term lists of an expression now and then."""
        for name in ("coeffs", "coeffs", "vars", "vars1"):
            items = getattr(expression, name, None)
            if isinstance(items, list) and items and self.random.random() < 0.3:
                items[self.random.randrange(len(items))] = self.number()

    def block(self) -> Any:
        x = self.x[:] if self.random.random() < 0.7 else self.model.addMVar(self.shape())
        A = np.eye(3) + self.random.choice([0, 1])
        made = self.random.choice(
            [lambda: x, lambda: A @ self.x, lambda: A @ self.x + 1.0, lambda: x * x + x,
             lambda: self.x @ A @ self.x, lambda: 2 * x + 1, lambda: tv.exp(x), lambda: x.sum(),
             lambda: (self.x * self.x).sum(), lambda: acting.ActingMLinExpr(((2 * x)._to_full())._learr),
             lambda: acting.ActingMVar(x._vararr), lambda: tv.vstack([x, x])]
        )()  # fmt: skip
        if isinstance(made, tv.MLinExpr) and self.random.random() < 0.3:
            made._convert_to_full()
            for element in made._learr.flat:
                self.salt(element)
        return made

    def fresh(self) -> Any:
        kinds = [self.number, self.array, self.matrix, self.scalar, self.scalar]
        kinds += [self.block] * 3 + [acting.ActingArray, acting.ActingModelled]
        kinds += [lambda: Given([self.any(), self.any()]), lambda: (self.any(), self.number())]
        kinds += [lambda: slice(None, self.number()), lambda: self.model.addConstr(self.x <= 1)]
        kinds += [lambda: self.model, lambda: None, lambda: self.shape(), lambda: Ellipsis]
        return self.random.choice(kinds)()

    def any(self) -> Any:
        if self.items and self.random.random() < 0.75:
            return self.random.choice(self.items)
        return self.fresh()

    def operand(self) -> Any:
        """What acts, or anything."""
        kind = self.random.random()
        if kind < 0.3:
            return self.number()
        return (
            self.random.choice([acting.ActingArray, acting.ActingModelled])()
            if kind < 0.35
            else self.any()
        )

    def ours(self) -> Any:
        found = [item for item in self.items if isinstance(item, OURS)]
        if found and self.random.random() < 0.8:  # comparisons and models can do little
            found = [i for i in found if not isinstance(i, tv.TempConstr | tv.Model)] or found
        return self.random.choice(found) if found and self.random.random() < 0.8 else self.block()

    def keep(self, value: object) -> None:
        if not self.is_small(value):
            return
        if type(value) is list:
            value = Given(value)
        self.items.append(value)
        while len(self.items) > MOST_ITEMS:
            self.items.pop(self.random.randrange(len(self.items)))

    def is_small(self, value: Any) -> bool:
        if isinstance(value, tv.LinExpr):
            return len(value.coeffs) <= MOST_TERMS
        if isinstance(value, tv.QuadExpr):
            return len(value.coeffs) + len(value.linear.coeffs) <= MOST_TERMS
        if isinstance(value, np.ndarray):
            return value.size <= MOST_ELEMENTS and (
                value.dtype != object or all(e is not value for e in value.flat)
            )
        for name in ("_learr", "_qearr", "_nlearr", "_vararr"):
            array = getattr(value, "__dict__", {}).get(name)
            if isinstance(array, np.ndarray) and (
                array.size > MOST_ELEMENTS or not all(map(self.is_small, array.flat))
            ):
                return False
        parts = getattr(value, "__dict__", {}).get("_matmulparts")
        ndle = getattr(value, "__dict__", {}).get("_ndle")
        if isinstance(parts, list) and len(parts) > MOST_ELEMENTS:
            return False
        if ndle is not None and not self.is_small(ndle):
            return False
        return not isinstance(value, str | bytes | list | tuple) or len(value) <= MOST_ELEMENTS

    # ---- acts

    @contextlib.contextmanager
    def quiet(self) -> Iterator[None]:
        """Nothing acts meanwhile."""
        depth, self.depth = self.depth, 99
        try:
            yield
        finally:
            self.depth = depth

    def act(self, chance: float) -> None:
        if self.depth >= 2 or self.random.random() > chance:
            return
        self.depth += 1
        try:
            self.change()
        except Exception:
            self.errors += 1
        finally:
            self.depth -= 1

    def change(self) -> None:
        if not self.items:
            return
        if self.near and self.random.random() < 0.7:
            for _ in range(self.random.randrange(1, 4)):
                self.change_one(self.random.choice(self.near))
            return
        victim = self.random.choice(self.items)
        kind = self.random.randrange(12)
        if kind == 0:
            gc.collect(0)
        elif kind == 1:
            del self.items[self.random.randrange(len(self.items)) :]
        elif kind == 2:
            self.model.remove(self.x[self.random.randrange(3)])
        elif kind == 3:
            self.model.update()
        elif kind == 4:
            self.model.addConstr(self.x.sum() <= 1)
        elif kind == 5:
            self.operate()
        elif kind == 6 and isinstance(victim, OURS):
            setattr(victim, self.random.choice(FIELDS), self.any())
        elif kind == 7 and self.random.random() < 0.05:
            self.model.close()
        else:
            inside = changeable(victim)
            if inside:
                self.change_one(self.random.choice(inside))

    def change_one(self, victim: Any) -> None:
        """Changes a list, an array, a matrix or an expression."""
        if isinstance(victim, list):
            self.random.choice(
                [victim.clear, victim.pop, victim.reverse, lambda: victim.extend(victim[:5] * 3),
                 lambda: victim.__setitem__(0, self.any()), lambda: victim.__delitem__(slice(1, None))]
            )()  # fmt: skip
            del victim[MOST_TERMS:]
        elif isinstance(victim, np.ndarray):
            number = self.random.choice([0, 1, -1, 7, 10**6])
            # Its shape stays: NumPy itself keeps the old one while an index is asked for its number.
            # What it replaces, NumPy frees before it takes it out of the array.
            with self.quiet():
                self.random.choice(
                    [lambda: victim.fill(number), lambda: victim.fill(None),
                     lambda: victim.size == 2 or victim.resize(2),
                     lambda: victim.__setitem__(Ellipsis, self.any())]
                )()  # fmt: skip
        elif sp.issparse(victim):
            name = self.random.choice(["data", "indices", "indptr", "row", "col", "_shape"])
            if name == "_shape":
                victim._shape = self.random.choice([(3, 3), (1, 1), (5, 2)])
            else:
                array = getattr(victim, name)
                setattr(
                    victim, name, self.random.choice([array[:1].copy(), array[::-1], array * 3])
                )
        elif isinstance(victim, tv.LinExpr | tv.QuadExpr | tv.MLinExpr | tv.MQuadExpr):
            victim.clear()

    # ---- operations

    def step(self, name: str, *operands: object) -> None:
        if self.depth == 0:
            self.near = [found for operand in operands for found in changeable(operand)]
        if self.trace:
            types = ", ".join(type(operand).__name__ for operand in operands)
            print("  " * (self.depth + 1) + f"{name}({types})", flush=True)

    def operate(self) -> None:
        """One operation; what it gives is kept, what it raises is counted."""
        try:
            self.keep(self.result())
            if self.depth == 0:
                self.near = []
        except SystemError as error:
            raise Finding("an exception was lost, or there was one too many") from error
        except Exception as error:
            text = ""
            with contextlib.suppress(Exception):  # it may tell of an operand that has no words
                text = str(error)
            if any(name in text for name in ("std::", "vector::", "basic_string::")):
                raise Finding("an exception of C++ has no words for the user") from error
            self.errors += 1

    def result(self) -> Any:
        kind = self.random.randrange(10)
        mine = self.ours()
        if kind <= 2:
            function = self.random.choice(BINARY)
            operands = [mine, self.operand()]
            self.random.shuffle(operands)
            self.step(function.__name__, *operands)
            return function(*operands)
        if kind == 3:
            function = self.random.choice(UNARY)
            self.step(function.__name__, mine)
            return function(mine)
        if kind == 4:
            key = self.random.choice([0, -1, slice(None), (0, 0), Ellipsis, self.operand(), [0, 1]])
            if self.random.random() < 0.5:
                self.step("getitem", mine, key)
                return mine[key]
            value = self.operand()
            self.step("setitem", mine, key, value)
            mine[key] = value
            return mine
        if kind == 5:
            function = self.random.choice([tv.vstack, tv.hstack, tv.concatenate])
            blocks = [item for item in self.items if isinstance(item, MATRIX_CLASSES)] or [self.x]
            parts = [self.random.choice(blocks) for _ in range(3)]
            if self.random.random() < 0.3:
                parts.append(self.any())
            self.step(function.__name__, *parts)
            return function(parts)
        if kind == 6:
            return self.inner_function()
        if kind == 7:
            return self.model_operation(mine)
        return self.method(mine)

    def method(self, mine: Any) -> Any:
        source = type(mine) if self.random.random() < 0.2 else mine
        names = [name for name in dir(type(mine)) if name not in SKIPPED]
        name = self.random.choice(names)
        found = getattr(source, name)
        arguments = [self.operand() for _ in range(self.random.choice([0, 1, 1, 2, 3, 4]))]
        with contextlib.suppress(TypeError, ValueError):  # mostly as many as it takes
            if self.random.random() < 0.9:
                wanted = len(inspect.signature(found).parameters)
                arguments = [self.operand() for _ in range(min(wanted, 5))]
        self.step(f"{type(mine).__name__}.{name}", mine, *arguments)
        return found(*arguments) if callable(found) else found

    def inner_function(self) -> Any:
        module = self.random.choice([_scalars, _util, _matrixapi])
        names = [n for n in dir(module) if callable(getattr(module, n)) and n not in SKIPPED]
        names = [n for n in names if not n.startswith("__")]
        name = self.random.choice(names)
        arguments = [self.operand() for _ in range(self.random.choice([1, 2, 2, 3, 4, 5]))]
        if name in ("gather_linear", "gather_quadratic", "gather_trees", "product_rows"):
            arguments[0] = _scalars.data_of(self.model)
        self.step(f"{module.__name__}.{name}", *arguments)
        return getattr(module, name)(*arguments)

    def model_operation(self, mine: Any) -> Any:
        model = self.model
        value = self.operand()
        attribute = self.random.choice(
            ["LB", "VarName", "VType", "X", "RHS", "Obj", "Sense", "Start"]
        )
        choice = self.random.randrange(8)
        self.step(f"model operation {choice} {attribute}", mine, value)
        if choice == 0:
            return model.addConstr(mine <= value)
        if choice == 1:
            return model.addConstr(self.random.choice([mine, value]))
        if choice == 2:
            return model.setObjective(mine)
        if choice == 3:
            return setattr(mine, attribute, value)
        if choice == 4:
            return getattr(mine, attribute)
        if choice == 5:
            return model.remove(self.random.choice([mine, value]))
        if choice == 6:
            return model.addMVar(self.shape(), lb=value)
        return model.update()


def run(operations: int, seed: int, trace: bool) -> int:
    gc.disable()  # so that a seed replays: collections are among the acts
    done = errors = 0
    while done < operations:
        print(f"seed {seed}: operations from {done}", flush=True)
        Stage.batch = None
        gc.collect()
        batch = Batch(seed, trace)
        Stage.batch = batch
        for _ in range(BATCH):
            batch.operate()
            done += 1
        errors += batch.errors
        Stage.batch = None
        del batch
        seed += 1
    print(f"{done} operations, {errors} exceptions, no finding", flush=True)
    return 0


def main() -> int:
    parser = argparse.ArgumentParser(description=(__doc__ or "").splitlines()[0])
    parser.add_argument("--operations", type=int, default=20_000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--trace", action="store_true")
    given = parser.parse_args()
    faulthandler.enable()
    guard()
    warnings.simplefilter("ignore")
    np.seterr(all="ignore")
    sys.setrecursionlimit(400)
    # An array may come to hold the expression that it belongs to: that is an endless recursion, which
    # Python ends by a RecursionError where the stack is deep enough.
    threading.stack_size(1 << 30)
    ended: list[int] = []
    thread = threading.Thread(
        target=lambda: ended.append(run(given.operations, given.seed, given.trace))
    )
    thread.start()
    thread.join()
    return 0 if ended else 1


if __name__ == "__main__":
    sys.exit(main())
