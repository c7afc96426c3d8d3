"""Expression trees as plain data and as numbers, for tests. Nothing here recurses."""

import numpy as np

OPERATIONS = {
    "plus": lambda *terms: sum(terms),
    "minus": lambda a, b: a - b,
    "multiply": lambda a, b: a * b,
    "divide": lambda a, b: a / b,
    "pow": lambda a, b: a**b,
    "square": lambda a: a * a,
    "uminus": lambda a: -a,
}


def fold(node, leaf, inner):
    """The result of `inner(op, results of the children)` at the root; `leaf(node)` begins it."""
    results, todo = [], [(node, False)]
    while todo:
        node, ready = todo.pop()
        if node.op in ("constant", "var"):
            results.append(leaf(node))
        elif ready:
            count = len(node.children)
            arguments = results[len(results) - count :]
            del results[len(results) - count :]
            results.append(inner(node.op, arguments))
        else:
            todo.append((node, True))
            todo.extend((child, False) for child in reversed(node.children))
    (result,) = results
    return result


def form(node):
    """A tree as nested tuples `(op, child, ...)`; constants are numbers, variables themselves."""
    return fold(node, lambda leaf: leaf.data, lambda op, children: (op, *children))


def value_of(node, at):
    """The value of a tree at a point, a dictionary of variables."""

    def leaf(node):
        return node.data if node.op == "constant" else at[node.data]

    def inner(op, arguments):
        return OPERATIONS.get(op, getattr(np, op, None))(*arguments)

    return fold(node, leaf, inner)


def values_of(nl, at):
    """The values of the elements of an MNLExpr, in its shape."""
    values = [value_of(element._root, at) for element in nl._nlearr.flat]
    return np.array(values, dtype=float).reshape(nl.shape)


def roots(nl):
    """The root nodes of an MNLExpr's elements, in C order."""
    return [element._root for element in nl._nlearr.flat]


def forms(nl):
    """The elements of an MNLExpr as `form` gives them, in C order."""
    return [form(root) for root in roots(nl)]


def point(*mvars):
    """A dictionary with a value for each variable, and the values of each block as an array."""
    rng = np.random.default_rng(7)
    arrays = [rng.uniform(0.5, 2.0, x.shape) for x in mvars]
    at = {}
    for x, array in zip(mvars, arrays, strict=True):
        at.update(zip(x._vararr.flat, array.flat, strict=True))
    return at, *arrays
