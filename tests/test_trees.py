"""Nonlinear expressions and their trees: building, sharing, values, and trees of any depth."""

import math

import numpy as np
import pytest

import taviropy as tv
from taviropy import LinExpr, NLExpr, QuadExpr
from taviropy._core import _ExprTree
from taviropy._scalars import data_of, gather_trees, tree_values
from taviropy.data.trees import OPERATIONS, Trees

DEPTH = 100_000


@pytest.fixture(scope="module")
def xy():
    with tv.Model() as m:
        m.setOption("log", False)
        made = [m.addVar(lb=v, ub=v, name=n) for v, n in [(2.0, "x"), (-0.5, "y")]]
        m.optimize()
        yield made


def spell(node):
    """A node as nested tuples: (op, data or children ...)."""
    if node.op in ("constant", "var"):
        return str(node.data)
    return (node.op, *map(spell, node.children))


def test_nodes(xy):
    x, y = xy
    two, node = _ExprTree._from_constant(np.int64(2)), _ExprTree._from_var(x)
    assert (two.op, two.data, two.children) == ("constant", 2.0, ()) and type(two.data) is float
    assert (node.op, node.data, node.children) == ("var", x, ())
    for op in ("minus", "multiply", "divide", "pow"):
        made = getattr(_ExprTree, "_from_" + op)(two, node)
        assert made.op == op and made.data is None
        assert made.children[0] is two and made.children[1] is node
    for op in ("square", "uminus"):
        assert getattr(_ExprTree, "_from_" + op)(node).children == (node,)
    assert spell(_ExprTree._from_plus()) == ("plus",)
    assert spell(_ExprTree._from_plus(two, node, two)) == ("plus", "2.0", "x", "2.0")
    assert _ExprTree._from_function("sin", node).op == "sin"


def test_nodes_refuse(xy):
    node = _ExprTree._from_var(xy[0])
    for error, make in [
        (TypeError, lambda: _ExprTree._from_plus(node, 1.0)),
        (TypeError, lambda: _ExprTree._from_divide(node)),
        (TypeError, lambda: _ExprTree._from_square(node, node)),
        (TypeError, lambda: _ExprTree._from_var(1)),
        (TypeError, lambda: _ExprTree._from_constant(None)),
        (AttributeError, lambda: _ExprTree._from_linexpr(xy[0])),
        (AttributeError, lambda: _ExprTree._from_quad_expr(LinExpr())),
        (ValueError, lambda: _ExprTree._from_function("sinh", node)),
        (TypeError, lambda: NLExpr("x")),
        (TypeError, lambda: NLExpr._from_plus(node)),
        (TypeError, lambda: setattr(NLExpr(node), "_root", 1.0)),
        (AttributeError, lambda: delattr(NLExpr(node), "_root")),
        (AttributeError, lambda: setattr(node, "data", 1.0)),
    ]:
        with pytest.raises(error):
            make()


def test_trees_of_expressions(xy):
    x, y = xy
    terms = _ExprTree._linexpr_terms(1.0 * x - 2 * y + 3)
    assert [spell(t) for t in terms] == ["x", ("multiply", "-2.0", "y"), "3.0"]
    terms = _ExprTree._quadexpr_terms(x * x + 2 * x * y + y)
    product = ("multiply", "2.0", ("multiply", "x", "y"))
    assert [spell(t) for t in terms] == [("square", "x"), product, "y"]
    for value, tree in [
        (3, "3.0"),
        (x, "x"),
        (LinExpr(), "0.0"),
        (LinExpr(x), "x"),
        (x + y, ("plus", "x", "y")),
        (QuadExpr(), "0.0"),
        (x * y, ("multiply", "x", "y")),
        (x * y + 1, ("plus", ("multiply", "x", "y"), "1.0")),
        (NLExpr(x), "x"),
    ]:
        assert spell(NLExpr._coerce_to_exprtree(value)) == tree
        assert spell(NLExpr(value)._root) == tree


