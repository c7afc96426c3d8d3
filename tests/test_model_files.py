"""Files: those of others are read, faults are named, and nothing is lost in writing."""

import bz2
import gzip
import resource

import numpy as np
import pytest
import scipy.sparse as sp
from highspy import Highs, HighsLp, HighsModelStatus, HighsVarType, MatrixFormat, ObjSense
from inside import lp_of, view_of

import taviropy as tv
from taviropy import TVO, TaviroError

INF = np.inf
NO_OPTIMUM = (TVO.Status.INFEASIBLE, TVO.Status.UNBOUNDED, TVO.Status.INFEASIBLE_OR_UNBOUNDED)
STATUSES = {
    HighsModelStatus.kOptimal: (TVO.Status.OPTIMAL,),
    HighsModelStatus.kInfeasible: NO_OPTIMUM[::2],
    HighsModelStatus.kUnbounded: NO_OPTIMUM[1:],
    HighsModelStatus.kUnboundedOrInfeasible: NO_OPTIMUM,
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


def solve_by_hand(data, sense, offset, path):
    """What HiGHS writes to a file and reads back: its status and objective."""
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
        lp.integrality_ = [HighsVarType(int(each)) for each in integer]
    highs = Highs()
    highs.setOptionValue("output_flag", False)
    highs.passModel(lp)
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


@pytest.mark.parametrize(
    "kind", ["plain", "degenerate", "integer", "free", "infeasible", "unbounded"]
)
@pytest.mark.parametrize("seed", range(4))
def test_what_highs_writes_is_read_and_written_again(kind, seed, tmp_path):
    data = random_data(seed, kind)
    sense = ObjSense.kMaximize if seed == 3 and kind != "unbounded" else ObjSense.kMinimize
    for ending in ("mps", "lp"):
        path, again = tmp_path / f"model.{ending}", tmp_path / f"again.{ending}"
        outcome = solve_by_hand(data, sense, 2.5 * seed, path)
        with tv.read(path) as read:
            assert_same_outcome(read, *outcome)
            read.write(again)
            with tv.read(again) as second:
                assert_same_outcome(second, *outcome)
                assert second.NumNonzeros == read.NumNonzeros


def test_ranges_survive_and_can_be_changed(tmp_path):
    rows = np.array([2.0, -INF]), np.array([5.0, 4.0]), sp.csr_array([[1.0, 1.0], [1.0, 0.0]])
    data = np.ones(2), np.zeros(2), np.full(2, 9.0), *rows, np.zeros(2, bool)
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
    names = [*ODD_NAMES.split(), "", " ", "a b", "a\tb", "y" * 300]
    path = tmp_path / f"names.{ending}"
    with tv.Model("odd\nnames") as m:
        x = m.addMVar(len(names), ub=9, obj=1 + np.arange(len(names)), name=names)
        m.addConstr(x >= 1, name=names[::-1])
        m.write(path)
        assert x.VarName.tolist() == names
    with tv.read(path) as read:
        assert read.ModelName == "odd\nnames"
        columns, rows = read.getVars(), read.getConstrs()
        assert columns.VarName.tolist() == names and rows.ConstrName.tolist() == names[::-1]
        assert columns.Obj.tolist() == [*range(1, len(names) + 1)]
    highs = Highs()
    highs.setOptionValue("output_flag", False)
    highs.readModel(str(path))
    highs.run()
    assert highs.getInfo().objective_function_value == pytest.approx(sum(range(len(names) + 1)))
    assert len({*highs.getLp().col_names_}) == len(names)
    assert {"ROWS"} <= {*highs.getLp().col_names_} or ending != "lp"


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


def test_names_stand_in_files_as_they_can(tmp_path):
    with tv.Model("blend") as m:
        x = m.addMVar((2, 1), obj=1, name="x y")
        m.addMVar(2, obj=1, name="z")
        m.addVar(obj=1, name="v")
        m.addVar(obj=1, name="v")
        c = m.addConstr(x.sum(axis=1) >= 1, name="c")
        for ending, names in (
            ("mps", ["x_y[0,0]", "x_y[1,0]", "z[0]", "z[1]", "v", "v~1"]),
            ("lp", ["x_y(0,0)", "x_y(1,0)", "z(0)", "z(1)", "v", "v~1"]),
        ):
            path = tmp_path / f"m.{ending}"
            m.write(path)
            text = path.read_text()
            others = "\n".join(line for line in text.split("\n") if "~ " not in line)
            path.write_text(others)  # as another program sees it
            with tv.read(path) as read:
                assert read.getVars().VarName.tolist() == names
            assert "~ brackets" in text or ending == "mps"
            assert text.count("~ column") == 3  # z[0] goes by the rule
        assert c.ConstrName.tolist() == ["c[0]", "c[1]"]


OTHER_LP = r"""\ Problem name: other
MAXIMIZE
 obj: 2x+3 y
   - 1.5e1z + 0 w + 3 - [ 4 x^2 + 2 x*y ]/2
s.t.
 1 <= x + y <= 4   \ a range
 c2: -inf <= 3 x - + 2 y <= 5
 c3: 3 x +
   2 y - x => 1 c4: z =< 9
 5 >= w + 1
 q: x + [ x ^ 2 + 2 x * y - y^2 ] >= -4
 i: b = 1 -> x + y <= 3
 1 <= 2 z <= 8
Bounds
 x<=4
 -1<=y<=+Infinity
 z FREE
 -5 >= w
 w >= -1e30
 u[0,1] = 2
GENERALS
 z
binary
 b
free
 t
End
"""


def test_lp_files_of_others(tmp_path):
    path = tmp_path / "other.LP"
    path.write_text(OTHER_LP)
    with tv.read(path) as m:
        x, view = m.getVars(), view_of(m)
        assert (m.ModelName, m.ObjSense, m.ObjOffset) == ("other", TVO.MAXIMIZE, 3)
        assert x.VarName.tolist() == ["x", "y", "z", "w", "b", "u[0,1]", "t"]
        assert x.Obj.tolist() == [2, 3, -15, 0, 0, 0, 0]
        assert x.LB.tolist() == [0, -1, -INF, -INF, 0, 2, -INF]
        assert x.UB.tolist() == [4, INF, INF, -5, 1, 2, INF]
        assert "".join(x.VType) == "CCICBCC"
        assert m.getConstrs().ConstrName.tolist() == ["R0", "c2", "c3", "c4", "R4", "R7"]
        lower, upper = view.sides()
        assert lower.tolist() == [1, -INF, 1, -INF, -INF, 1]
        assert upper.tolist() == [4, 5, INF, 9, 4, 8]
        matrix = sp.csr_array((view.rows.data, view.rows.ids, view.rows.indptr), (6, 7))
        assert matrix.toarray()[:, :4].tolist() == [
            [1, 1, 0, 0], [3, -2, 0, 0], [2, 2, 0, 0], [0, 0, 1, 0], [0, 0, 0, 1], [0, 0, 2, 0],
        ]  # fmt: skip
        q, i = view.quadratic_rows, view.indicators
        assert q.terms(0).data.tolist() == [1, 2, -1] and q.lower.tolist() == [-4]
        assert (i.columns.tolist(), i.values.tolist(), i.upper.tolist()) == ([4], [1], [3])
        terms = view.quadratic_objective
        assert terms.data.tolist() == [-2, -1] and terms.ids2.tolist() == [0, 1]


def test_mps_files_of_others(tmp_path):
    fixed = """NAME          FIXED
ROWS
 N  COST
 L  LIM 1
 G  MY ROW
COLUMNS
    X 1       COST               1.0   LIM 1              1.0
    X 1       MY ROW             1.0
    Y         COST               2.0   MY ROW           1.5D0
RHS
              LIM 1              4.0   MY ROW             1.0
BOUNDS
 UP           X 1                4.0
 BV           Y
ENDATA
"""
    free = """* upper and lower case, no names of sets, tabs
NAME free format
ObjSense Maximize
ObjName
 second
ROWS
 n first
 l c
 e d
 n second
COLUMNS
 x\tc\t1 $ a comment
 x second 5
 M1 'MARKER' 'INTORG'
 y c 1 d 2
 z d 1
 M2 'MARKER' 'INTEND'
RHS
 c 1e30 d 4
RANGES
 d -3
BOUNDS
 MI x
 UP x -1e20
 PL y
QMATRIX
 x x 2
 x y 1
 y x 1
ENDATA
rest
"""
    path = tmp_path / "m.mps"
    path.write_text(fixed)
    with tv.read(path) as m:
        x, c = m.getVars(), m.getConstrs()
        assert x.VarName.tolist() == ["X 1", "Y"] and c.ConstrName.tolist() == ["LIM 1", "MY ROW"]
        assert x.UB.tolist() == [4, 1] and c.RHS.tolist() == [4, 1]
        assert dense(m) == [[1, 0], [1, 1.5]]
    path.write_text(free.replace("UP x -1e20", "UP x -2"))
    with tv.read(path) as m:
        x, view = m.getVars(), view_of(m)
        assert (m.ModelName, m.ObjSense, x.Obj.tolist()) == ("free format", -1, [5, 0, 0])
        assert (x.LB.tolist(), x.UB.tolist()) == ([-INF, 0, 0], [-2, INF, 1])
        assert "".join(x.VType) == "CIB"
        assert [each.tolist() for each in view.sides()] == [[-INF, 1], [INF, 4]]
        assert view.quadratic_objective.data.tolist() == [1, 1]
    path.write_text(free.replace(" MI x\n UP x -1e20", " UP x -2"))
    with pytest.warns(tv.NumericsWarning, match="'x' has the upper bound -2 and no lower"):
        assert tv.read(path).getVars().LB[0] == -INF


def dense(m):
    rows = view_of(m).rows
    return sp.csr_array((rows.data, rows.ids, rows.indptr)).toarray().tolist()


def test_encodings_and_packing(tmp_path):
    text = "Minimize\n obj: größe\nSubject To\n c: größe >= 1\nEnd\n"
    for name, content in (
        ("utf8.lp", text.encode()),
        ("bom.lp", text.encode("utf-8-sig")),
        ("latin.lp", text.encode("latin-1")),
        ("dos.lp", text.replace("\n", "\r\n").encode()),
        ("packed.lp.gz", gzip.compress(text.encode())),
        ("packed.lp.bz2", bz2.compress(text.encode())),
    ):
        (tmp_path / name).write_bytes(content)
        with tv.read(tmp_path / name) as m:
            assert m.getVars().VarName.tolist() == ["größe"]
            m.write(tmp_path / name)
        with tv.read(tmp_path / name) as m:
            assert m.getVars().VarName.tolist() == ["größe"]
    for name, content, words in (
        ("wide.lp", text.encode("utf-16"), "line 1: the byte 0x00"),
        ("cut.lp.gz", gzip.compress(text.encode())[:-9], "damaged or cut off"),
    ):
        (tmp_path / name).write_bytes(content)
        with pytest.raises(TaviroError, match=words):
            tv.read(tmp_path / name)


MPS = "NAME\nROWS\n N obj\n L c\nCOLUMNS\n x c 1\n y c 1\nRHS\n r c 3\nBOUNDS\n UP b x 3\nENDATA\n"
LP = "min\n obj: x + y\nst\n c: x + y >= 1\nbounds\n 2 <= x <= 8\nend\n"


@pytest.mark.parametrize(
    ("text", "old", "new", "line", "words"),
    [
        (MPS, "ENDATA\n", "", 12, "without the section ENDATA"),
        (MPS, "x c 1", "what is this", 6, "no row 'is'"),
        (MPS, "y c 1", "y c 1 c", 7, "once or twice"),
        (MPS, "y c 1", "y c 1 c 2", 7, "'y' has an entry in the row 'c' already"),
        (MPS, "y c 1", "y c nan", 7, "'nan' is no finite number"),
        (MPS, " L c", " L c\n G c", 5, "a row 'c' already"),
        (MPS, "UP b x", "UQ b x", 11, "'UQ' is no type of bound"),
        (MPS, "UP b x", "UP b q", 11, "no column 'q'"),
        (MPS, "r c 3", "r c 3\n s c 4", 10, "two sets of data, 'r' and 's'"),
        (MPS, "BOUNDS", "SOS1\n S1 s\nBOUNDS", 10, "'SOS1' is no section"),
        (LP, "end\n", "", 6, "without 'End'"),
        (LP, "min\n", "", 1, "begins with 'Minimize'"),
        (LP, "x + y >=", "x y >=", 4, "a sign or a comparison is missing"),
        (LP, "x + y >= 1", "x + y >= 1\n x + y", 5, "a sign or a comparison is missing"),
        (LP, "x + y >= 1", "x + y >=", 4, "no number on its right"),
        (LP, "x + y >= 1", "x + [ y^2 >= 1", 4, "between brackets stand"),
        (LP, "x + y >= 1", "b = 2 -> x >= 1", 4, "an indicator is a variable"),
        (LP, "x + y\n", "x + [ y^2 ]\n", 2, "'\\[ ... \\] / 2'"),
        (LP, "2 <= x", "2 <= 3 x", 6, "a bound is '1 <= x <= 2'"),
        (LP, "end", "sos\n s1: S1:: x:1\nend", 8, "section 'sos' can't be read"),
    ],
)
def test_what_cannot_be_read_is_named_with_its_line(text, old, new, line, words, tmp_path):
    path = tmp_path / f"bad.{'mps' if text is MPS else 'lp'}"
    path.write_text(text.replace(old, new))
    with pytest.raises(TaviroError, match=f"bad.*line {line}: .*{words}.* It reads: "):
        tv.read(path)


def test_paths_that_cannot_be_used(tmp_path):
    with pytest.raises(FileNotFoundError, match="nosuch"):
        tv.read(tmp_path / "nosuch.mps")
    with pytest.raises(IsADirectoryError):
        (tmp_path / "folder.lp").mkdir()
        tv.read(tmp_path / "folder.lp")
    for engine in ("highs", "scip"):
        with tv.Model(engine=engine) as m:
            m.addVar(name="x")
            for bad in ("", "a", "m.foo", tmp_path / "none/m.lp", tmp_path / "folder.lp", "a\0.lp"):
                with pytest.raises(TaviroError) as caught:
                    m.write(bad)
                assert caught.value.code == TVO.Error.FILE
            with pytest.raises(TypeError):
                m.write(3)
            m.addGenConstrNL(m.addVar(), tv.sin(m.addVar()), name="wave")
            with pytest.raises(TaviroError, match="'wave' is nonlinear.* without it"):
                m.write(tmp_path / "wave.mps")
    assert [each.name for each in tmp_path.iterdir()] == ["folder.lp"]


@pytest.mark.parametrize("ending", ["mps", "lp", "lp.gz"])
def test_a_file_that_cannot_be_finished_leaves_the_old_one(ending, tmp_path):
    path, link = tmp_path / f"m.{ending}", tmp_path / f"full.{ending}"
    path.write_text("old")
    path.chmod(0o640)
    link.symlink_to("/dev/full")
    before = resource.getrlimit(resource.RLIMIT_FSIZE)
    with tv.Model() as m:
        m.addMVar(30_000, obj=np.random.default_rng(1).random(30_000), name="x")
        with pytest.raises(TaviroError, match="No space left"):
            m.write(link)
        resource.setrlimit(resource.RLIMIT_FSIZE, (20_000, before[1]))
        try:
            with pytest.raises(TaviroError, match="File too large"):
                m.write(path)
        finally:
            resource.setrlimit(resource.RLIMIT_FSIZE, before)
        assert path.read_text() == "old"
        assert sorted(each.name for each in tmp_path.iterdir()) == sorted([path.name, link.name])
        m.write(path)
    assert path.stat().st_mode & 0o777 == 0o640
    with tv.read(path) as read:
        assert read.NumVars == 30_000
