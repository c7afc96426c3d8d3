"""Building a model: variables, constraints and objectives, and what is refused."""

import tracemalloc
from fractions import Fraction

import numpy as np
import pytest
import scipy.sparse as sp
from inside import lp_of, view_of

import taviropy as tv
from taviropy import TVO, TaviroError

INF = float("inf")


@pytest.fixture
def model():
    with tv.Model("test") as m:
        m.setOption("log", False)
        yield m


def refused(code, *words):
    """Expect a TaviroError with a code and some words."""
    return pytest.raises(
        TaviroError, match=".*".join(words) or ".", check=lambda e: e.args[0] == code
    )


INVALID = TVO.Error.ERROR_INVALID_ARGUMENT


def test_variables_of_all_kinds(model):
    v = model.addVar(lb=-1, ub=4, obj=2, vtype="I", name="v")
    x = model.addMVar((2, 3), lb=np.arange(3), ub=np.array([[5.0], [6.0]]), name="x")
    b = model.addMVar(2, vtype=["B", "C"], name=["p", "q"])
    assert v._colno == -1 and x.shape == (2, 3)
    model.update()
    assert v._colno == 0 and x[1, 2].item()._colno == 6
    assert (v.LB, v.UB, v.Obj, v.VType, v.VarName) == (-1, 4, 2, "I", "v")
    np.testing.assert_array_equal(x.LB, [[0, 1, 2], [0, 1, 2]])
    np.testing.assert_array_equal(x.UB, [[5, 5, 5], [6, 6, 6]])
    assert x.VarName.tolist() == [[f"x[{i},{j}]" for j in range(3)] for i in range(2)]
    assert b.VType.tolist() == ["B", "C"] and b.VarName.tolist() == ["p", "q"]
    np.testing.assert_array_equal(b.UB, [1, INF])  # a binary variable's bounds are cut
    assert model.addMVar(()).shape == () and model.addMVar((0, 3)).size == 0
    model.update()
    assert model.NumVars == 10


@pytest.mark.parametrize(
    "arguments, error",
    [
        ({"lb": float("nan")}, TaviroError),
        ({"ub": np.array([1, np.nan, 1])}, TaviroError),
        ({"obj": INF}, TaviroError),
        ({"obj": "1"}, TaviroError),
        ({"vtype": "X"}, TaviroError),
        ({"vtype": ["C", "I", "c"]}, TaviroError),
        ({"lb": np.zeros(2)}, ValueError),
        ({"vtype": ["C", "I"]}, ValueError),
        ({"name": ["a", "b"]}, ValueError),
        ({"name": 3}, TaviroError),
    ],
)
def test_bad_column_data_add_nothing(model, arguments, error):
    with pytest.raises(error):
        model.addMVar(3, **arguments)
    if error is TaviroError and "name" not in arguments:
        scalar = {k: v if np.isscalar(v) else v[1] for k, v in arguments.items()}
        if scalar != {"vtype": "I"}:
            with pytest.raises(TaviroError):
                model.addVar(**scalar)
    x = model.addMVar(3)
    model.update()
    assert model.NumVars == 3 and x._idxarr().tolist() == [0, 1, 2]


@pytest.mark.parametrize("shape", [-1, (2, -3), 1.5, "ab", (2, "a"), None])
def test_bad_shapes(model, shape):
    with pytest.raises(ValueError, match="shape"):
        model.addMVar(shape)


def test_both_sides_of_a_constraint_broadcast(model):
    x = model.addMVar(3)
    y = model.addMVar((2, 1))
    b = np.arange(3.0)
    shapes = {
        "size-1 side": (x.sum() <= b, (3,)),
        "scalar": (x >= 1, (3,)),
        "row and column": (x + 0 <= y, (2, 3)),
        "two expressions": (2 * x == x + b, (3,)),
        "matrix of variables": (y <= b, (2, 3)),
        "sparse": (y <= sp.csr_matrix([[1.0], [2.0]]), (2, 1)),
        "list": (x <= [1, 2, 3], (3,)),
        "tuple": (x <= (0, 1, 2), (3,)),
        "fractions": (x <= [Fraction(1, 2), 1, x[0].item()], (3,)),
        "0-d": (x.sum() == 1, ()),
    }
    for text, (comparison, shape) in shapes.items():
        constr = model.addConstr(comparison)
        assert isinstance(constr, tv.MConstr), text
        assert constr.shape == shape, text
    assert isinstance(model.addConstr(x[0].item() + 1 <= 2), tv.Constr)
    with pytest.raises(ValueError, match=r"\(3,\).*\(2,\)"):
        model.addConstr(x <= np.ones(2))
    with pytest.raises(TypeError, match="comparison"):
        model.addConstr(True)
    model.update()
    assert model.NumConstrs == 3 + 3 + 6 + 3 + 6 + 2 + 3 * 3 + 1 + 1