def test_operators(xy):
    x, y = xy
    n = NLExpr(x)
    for other, tree in [(2, "2.0"), (y, "y"), (y + 1, ("plus", "y", "1.0")), (n, "x")]:
        for op, made, reflected in [
            ("plus", n + other, other + n),
            ("minus", n - other, other - n),
            ("multiply", n * other, other * n),
            ("divide", n / other, other / n),
        ]:
            assert (spell(made._root), spell(reflected._root)) == ((op, "x", tree), (op, tree, "x"))
    assert spell((n**3)._root) == ("pow", "x", "3.0") and spell((2**n)._root) == ("pow", "2.0", "x")
    assert spell((n**2)._root) == ("square", "x") and spell((-n)._root) == ("uminus", "x")
    assert spell((x / y)._root) == ("divide", "x", "y") and spell((1 / x)._root)[0] == "divide"
    assert spell((x * y * x)._root) == ("multiply", ("multiply", "x", "y"), "x")
    assert spell(abs(x - 1)._root) == ("abs", ("plus", "x", "-1.0"))
    with pytest.raises(TypeError):
        pow(n, 2, 3)


def test_in_place_replaces_the_root_of_this_object_alone(xy):
    x, y = xy
    n = same = NLExpr(x)
    twin, root = n.copy(), n._root
    n += y
    n *= 2
    n /= n
    n **= 2
    n -= 1
    assert n is same and twin._root is root and spell(root) == "x"
    quotient = n._root.children[0].children[0]
    assert quotient.op == "divide" and quotient.children[0] is quotient.children[1]
    with pytest.raises(TypeError):
        n += "text"
    plus = NLExpr._from_plus(n, twin)
    assert plus._root.children == (n._root, root)


def test_values(xy):
    x, y = xy
    a, b = 2.0, -0.5
    for expr, value in [
        (x**3 / y - 2**y, a**3 / b - 2**b),
        (np.exp(x) * np.log(x) + np.sqrt(x), math.exp(a) * math.log(a) + math.sqrt(a)),
        (np.sin(x) - np.cos(y) * np.tan(x * y), math.sin(a) - math.cos(b) * math.tan(a * b)),
        (abs(y) ** 2 - -(x / 1), b * b + a),
        (NLExpr._from_plus(), 0.0),
        (x / (y + 0.5), math.inf),
    ]:
        assert NLExpr(expr).getValue() == pytest.approx(value)
    assert math.isnan(np.sqrt(y).getValue())


@pytest.mark.parametrize("grow", [lambda n, x: n + x, lambda n, x: x - n, lambda n, x: -n])
def test_deep_chains(xy, grow):
    n = NLExpr(xy[0])
    for _ in range(DEPTH):
        n = grow(n, xy[0])
    assert math.isfinite(n.getValue()) and len(str(n)) < 5000
    trees = Trees(*gather_trees(data_of(xy[0]), [n._root]))
    assert trees.count == 1 and len(trees.codes) >= DEPTH
    assert trees.values(np.array([xy[0].X, xy[1].X])) == [n.getValue()]
    node = n._root
    del n, node


def test_shared_nodes_are_walked_once(xy):
    n = NLExpr(xy[0] / 2.0 + 0.0)
    n = NLExpr(n._root)
    for _ in range(200):
        n = (n + n) * 0.5
    assert n.getValue() == pytest.approx(1.0) and len(str(n)) < 5000
    trees = Trees(*gather_trees(data_of(xy[0]), [n._root, n._root]))
    operations = len(trees.codes) // 2  # each tree has its own
    assert operations < 800 and OPERATIONS[trees.codes[-1]] == "multiply"
    assert trees.first[trees.variables()].tolist() == [0, 0]
    inner = trees.first >= 0
    inner[trees.variables()] = False
    places = np.tile(np.arange(operations), 2)
    assert (trees.first < places)[inner].all() and (trees.second < places).all()
    assert trees.values(np.array([xy[0].X, xy[1].X])) == pytest.approx([1.0, 1.0])


def test_trees_as_arrays_are_checked(xy):
    x, y = xy
    trees = Trees(*gather_trees(data_of(x), [NLExpr(x * y)._root]))
    arrays = [trees.indptr, trees.codes, trees.first, trees.second, trees.numbers, np.ones(2)]
    for place, spoilt in (
        (0, np.array([0, 99])),
        (0, np.empty(0, np.int64)),
        (1, trees.codes[:-1]),
        (2, np.full_like(trees.first, 7)),
        (3, np.full_like(trees.second, 7)),
        (5, np.ones(1)),
    ):
        with pytest.raises(ValueError, match="tree|variable"):
            tree_values(*arrays[:place], spoilt, *arrays[place + 1 :])
    with pytest.raises(TypeError):
        tree_values(*arrays[:5], np.ones(2, int))
    with pytest.raises(TypeError, match="_ExprTree"):
        gather_trees(data_of(x), [x])
