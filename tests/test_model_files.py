"""Files: models that HiGHS wrote are read, solved, rebuilt as blocks, and written again."""

import numpy as np
import pytest
import scipy.sparse as sp
from highspy import Highs, HighsLp, HighsModelStatus, HighsVarType, MatrixFormat, ObjSense
from inside import lp_of

import taviropy as tv
from taviropy import TVO, TaviroError

INF = np.inf
STATUSES = {
    HighsModelStatus.kOptimal: (TVO.Status.OPTIMAL,),
    HighsModelStatus.kInfeasible: (TVO.Status.INFEASIBLE, TVO.Status.INFEASIBLE_OR_UNBOUNDED),
    HighsModelStatus.kUnbounded: (TVO.Status.UNBOUNDED, TVO.Status.INFEASIBLE_OR_UNBOUNDED),
    HighsModelStatus.kUnboundedOrInfeasible: (
        TVO.Status.INFEASIBLE,
        TVO.Status.UNBOUNDED,
        TVO.Status.INFEASIBLE_OR_UNBOUNDED,
    ),
}


def random_data(seed, kind):
    """Costs, bounds, both sides of rows, a matrix and the integer columns of a random model."""
    rng = np.random.default_rng(seed)
    m, n = rng.integers(3, 15), rng.integers(3, 15)
    A = sp.random_array((m, n), density=0.4, rng=rng, format="csr")
    A.data = np.round(rng.normal(size=A.nnz) * 5, 1)
    if kind == "degenerate":
        A.data = np.sign(A.data)
    point = rng.integers(-2, 5, n).astype(float)
    lower, upper = point - rng.integers(0, 3, n), point + rng.integers(0, 4, n)
    lower[rng.random(n) < 0.2] = -INF
    upper[rng.random(n) < 0.3] = INF  # with the former, some variables are free
    activity = A @ point
    row_lower = activity - rng.integers(0, 2, m)
    row_upper = activity + rng.integers(0, 2, m)  # ranges and equalities
    row_lower[rng.random(m) < 0.3] = -INF
    row_upper[rng.random(m) < 0.3] = INF  # with the former, some rows are free
    cost = np.round(rng.normal(size=n), 1)
    if kind == "infeasible":
        row_lower[0], row_upper[0] = 1e4, INF
        lower, upper = np.maximum(lower, -3), np.minimum(upper, 8)
    elif kind == "unbounded":
        cost[0], upper[0] = -1.0, INF
    else:
        lower, upper = np.maximum(lower, -50), np.minimum(upper, 50)
        if kind == "free":
            free = rng.random(n) < 0.5
            lower[free], upper[free] = -INF, INF
            cost[free] = 0
    integer = rng.random(n) < 0.5 if kind == "integer" else np.zeros(n, bool)
    return cost, lower, upper, row_lower, row_upper, A, integer


def solve_by_hand(data, sense, offset, path=None):
    """HiGHS on the arrays; also writes a file. Returns status and objective."""
    cost, lower, upper, row_lower, row_upper, A, integer = data
    lp = HighsLp()
    lp.num_row_, lp.num_col_ = A.shape
    lp.col_cost_, lp.col_lower_, lp.col_upper_ = cost, lower, upper
    lp.row_lower_, lp.row_upper_ = row_lower, row_upper
    lp.a_matrix_.format_ = MatrixFormat.kRowwise
    lp.a_matrix_.start_, lp.a_matrix_.index_, lp.a_matrix_.value_ = A.indptr, A.indices, A.data
    lp.a_matrix_.num_row_, lp.a_matrix_.num_col_ = A.shape
    lp.sense_, lp.offset_ = sense, offset
    if integer.any():
        lp.integrality_ = [
            HighsVarType.kInteger if each else HighsVarType.kContinuous for each in integer
        ]
    highs = Highs()
    highs.setOptionValue("output_flag", False)
    highs.passModel(lp)
    if path is not None:
        highs.writeModel(str(path))
        highs.clearModel()
        highs.readModel(str(path))
    highs.run()
    return highs.getModelStatus(), highs.getInfo().objective_function_value


def assert_same_outcome(model, status, objective):
    model.setOption("log", False)
    model.optimize()
    assert model.Status in STATUSES[status]
    if model.Status == TVO.Status.OPTIMAL:
        assert model.Objective == pytest.approx(objective, abs=1e-6, rel=1e-6)