def rows_of(model):
    """Coefficients and right-hand sides as the engine has them."""
    lp = lp_of(model)
    matrix = sp.csc_matrix(
        (lp.a_matrix_.value_, lp.a_matrix_.index_, lp.a_matrix_.start_),
        shape=(lp.num_row_, lp.num_col_),
    ).toarray()
    return matrix, np.array(lp.row_lower_), np.array(lp.row_upper_)


@pytest.mark.parametrize("compact", [1, 0])
def test_rows_are_left_minus_right(model, compact, monkeypatch):
    rng = np.random.default_rng(3)
    A, B = rng.normal(size=(4, 3)), sp.random_array((4, 5), density=0.5, rng=rng)
    r, s = rng.normal(size=4), rng.normal(size=4)
    x, y = model.addMVar(3), model.addMVar(5)
    monkeypatch.setattr(tv.MLinExpr, "_keep_compact", compact)
    left, right = A @ x + r, B @ y - 2 * s
    parts = right._matmulparts
    both = A @ x + y[:4]
    length = both._matmulparts and len(both._matmulparts)
    model.remove(model.addConstr(both <= 1))
    model.update()
    assert (both._matmulparts and len(both._matmulparts)) == length
    model.addConstr(left <= right)
    model.addConstr(left + A[:, ::-1] @ x >= 1)  # equal columns are added up
    model.addConstr(A @ x + y[:4] == x[0].item() + s)
    assert right._matmulparts is parts
    forms = left._matmulparts is not None, right._matmulparts is not None
    model.addConstr(left.sum() <= right)  # one element against four
    matrix, lower, upper = rows_of(model)
    expected = np.hstack([A, -B.toarray()])
    np.testing.assert_allclose(matrix[:4], expected)
    np.testing.assert_allclose(upper[:4], -2 * s - r)
    np.testing.assert_allclose(matrix[4:8], np.hstack([A + A[:, ::-1], np.zeros((4, 5))]))
    np.testing.assert_allclose(lower[4:8], 1 - r)
    third = np.hstack([A, np.eye(4, 5)])
    third[:, 0] -= 1
    np.testing.assert_allclose(matrix[8:12], third, atol=1e-15)
    np.testing.assert_allclose(lower[8:12], s)
    np.testing.assert_allclose(matrix[12:], np.hstack([np.tile(A.sum(0), (4, 1)), -B.toarray()]))
    assert forms == (compact == 1, compact == 1)


def test_a_sparse_block_takes_no_memory_for_each_term(monkeypatch):
    rng = np.random.default_rng(5)
    n = 20_000
    A = sp.random_array((n, n), density=10 / n, rng=rng, format="csr")
    size = A.data.nbytes + A.indices.nbytes + A.indptr.nbytes
    peaks = []
    for compact in (1, 0):
        monkeypatch.setattr(tv.MLinExpr, "_keep_compact", compact)
        with tv.Model() as m:
            tracemalloc.start()
            x = m.addMVar(n)
            m.addConstr(A @ x + np.ones(n) <= 3)
            m.load()
            peaks.append(tracemalloc.get_traced_memory()[1] / size)
            tracemalloc.stop()
    assert peaks[0] < 3.5 < peaks[1]  # with an expression a row it is several times that


@pytest.mark.parametrize("large", [False, True])
def test_operands_can_change_after_a_constraint_was_added(model, large):
    n = 6000 if large else 3
    A = sp.eye_array(n, format="csr") * 2.0
    x = model.addMVar(n)
    b = np.ones(n)
    e = A @ x + b
    comparison = e <= 5
    model.addConstr(comparison)
    model.addConstr(e >= b)
    e *= 7
    e += x
    b[:] = 9
    A.data[:] = 9
    e._matmulparts[0][0].data[:] = 9
    lone = A @ x  # still held here, though its comparison isn't
    model.addConstr(lone <= 5)
    lone *= 2
    rows = view_of(model).rows
    np.testing.assert_array_equal(rows.data, np.repeat([2.0, 2.0, 9.0], n))
    np.testing.assert_array_equal(model.getConstrs().RHS, np.repeat([4.0, 0.0, 5.0], n))


