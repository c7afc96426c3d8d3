"""Expression trees as expressions of SCIP, without recursion."""

from __future__ import annotations

from math import isfinite, log
from typing import Any

from pyscipopt import cos, exp, sin, sqrt
from pyscipopt import log as scip_log
from pyscipopt.scip import VarExpr, buildGenExprObj

from .._exception import TaviroError
from .._tvo import TVO

# A subtree gets a variable of its own where it is that deep, or used more than once and bigger
# than a few nodes: SCIP walks expressions recursively, and would write a shared one out each time.
_DEEPEST = 200
_SMALL = 8


def _power(base, exponent):
    return base**exponent if isinstance(exponent, float) else exp(exponent * scip_log(base))


_FUNCTIONS: dict[str, Any] = {
    "exp": exp,
    "log": scip_log,
    "ln": scip_log,
    "log2": lambda e: scip_log(e) * (1.0 / log(2.0)),
    "log10": lambda e: scip_log(e) * (1.0 / log(10.0)),
    "sqrt": sqrt,
    "sin": sin,
    "cos": cos,
    "tan": lambda e: sin(e) / cos(e),
    "tanh": lambda e: 1.0 - 2.0 / (exp(2.0 * e) + 1.0),
    "abs": abs,
    "square": lambda e: e**2,
    "uminus": lambda e: -1.0 * e,
    "minus": lambda a, b: a - b,
    "divide": lambda a, b: a / b,
    "pow": _power,
}


class TreeTranslator:
    """Translates the trees of one constraint; `variable` gives SCIP's variable for a Var."""

    def __init__(self, scip, variable, name):
        self._scip = scip
        self._variable = variable
        self._name = name
        self._auxiliaries = 0

    def translate(self, root):
        """The tree as an expression of SCIP."""
        order, uses = _bottom_up(root)
        made, sizes, depths = {}, {}, {}
        for node in order:
            children = node.children
            key = id(node)
            made[key] = self._node(node, [made[id(child)] for child in children])
            sizes[key] = 1 + sum(sizes[id(child)] for child in children)
            depths[key] = 1 + max((depths[id(child)] for child in children), default=0)
            shared = uses[key] > 1 and sizes[key] > _SMALL
            if (shared or depths[key] > _DEEPEST) and not isinstance(made[key], float):
                made[key] = self._auxiliary(made[key])
                sizes[key] = depths[key] = 1
        return buildGenExprObj(made[id(root)])

    def _node(self, node, children):
        """An expression of SCIP for a node, or a float where it is constant."""
        op = node.op
        if op == "constant":
            if not isfinite(node.data):
                raise TaviroError(
                    TVO.Error.ERROR_INVALID_ARGUMENT,
                    f"The general constraint '{self._name}' holds the constant {node.data}: it "
                    f"must be finite; remove the constraint and add it anew",
                )
            return float(node.data)
        if op == "var":
            return VarExpr(self._variable(node.data))
        if op == "plus":
            return sum(children[1:], children[0]) if children else 0.0
        if op == "multiply":
            product = children[0] if children else 1.0
            for child in children[1:]:
                product = product * child
            return product
        if op not in _FUNCTIONS:
            raise TaviroError(
                TVO.Error.NOT_SUPPORTED,
                f"The general constraint '{self._name}' uses the function '{op}', which SCIP "
                f"doesn't know: write it with {', '.join(sorted(_FUNCTIONS))}",
            )
        if all(isinstance(child, float) for child in children):
            children = [buildGenExprObj(children[0]), *children[1:]]
        return _FUNCTIONS[op](*children)

    def _auxiliary(self, expr):
        self._auxiliaries += 1
        name = f"{self._name}~{self._auxiliaries}"
        variable = self._scip.addVar(name, "C", None, None)
        self._scip.addCons(expr - variable == 0.0, name=name)
        return VarExpr(variable)


def _bottom_up(root):
    """The distinct nodes, each after its children, and by node id how often each is used."""
    order, uses, waiting = [], {}, [(root, False)]
    while waiting:
        node, is_done = waiting.pop()
        key = id(node)
        if is_done:
            order.append(node)
            continue
        uses[key] = uses.get(key, 0) + 1
        if uses[key] == 1:
            waiting.append((node, True))
            waiting.extend((child, False) for child in node.children)
    return order, uses