def rebuilt(data, sense, offset, way):
    """The same model by addMVar and blocks, or row by row."""
    cost, lower, upper, row_lower, row_upper, A, integer = data
    m = tv.Model()
    x = m.addMVar(len(cost), lb=lower, ub=upper, vtype=np.where(integer, "I", "C"))
    m.setObjective(cost @ x + offset, "min" if sense == ObjSense.kMinimize else "max")
    above, below = row_lower > -INF, row_upper < INF
    if way == "blocks":
        m.addConstr(A[above] @ x >= row_lower[above])
        m.addConstr(A[below] @ x - row_upper[below] <= 0)
    elif way == "arrays":
        m.addConstr(x @ A.toarray().T <= np.where(below, row_upper, INF))
        m.addConstr(A.toarray() @ x >= np.where(above, row_lower, -INF))
    else:
        for k in range(A.shape[0]):
            row = A[[k]].toarray()[0]
            m.addConstr(row @ x <= row_upper[k])
            m.addConstr(
                sum(float(a) * v for a, v in zip(row, x.tolist(), strict=True))
                >= float(row_lower[k])
            )
    return m


@pytest.mark.parametrize(
    "kind", ["plain", "degenerate", "integer", "free", "infeasible", "unbounded"]
)
@pytest.mark.parametrize("seed", range(4))
def test_read_solve_and_rebuild(kind, seed, tmp_path, monkeypatch):
    data = random_data(seed, kind)
    sense = ObjSense.kMaximize if seed == 3 and kind != "unbounded" else ObjSense.kMinimize
    offset = 2.5 * seed
    for ending in ("mps", "lp"):
        path = tmp_path / f"model.{ending}"
        status, objective = solve_by_hand(data, sense, offset, path)
        with tv.read(path) as read:
            assert_same_outcome(read, status, objective)
            again = tmp_path / f"again.{ending}"
            read.write(again)
            with tv.read(again) as second:
                assert_same_outcome(second, status, objective)
                assert second.NumNonzeros == read.NumNonzeros
    status, objective = solve_by_hand(data, sense, offset)
    for way in ("blocks", "arrays", "rows"):
        with rebuilt(data, sense, offset, way) as model:
            assert_same_outcome(model, status, objective)
    monkeypatch.setattr(tv.MLinExpr, "_keep_compact", 0)
    with rebuilt(data, sense, offset, "blocks") as model:
        assert_same_outcome(model, status, objective)


def test_ranges_survive_and_can_be_changed(tmp_path):
    data = (
        np.ones(2),
        np.zeros(2),
        np.full(2, 9.0),
        np.array([2.0, -INF]),
        np.array([5.0, 4.0]),
        sp.csr_array(np.array([[1.0, 1.0], [1.0, 0.0]])),
        np.zeros(2, bool),
    )
    path = tmp_path / "range.mps"
    solve_by_hand(data, ObjSense.kMinimize, 0.0, path)
    with tv.read(path) as m:
        m.setOption("log", False)
        m.optimize()
        assert m.Objective == 2
        row = m.getConstrs()[0]
        assert row.Sense == "<" and row.RHS == 5
        m.ObjSense = "max"
        m.optimize()
        assert m.Objective == 5
        row.RHS = 7
        m.write(path)
        with tv.read(path) as again:
            again.setOption("log", False)
            again.optimize()
            assert again.Objective == 7
            again.ObjSense = "min"
            again.optimize()
            assert again.Objective == 2
            again.getConstrs()[0].Sense = "<"  # an ordinary row from here on
            again.optimize()
            assert again.Objective == 0


ODD_NAMES = """
st S.T. min Max free inflow nan Infinity end bounds bin General int semi sos name OBJSENSE 'MARKER'
RHS ROWS ENDATA obj Obj 1 2x 1e5 .5 e1 x.5 a+b a<=b c:d a_b é €ß [0] (0) x^2 |x| -x v v~1 v
"""


@pytest.mark.parametrize("ending", ["mps", "lp", "mps.gz"])
def test_no_name_is_taken_for_something_else(ending, tmp_path):
    names = [*ODD_NAMES.split(), "", " ", "a b", "a\tb"]
    path = tmp_path / f"names.{ending}"
    with tv.Model("odd names") as m:
        x = m.addMVar(len(names), ub=9, obj=1 + np.arange(len(names)), name=names)
        m.addConstr(x >= 1, name=names[::-1])
        m.write(path)
        assert x.VarName.tolist() == names
    with tv.read(path) as read:
        columns, rows = read.getVars(), read.getConstrs()
        assert sorted(columns.Obj) == sorted(1 + np.arange(len(names)))
        assert len({*columns.VarName}) == len({*rows.ConstrName}) == len(names)
        assert {"ROWS", "RHS", "x.5", "e1"} <= {*columns.VarName} & {*rows.ConstrName}
        read.setOption("log", False)
        read.optimize()
        assert read.Objective == pytest.approx(sum(range(len(names) + 1)))