def test_bad_data_in_a_constraint_add_nothing(model):
    x = model.addMVar(3)
    v = model.addVar(name="v")
    with tv.Model() as other:
        y = other.addMVar(3)
        gone = model.addVar()
        model.update()
        model.remove(gone)
        model.update()
        nan, inf = float("nan"), np.inf
        big = np.full((3, 3), inf)
        for comparison in (
            x <= nan,
            x <= [1, nan, 2],
            x <= np.ma.array([1.0, 2.0, 3.0], mask=[False, True, False]),
            big @ x <= 1,
            v * inf <= 1,
            v <= nan,
            (A := sp.csr_matrix([[1, nan, 0]])) @ x <= 1,
            1 * v <= nan * v,
        ):
            with refused(INVALID):
                model.addConstr(comparison)
        for comparison in (x <= y, y <= 1, y.sum() <= 1, y[0].item() <= 1, v <= y[0].item()):
            with refused(INVALID):
                model.addConstr(comparison)
        for comparison in (gone <= 1, tv.MVar.fromlist([gone, v]) >= 1, v <= gone + 1):
            with refused(TVO.Error.NOT_IN_MODEL):
                model.addConstr(comparison)
        with refused(INVALID, "sense"):
            model.addConstr(tv.TempConstr(v, "<>", 1.0))
        for operand in ("abc", None, {}, range(3), 1j, ["a", "b", "c"], [v, None, 1]):
            with pytest.raises(TypeError, match="can't take .* of type"):
                model.addConstr(x <= operand)
            with pytest.raises(TypeError, match="can't take .* of type"):
                model.setObjective(operand)
        broken = A @ x
        broken._matmulparts[0][0].indices[0] = 77
        with pytest.raises((ValueError, IndexError)):
            model.addConstr(broken <= 1)
    constr = model.addConstr(x <= 1)
    model.update()
    assert model.NumConstrs == 3 and constr._idxarr().tolist() == [0, 1, 2]


def test_names_of_constraints(model):
    x = model.addMVar((2, 2))
    c = model.addConstr(x <= 1, name="c")
    d = model.addConstr(x.sum() <= 1)
    e = model.addConstr(x[0, 0].item() <= 1, name="e")
    f = model.addConstr(x[0] <= 1, name=["f", "g"])
    model.update()
    assert c.ConstrName.tolist() == [["c[0,0]", "c[0,1]"], ["c[1,0]", "c[1,1]"]]
    assert d.ConstrName.item() == "R4" and e.ConstrName == "e"
    model.remove(c)
    model.remove(x[0])
    model.update()
    assert d.ConstrName.item() == "R4" and f.ConstrName.tolist() == ["f", "g"]
    assert x[1].VarName.tolist() == ["C2", "C3"]
    assert model.getConstrByName("g")._rowno == 3
    assert model.getConstrByName("c[0,0]") is None
    assert model.getVarByName("C3")._colno == 1


def test_objectives(model):
    x = model.addMVar(3, obj=5.0)
    v = model.addVar(obj=1)
    c = np.array([1.0, 2.0, 3.0])
    for expr, costs, offset in [
        (c @ x, [1, 2, 3, 0], 0),
        (c @ x + v + 4 + x[1].item(), [1, 3, 3, 1], 4),
        (v, [0, 0, 0, 1], 0),
        (2 * v + v, [0, 0, 0, 3], 0),
        (x[2], [0, 0, 1, 0], 0),
        (7, [0, 0, 0, 0], 7),
        (x.sum() + 1, [1, 1, 1, 0], 1),
    ]:
        model.setObjective(expr, "max")
        model.update()
        np.testing.assert_array_equal(model.getVars().Obj, costs)
        assert model.ObjOffset == offset and model.ObjSense == TVO.MAXIMIZE
    for expr, error in [
        (x, ValueError),
        (x + 1, ValueError),
        (v * np.nan, TaviroError),
        (c @ x + np.inf, TaviroError),
    ]:
        with pytest.raises(error):
            model.setObjective(expr)
    with pytest.raises(ValueError, match="sense"):
        model.setObjective(v, "minimum")
    np.testing.assert_array_equal(model.getVars().Obj, [1, 1, 1, 0])
    model.ObjSense = "min"
    model.ObjOffset = -2
    assert (model.ObjSense, model.ObjOffset) == (1, -2)


def test_removal_moves_later_elements_up(model):
    x = model.addMVar(5, obj=np.arange(5))
    c = model.addConstr(np.tri(5) @ x <= np.arange(5))
    waiting = model.addVar()
    model.remove(waiting)
    model.update()
    assert waiting._colno == -2
    model.remove([x[1], c[0].item(), (c[3:], x[4].item())])
    assert x._idxarr().tolist() == [0, 1, 2, 3, 4]
    model.remove(x[1])
    model.update()
    assert x._idxarr().tolist() == [0, -2, 1, 2, -2]
    assert c._idxarr().tolist() == [-2, 0, 1, -2, -2]
    np.testing.assert_array_equal(x[[0, 2, 3]].Obj, [0, 2, 3])
    np.testing.assert_array_equal(c[1:3].RHS, [1, 2])
    y = model.addMVar(2, obj=9)
    d = model.addConstr(x[[0, 3]] + y == 3)
    matrix, lower, upper = rows_of(model)
    np.testing.assert_array_equal(
        matrix, [[1, 0, 0, 0, 0], [1, 1, 0, 0, 0], [1, 0, 0, 1, 0], [0, 0, 1, 0, 1]]
    )
    assert y._idxarr().tolist() == [3, 4] and d._idxarr().tolist() == [2, 3]
    model.remove([x[1], c[3:]])
    with pytest.raises(TypeError):
        model.remove("x")
    model.update()
    assert (model.NumVars, model.NumConstrs) == (5, 4)
