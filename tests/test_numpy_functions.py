"""NumPy's functions and pandas beside blocks: the right block, or a TypeError that says what to use.

What is right is told by NumPy: a function of a block, taken at the variables' values, is the
function of the values.
"""

import copy
import warnings

import numpy as np
import pytest
import scipy.sparse as sp
import trees

import taviropy as tv

C = np.arange(1.0, 10.0).reshape(3, 3)
BLOCKS = (tv.MVar, tv.MLinExpr, tv.MQuadExpr, tv.MNLExpr)
KINDS = {
    "MVar": lambda x, X: (x, X),
    "MLinExpr": lambda x, X: (C @ x, C * X + 1),
    "MQuadExpr": lambda x, X: (x * (C @ x), X * X + x),
    "MNLExpr": lambda x, X: (tv.exp(x), tv.sin(X) + x),
}


class Point:
    """Variables with values, and the values of blocks."""

    def __init__(self):
        model = tv.Model()
        self.x, self.X = model.addMVar(3), model.addMVar((3, 3))
        self.at, self.v, self.V = trees.point(self.x, self.X)

    def blocks(self, kind):
        """New ones at each call, since a function might change them."""
        return KINDS[kind](self.x.copy(), self.X.copy())

    def value(self, result):
        if not isinstance(result, BLOCKS):
            return result
        convert = {
            tv.MVar: tv.MNLExpr._from_mvar,
            tv.MLinExpr: tv.MNLExpr._from_mlinexpr,
            tv.MQuadExpr: tv.MNLExpr._from_mquadexpr,
            tv.MNLExpr: copy.copy,
        }
        return trees.values_of(convert[type(result)](result), self.at)


@pytest.fixture
def point():
    return Point()


def same(point, got, want):
    if isinstance(want, tuple | list):
        return len(got) == len(want) and all(map(lambda g, w: same(point, g, w), got, want))
    got = point.value(got)
    return np.shape(got) == np.shape(want) and np.allclose(np.asarray(got, dtype=float), want)


# ---- every function of NumPy

# NumPy doesn't ask a block about these, which take it for one object.
UNASKED = {"array", "asanyarray", "asarray", "asarray_chkfinite", "ascontiguousarray"}
UNASKED |= {"asfortranarray", "asmatrix", "bmat", "full", "kaiser", "mintypecode", "require"}
# No values come out of these.
SKIPPED = {"empty_like", "get_include", "info", "printoptions", "show_config", "show_runtime"}
SKIPPED |= {"save", "savetxt", "savez", "savez_compressed", "set_printoptions", "test"}
ARGUMENTS = ["x", "X", "c,x", "x,c", "x,x", "C,x", "X,c", "X,C", "x,1", "1,x", "mask,x,c", "[x,c]"]
STACKING = {"concat", "concatenate", "vstack", "hstack", "stack", "column_stack", "append"}


def public_functions():
    for module in (np, np.linalg, np.fft):
        for name in sorted(set(module.__all__) - SKIPPED - UNASKED):
            func = getattr(module, name)
            if callable(func) and not isinstance(func, type):
                yield name, func


def arguments(text, x, X):
    names = {"x": x, "X": X, "c": np.array([1.0, 2.0, 4.0]), "C": C.copy()}
    return eval(f"[{text}]", {**names, "mask": np.array([True, False, True])})


@pytest.mark.parametrize("kind", KINDS)
def test_every_function_gives_the_right_block_or_a_type_error(point, kind):
    right, wrong = set(), []
    with warnings.catch_warnings(), np.errstate(all="ignore"):
        warnings.simplefilter("ignore")
        for name, func in public_functions():
            for text in ARGUMENTS:
                if "[" in text and name not in STACKING:
                    continue
                if kind == "MNLExpr" and name in ("equal", "not_equal"):  # it has none
                    continue
                blocks = point.blocks(kind)
                given = arguments(text, *blocks)
                values = arguments(text, *map(point.value, blocks))
                want = outcome(func, copy.deepcopy(values))
                got = outcome(func, given)
                if isinstance(got, Exception):
                    fits = isinstance(want, Exception) or is_refusal(name, got)
                elif isinstance(got, tv.TempConstr):
                    fits = is_comparison_of(point, name, got, values)
                elif isinstance(want, Exception):
                    fits = not holds_blocks(got)
                else:
                    fits = same(point, got, want)
                    right.add(name)
                if not fits:
                    wrong.append((name, text, got))
    assert not wrong
    work = "add concatenate diff dot exp hstack mean multiply outer ravel repeat shape stack sum"
    assert right >= set(work.split()) - ({"outer"} if kind == "MNLExpr" else set())


def outcome(func, args):
    try:
        return func(*args)
    except Exception as error:
        return error


def holds_blocks(result):
    parts = result if isinstance(result, tuple | list) else [result]
    return any(isinstance(part, BLOCKS) or np.asarray(part).dtype == object for part in parts)


