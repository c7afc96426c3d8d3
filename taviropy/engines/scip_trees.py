"""Expression trees as expressions of SCIP, without recursion."""

from __future__ import annotations

from collections.abc import Callable
from math import isfinite
from typing import Any

import numpy as np
from pyscipopt import cos, exp, log, sin, sqrt
from pyscipopt.scip import VarExpr, buildGenExprObj

from ..data.trees import CONSTANT, OPERATIONS, VARIABLE, Trees
from ..data.values import invalid

# A subtree gets a variable of its own where it is that deep, or used more than once and bigger
# than a few operations: SCIP walks expressions recursively, and would write a shared one out each
# time.
_DEEPEST = 200
_SMALL = 8
_PLUS = OPERATIONS.index("plus")


def _power(base: Any, exponent: Any) -> Any:
    return base**exponent if isinstance(exponent, float) else exp(exponent * log(base))


_FUNCTIONS: dict[str, Callable[..., Any]] = {
    "exp": exp,
    "log": log,
    "sqrt": sqrt,
    "sin": sin,
    "cos": cos,
    "tan": lambda e: sin(e) / cos(e),
    "abs": abs,
    "square": lambda e: e**2,
    "uminus": lambda e: -1.0 * e,
    "minus": lambda a, b: a - b,
    "multiply": lambda a, b: a * b,
    "divide": lambda a, b: a / b,
    "pow": _power,
}
_BY_CODE = [_FUNCTIONS.get(name) for name in OPERATIONS]


class TreeTranslator:
    """Translates trees; `variables` are SCIP's, by column, and `name` gives a tree's name."""

    def __init__(
        self, scip: Any, trees: Trees, variables: list[Any], name: Callable[[int], str]
    ) -> None:
        self._scip = scip
        self._variables = variables
        self._name = name
        self._starts = trees.indptr.tolist()
        self._codes = trees.codes.tolist()
        self._first = trees.first.tolist()
        self._second = trees.second.tolist()
        self._numbers = trees.numbers.tolist()
        self._uses = _uses(trees)

    def translate(self, tree: int) -> Any:
        """The tree with this number as an expression of SCIP."""
        start, end = self._starts[tree], self._starts[tree + 1]
        made: list[Any] = []
        sizes: list[int] = []
        depths: list[int] = []
        auxiliaries = 0
        for k in range(start, end):
            code = self._codes[k]
            if code == CONSTANT:
                expr: Any = self._constant(tree, k)
                size, depth = 1, 1
            elif code == VARIABLE:
                expr, size, depth = VarExpr(self._variables[self._first[k]]), 1, 1
            else:
                at = [place for place in (self._first[k], self._second[k]) if place >= 0]
                size = 1 + sum(sizes[place] for place in at)
                depth = 1 + max(depths[place] for place in at)
                if code == _PLUS:
                    # The terms of a sum stay a list until somebody uses the sum for another thing.
                    expr = self._terms(start, at, made)
                    depth -= isinstance(made[at[0]], list)
                else:
                    expr = _applied(code, [_summed(made[place]) for place in at])
            is_shared = self._uses[k] > 1 and size > _SMALL
            if (is_shared or depth > _DEEPEST) and not isinstance(expr, float):
                auxiliaries += 1
                expr = self._auxiliary(_summed(expr), f"{self._name(tree)}~{auxiliaries}")
                size = depth = 1
            made.append(expr)
            sizes.append(size)
            depths.append(depth)
        return buildGenExprObj(_summed(made[-1]))

    def _constant(self, tree: int, k: int) -> float:
        number: float = self._numbers[k]
        if not isfinite(number):
            raise invalid(
                f"The general constraint '{self._name(tree)}' holds the constant {number}: it "
                f"must be finite; remove the constraint and add it anew"
            )
        return number

    def _terms(self, start: int, at: list[int], made: list[Any]) -> list[Any]:
        """The terms of a sum: those of its first argument, where that is a sum, and the second."""
        first = made[at[0]]
        terms: list[Any]
        if isinstance(first, list) and self._uses[start + at[0]] == 1:
            terms = first  # nobody else is going to need it
        else:
            terms = [*first] if isinstance(first, list) else [first]
        terms.extend(_summed(made[place]) for place in at[1:])
        return terms

    def _auxiliary(self, expr: Any, name: str) -> Any:
        variable = self._scip.addVar(name, "C", None, None)
        self._scip.addCons(expr - variable == 0.0, name=name)
        return VarExpr(variable)


def _uses(trees: Trees) -> list[int]:
    """How often each operation is used by others of its tree."""
    lengths = np.diff(trees.indptr)
    starts = np.repeat(trees.indptr[:-1], lengths)
    is_leaf = (trees.codes == VARIABLE) | (trees.codes == CONSTANT)
    used = [(starts + places)[~is_leaf & (places >= 0)] for places in (trees.first, trees.second)]
    uses: list[int] = np.bincount(np.concatenate(used), minlength=len(trees.codes)).tolist()
    return uses


def _summed(terms: Any) -> Any:
    """The sum of a list of terms, by halves since SCIP's sums are copied; others stay."""
    if not isinstance(terms, list):
        return terms
    while len(terms) > 1:
        pairs = [a + b for a, b in zip(terms[::2], terms[1::2], strict=False)]
        terms = pairs + terms[len(terms) - len(terms) % 2 :]
    return terms[0]


def _applied(code: int, arguments: list[Any]) -> Any:
    function = _BY_CODE[code]
    if function is None:
        return arguments[0]
    if all(isinstance(argument, float) for argument in arguments):
        arguments = [buildGenExprObj(arguments[0]), *arguments[1:]]
    return function(*arguments)