def test_all_that_an_mps_file_can_say(tmp_path):
    text = """* a comment
NAME every thing
OBJSENSE
    MAX
ROWS
 N cost
 N other
 L less
 G more
 E low
 E high
 G open
 E empty
COLUMNS
 a cost 1 less 1e0
 a more -2.5 other 7
 M1 'MARKER' 'INTORG'
 b cost -1 low 1
 b high 1E+00
 c more 3 other 1
 M2 'MARKER' 'INTEND'
 d less 1
 e cost 0.5 open 1
 f less 1
RHS
 r less 4 more -6
 r low 3 high 3
 r cost -12.5
RANGES
 r less 2.5 more 1
 r low -2 high 2
BOUNDS
 MI x a
 UP x a 8
 LI x b -3
 UI x b 7
 BV x c
 FX x d -1.5
 UP x e 1e30
 PL x f
ENDATA
"""
    path = tmp_path / "all.mps"
    path.write_text(text)
    with tv.read(path) as m:
        lp = lp_of(m)
        sides = zip(lp.row_lower_, lp.row_upper_, strict=True)
        x, rows = m.getVars(), m.getConstrs()
        assert x.VarName.tolist() == list("abcdef") and x.VType.tolist() == list("CIBCCC")
        assert x.LB.tolist() == [-INF, -3, 0, -1.5, 0, 0]
        assert x.UB.tolist() == [8, 7, 1, -1.5, INF, INF]
        assert x.Obj.tolist() == [1, -1, 0, 0, 0.5, 0]
        assert (m.ObjSense, m.ObjOffset) == (TVO.MAXIMIZE, 12.5)
        assert dict(zip(rows.ConstrName, sides, strict=True)) == {
            "less": (1.5, 4), "more": (-6, -5), "low": (1, 3), "high": (3, 5), "open": (0, INF),
            "empty": (0, 0),
        }  # fmt: skip
        m.setOption("log", False)
        m.optimize()
        assert m.Status in (TVO.Status.UNBOUNDED, TVO.Status.INFEASIBLE_OR_UNBOUNDED)
        x[4].UB = 10
        m.optimize()
        assert m.Objective == pytest.approx(12.5 + 3.6 - 3 + 5)
        np.testing.assert_allclose(x.X[:5], [3.6, 3, 1, -1.5, 10])


def test_names_pass_through_files(tmp_path):
    with tv.Model("blend") as m:
        x = m.addMVar((2, 2), obj=1, name="x y")
        m.addVar(obj=1, name="v")
        m.addVar(obj=1, name="v")
        c = m.addConstr(x.sum(axis=0) >= 1, name="c")
        m.addConstr(x[0, 0] <= 3)
        for ending, names in (
            ("mps", ["x_y[0,0]", "x_y[0,1]", "x_y[1,0]", "x_y[1,1]", "v", "v~1"]),
            ("lp", ["x_y(0,0)", "x_y(0,1)", "x_y(1,0)", "x_y(1,1)", "v", "v~1"]),
        ):
            path = tmp_path / f"m.{ending}"
            m.write(path)
            with tv.read(path) as read:
                assert sorted(read.getVars().VarName) == sorted(names)
                assert read.getVarByName(names[3]).Obj == 1
                assert read.NumConstrs == 3
        assert c.ConstrName.tolist() == ["c[0]", "c[1]"]
        for bad in ("m.foo", str(tmp_path / "none" / "m.mps")):
            with pytest.raises(TaviroError) as caught:
                m.write(bad)
            assert caught.value.args[0] == TVO.Error.FILE


def test_files_that_cannot_be_read(tmp_path):
    with pytest.raises(FileNotFoundError, match="nosuch"):
        tv.read(tmp_path / "nosuch.mps")
    (tmp_path / "bad.mps").write_text("NAME x\nROWS\n N obj\nCOLUMNS\n what is this\n")
    (tmp_path / "bad.foo").write_text("")
    for name in ("bad.mps", "bad.foo"):
        with pytest.raises(TaviroError, match=f"{name}.*ERROR") as caught:
            tv.read(tmp_path / name)
        assert "Copyright" not in caught.value.message
    (tmp_path / "semi.lp").write_text(
        "min\n obj: x + y\nst\n c: x + y >= 1\nbounds\n 2 <= x <= 8\nsemi-continuous\n x\nend\n"
    )
    with pytest.raises(TaviroError, match="'x' is semi-continuous"):
        tv.read(tmp_path / "semi.lp")