def is_refusal(name, error):
    """A TypeError, but for what functions say that look at an attribute, or fill an array."""
    if name == "not_equal":
        return isinstance(error, tv.TaviroError | TypeError)
    others = {"from_dlpack": AttributeError, "isfortran": AttributeError}
    return isinstance(error, others.get(name, TypeError)) or "array element" in str(error)


def is_comparison_of(point, name, constr, values):
    """`array <= x` is `x >= array`: the sides in their order or turned round."""
    sides = [point.value(constr.lhs), point.value(constr.rhs)]
    sense = {"less_equal": "<", "greater_equal": ">", "equal": "="}[name]
    turned = {"<": ">", ">": "<", "=": "="}[sense]
    return (constr.sense == sense and all(map(np.array_equal, sides, values))) or (
        constr.sense == turned and all(map(np.array_equal, sides[::-1], values))
    )


# ---- the functions behind operators

OPERATORS = {
    np.add: "__radd__", np.subtract: "__rsub__", np.multiply: "__rmul__", np.matmul: "__rmatmul__",
    np.divide: "__rtruediv__", np.power: "__rpow__", np.less_equal: "__ge__",
    np.greater_equal: "__le__", np.equal: "__eq__", np.not_equal: "__ne__",
}  # fmt: skip


class Recorder(tv.MVar):
    """Its reflected operators give their name, and what they were given."""


for _name in OPERATORS.values():
    setattr(Recorder, _name, lambda self, other, name=_name: (name, other))


class Counts(np.ndarray):
    """An array class whose operator asks NumPy's own."""

    def __add__(self, other):
        return super().__add__(other)


@pytest.mark.parametrize("ufunc", OPERATORS, ids=lambda ufunc: ufunc.__name__)
def test_the_function_of_an_operator_is_its_reflected_method(point, ufunc):
    x = Recorder(point.x._vararr)
    own = np.array([point.x[0].item(), 1, 2.5], dtype=object)
    for left in (np.arange(3.0), C, np.array(2.0), np.int8(2), 2, np.zeros((0, 3)), own):
        name, given = ufunc(left, x)
        assert name == OPERATORS[ufunc] and given is left
    name, given = ufunc([1.0, 2.0, 3.0], x)
    assert name == OPERATORS[ufunc] and type(given) is np.ndarray
    counts = np.arange(3).view(Counts)
    assert (counts + x)[1] is counts


@pytest.mark.parametrize("symbol", ["+", "-", "*", "/", "**", "@"])
def test_an_array_in_place_becomes_the_expression(point, symbol):
    for array in (np.arange(1.0, 4.0), C.copy()):
        before = array.copy()
        scope = {"total": array, "x": point.x}
        exec(f"total {symbol}= x", scope)
        want = eval(f"array {symbol} v", {"array": before, "v": point.v})
        assert same(point, scope["total"], want)
        assert np.array_equal(array, before)


def test_what_neither_operand_knows_is_pythons_own_error(point):
    array, nl = np.arange(3.0), tv.exp(point.x)
    assert (array == nl) is (nl == array) is False and (array != nl) is True
    for call, text in [
        (lambda: array < point.x, "'<' not supported between instances of 'numpy.ndarray' and"),
        (lambda: np.greater(point.x, array), "'>' not supported"),
        (lambda: array**point.x * None, "unsupported operand"),
        (lambda: point.x > array, "'>' not supported between instances of 'MVar' and 'numpy.nda"),
        (lambda: array <= nl, "'<=' not supported between instances of 'numpy.ndarray' and 'MNLE"),
        (lambda: nl <= array, "'<=' not supported between instances of 'MNLExpr' and 'numpy.nda"),
        (lambda: nl <= 1, "'<=' not supported between instances of 'MNLExpr' and 'int'"),
        (lambda: np.equal(nl, tv.exp(point.x)), "equal"),
        (lambda: array // point.x, "floor_divide takes no MVar"),
    ]:
        with pytest.raises(TypeError, match=text):
            call()


def test_scipys_matrices_still_give_way(point):
    for form in (sp.csr_array, sp.csr_matrix, sp.coo_array, sp.dia_array, sp.bsr_array):
        for block, value in ((point.x, point.v), (2 * point.x, 2 * point.v), (point.X, point.V)):
            assert same(point, form(C) @ block, C @ value)
            assert same(point, block @ form(C), value @ C)
        assert same(point, np.multiply(form(C), point.X), C * point.V)


# ---- the errors


@pytest.mark.parametrize(
    ("call", "text"),
    [
        (lambda x: np.max(x), "numpy.max takes no MVar: add a variable t"),
        (lambda x: np.where([True, False, True], x, 0), "use mask [*] x"),
        (lambda x: np.cumsum(x), "np.tri"),
        (lambda x: np.add.reduce(x), r"numpy.add.reduce takes no MVar: use x.sum\(axis\)"),
        (lambda x: np.multiply.outer(x, x), "numpy.multiply.outer takes no MVar"),
        (lambda x: np.linalg.norm(x), "numpy.linalg.norm takes no MVar: use tv.sqrt"),
        (lambda x: np.log1p(x), r"use tv.log\(1 [+] x\)"),
        (lambda x: np.sum(x, dtype=int), r"'dtype'; use sum\(a, axis=None\)"),
        (lambda x: np.add(x, 1.0, where=[True, False, True]), "takes no where"),
        (lambda x: np.add(np.ones(3), 1.0, out=x), "takes no out"),
        (lambda x: np.ma.mean(x), "numpy.ma take no MVar"),
        (lambda x: np.ma.multiply(np.ones(3), x), "numpy.ma take no MVar"),
    ],
)
def test_an_error_says_what_to_use(point, call, text):
    with pytest.raises(TypeError, match=text):
        call(point.x)


@pytest.mark.parametrize("kind", KINDS)
def test_functions_with_arguments_of_their_own(point, kind):
    _, X = point.blocks(kind)
    V = point.value(X)
    for call in [
        lambda X: np.reshape(X, (1, 9)),
        lambda X: np.reshape(X, -1, order="F"),
        lambda X: np.transpose(X[:2], (1, 0)),
        lambda X: np.moveaxis(np.expand_dims(X, 0), 0, 2),
        lambda X: np.roll(X, 1, axis=1),
        lambda X: np.take(X, [2, 0], axis=1),
        lambda X: np.repeat(X, [1, 0, 2], axis=0),
        lambda X: np.tile(X, (2, 1)),
        lambda X: np.delete(X, 1, axis=0),
        lambda X: np.broadcast_to(X, (2, 3, 3)),
        lambda X: np.split(X, [1], axis=1),
        lambda X: np.sum(X, axis=-1),
        lambda X: np.mean(X, axis=0),
        lambda X: np.trace(X, 1),
        lambda X: np.diff(X, 2, axis=0),
        lambda X: np.concatenate([X, C, X], axis=1),
        lambda X: np.concatenate([[7.0, 8.0], X], axis=None),
        lambda X: np.stack([X, C], axis=-1),
        lambda X: np.vstack([X, [1.0, 2.0, 3.0]]),
        lambda X: np.dot(C[0], X),
        lambda X: np.dot(X, 2.0),
        lambda X: np.inner(C, X),
        lambda X: np.zeros_like(X, dtype=int),
        lambda X: np.full_like(X, 3.0),
        lambda X: np.size(X, 1),
        lambda X: np.sum(X[:0], axis=0),
    ]:
        assert same(point, call(X), call(V))


def test_results_of_moves_are_copies(point):
    e = 2 * point.x
    for moved in (np.ravel(e), np.flip(e), np.reshape(e, (3, 1)), np.repeat(e, 2), np.copy(e)):
        moved += 1.0
    assert same(point, e, 2 * point.v)
    repeated = np.repeat(e, 2)
    repeated[0] += point.x[2]
    assert same(point, repeated[1], 2 * point.v[0])
    assert type(np.repeat(point.x, 2)) is tv.MVar
    single = point.x.sum()
    assert same(point, np.repeat(single, 3), np.repeat(point.v.sum(), 3))
    assert same(point, np.squeeze(single), point.v.sum())


# ---- pandas

PANDAS_CALLS = [
    f"{a}{sign}{b}" for sign in ("*", "+", "-", "/", "**", "@") for a, b in ("sx", "xs")
]
PANDAS_CALLS += ["D@x", "x@D", "D*x", "x-D", "i*x", "x+i"]


@pytest.mark.parametrize("kind", KINDS)
def test_pandas_objects_are_refused_beside_operators(point, kind):
    pd = pytest.importorskip("pandas")
    x, X = point.blocks(kind)
    scope = {"s": pd.Series([1.0, 2.0, 4.0], index=[2, 1, 0]), "D": pd.DataFrame(C), "np": np}
    scope |= {"i": pd.Index([1.0, 2.0, 4.0]), "x": x, "X": X}
    for text in [*PANDAS_CALLS, "s.dot(x)", "D.dot(X)", "np.multiply(s, x)", "np.add(x, s)"]:
        with pytest.raises(TypeError, match=r"[.]to_numpy\(\)"):
            eval(text, scope)
    with pytest.raises(TypeError, match="to_numpy"):
        exec("x += s", scope)
    assert not hasattr(x, "__array__") and np.asarray(x).shape == ()


def test_pandas_objects_are_no_side_of_a_constraint(m):
    pd = pytest.importorskip("pandas")
    x = m.addMVar(3)
    s = pd.Series([1.0, 2.0, 4.0])
    for make in (lambda: x <= s, lambda: s >= x, lambda: s == 2 * x, lambda: x * x <= s):
        with pytest.raises(TypeError, match="to_numpy"):
            m.addConstr(make())
    m.addConstr(x <= s.to_numpy())
    m.update()
    assert m.NumConstrs == 3
