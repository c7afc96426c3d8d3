"""What is written is read back as the same model, by this package and by other programs."""

from tempfile import TemporaryDirectory

import numpy as np
import pytest
from highspy import Highs, HighsStatus, ObjSense
from hypothesis import given, settings
from hypothesis import strategies as st
from inside import view_of

import taviropy as tv
from taviropy._scalars import data_of

INF = np.inf
VALUES = st.sampled_from([-1.0, 1.0, 2.0, -0.1, 0.3, 1e-5, 1 / 3, 7e11, -1e-7, 1e7])
SIDES = st.sampled_from([-INF, -7.25, -1.0, -0.1, 0.0, 0.1, 1.0, 2.5, 1e16, INF])
TEXTS = st.one_of(
    st.sampled_from(
        ["x", "x", "x[0]", "x(0)", "end", "1e5", "RHS", "Obj", "obj", "a b", "e12", ""]
    ),
    st.text(st.characters(codec="utf-8"), max_size=6),
    st.just("long" * 70),
)


@st.composite
def models(draw, higher=True):
    """A model with everything that both formats can say."""
    m = tv.Model(draw(TEXTS))
    n = draw(st.integers(1, 5))
    types = draw(st.lists(st.sampled_from("CCBISN"), min_size=n, max_size=n))
    for vtype in types:
        lb, ub = draw(SIDES), draw(SIDES)
        m.addVar(
            lb=-INF if lb == INF else lb,
            ub=INF if ub == -INF else ub,
            obj=draw(st.one_of(st.just(0.0), VALUES)),
            vtype=vtype,
            name=draw(TEXTS),
        )
    m.update()
    x = m.getVars()

    def row(size=3):
        columns = draw(st.lists(st.integers(0, n - 1), max_size=size, unique=True))
        return sum((draw(VALUES) * x[k].item() for k in columns), tv.LinExpr())

    def pairs():
        terms = draw(st.lists(st.tuples(VALUES, st.integers(0, n - 1), st.integers(0, n - 1))))
        return sum((v * x[i].item() * x[j].item() for v, i, j in terms), tv.QuadExpr())

    def compared(expr):
        sense, rhs = draw(st.sampled_from("<>=")), draw(SIDES)
        if sense == "=" and abs(rhs) == INF:
            rhs = 0.0
        if sense == "<":
            return expr <= (INF if rhs == -INF else rhs)
        return expr == rhs if sense == "=" else expr >= (-INF if rhs == INF else rhs)

    for _ in range(draw(st.integers(0, 4))):
        m.addConstr(compared(row()), name=draw(TEXTS))
    m.update()
    ranged = [k for k, c in enumerate(m.getConstrs().tolist()) if c.Sense == "<"]
    if ranged and draw(st.booleans()):
        low = draw(st.sampled_from([-3.0, 0.1, 0.0, 1e17]))  # the last one is above the upper side
        data_of(m).linear.need("Low")[ranged] = low
    m.ObjOffset = draw(st.sampled_from([0.0, -2.5, 0.1]))
    m.ObjSense = draw(st.sampled_from(["min", "max"]))
    if higher and draw(st.booleans()):
        m.setObjective(pairs() + row())
    if higher:
        for _ in range(draw(st.integers(0, 2))):
            m.addConstr(compared(row() + pairs()), name=draw(TEXTS))
        if "B" in types:
            binary = x[types.index("B")].item()
            m.addGenConstrIndicator(binary, draw(st.booleans()), compared(row()), draw(TEXTS))
    return m


def dense(rows, columns):
    matrix = np.zeros((rows.count, columns))
    np.add.at(matrix, (rows.row_numbers(), rows.ids), rows.data)
    return matrix.tolist()


def picture(m):
    """Everything of a model that files hold, free rows all the same."""
    view = view_of(m)
    n = view.column_count
    rows, columns = view.rows, view.columns()
    bounds = columns.own_bounds()
    found = {
        "model": (view.name, view.sense, view.offset),
        "columns": [each.tolist() for each in (columns.costs, columns.is_integer, *bounds)],
        "types": (view.is_binary.tolist(), view.is_semi.tolist()),
        "names": (view.column_names(), view.row_names()),
        "rows": dense(rows, n),
        "sides": [each.tolist() for each in view.sides()],
    }
    terms = view.quadratic_objective
    if terms is not None:
        triples = zip(terms.ids1.tolist(), terms.ids2.tolist(), terms.data.tolist(), strict=True)
        found["objective"] = {(i, j): v for i, j, v in triples if v} or None
    found.setdefault("objective", None)
    quadratic, indicators = view.quadratic_rows, view.indicators
    if quadratic is not None:
        count = quadratic.rows.count
        found["quadratic"] = (
            [view.quadratic_name(k) for k in range(count)],
            dense(quadratic.rows, n),
            [
                {
                    (i, j): v
                    for i, j, v in zip(
                        t.ids1.tolist(), t.ids2.tolist(), t.data.tolist(), strict=True
                    )
                    if v
                }
                for t in map(quadratic.terms, range(count))
            ],
            quadratic.lower.tolist(),
            quadratic.upper.tolist(),
        )
    if indicators is not None:
        found["indicators"] = (
            [view.general_name(k) for k in indicators.places.tolist()],
            indicators.columns.tolist(),
            indicators.values.tolist(),
            dense(indicators.rows, n),
            indicators.lower.tolist(),
            indicators.upper.tolist(),
        )
    return found


@settings(max_examples=150, deadline=None)
@given(m=models(), ending=st.sampled_from(["mps", "lp", "mps.gz", "lp.bz2"]))
def test_what_is_written_is_read_back(m, ending):
    with TemporaryDirectory() as folder, m:
        path = f"{folder}/m.{ending}"
        m.write(path)
        with tv.read(path) as again:
            assert picture(again) == picture(m)


@settings(max_examples=100, deadline=None)
@given(m=models(higher=False), ending=st.sampled_from(["mps", "lp"]))
def test_highs_reads_the_same_model(m, ending):
    highs = Highs()
    highs.setOptionValue("output_flag", False)
    highs.setOptionValue("large_matrix_value", 1e20)
    with TemporaryDirectory() as folder, m:
        m.write(f"{folder}/m.{ending}")
        assert highs.readModel(f"{folder}/m.{ending}") != HighsStatus.kError
        view = view_of(m)
        lp, columns = highs.getLp(), view.columns()
        assert (lp.sense_, lp.offset_) == (ObjSense(view.sense), view.offset)
        assert list(lp.col_cost_) == columns.costs.tolist()
        bounds = columns.own_bounds()
        assert list(lp.col_lower_) == bounds[0].tolist()
        assert list(lp.col_upper_) == bounds[1].tolist()
        types = columns.is_integer + 2 * view.is_semi
        assert [int(kind) for kind in lp.integrality_] == (types.tolist() if types.any() else [])
        lower, upper = view.sides()
        split = (lower > -INF) & (upper < INF) & (lower != upper)
        if ending == "mps":
            width = upper[split] - lower[split]
            split[split] = (width < 0) | (upper[split] - width != lower[split])
        first = np.where(split, -INF, lower)
        assert list(lp.row_lower_) == [*first, *lower[split]]
        assert list(lp.row_upper_) == [*upper, *np.full(split.sum(), INF)]
        highs.ensureRowwise()
        matrix, expected = highs.getLp().a_matrix_, dense(view.rows, view.column_count)
        read = np.zeros((lp.num_row_, lp.num_col_))
        for k in range(lp.num_row_):
            at = slice(matrix.start_[k], matrix.start_[k + 1])
            read[k, list(matrix.index_[at])] = matrix.value_[at]
        assert read.tolist() == expected + [expected[k] for k in np.flatnonzero(split)]


@pytest.mark.parametrize("ending", ["mps", "lp"])
def test_scip_reads_quadratic_rows_and_indicators(ending, tmp_path):
    scip = pytest.importorskip("pyscipopt").Model()
    scip.hideOutput()
    with tv.Model(engine="scip") as m:
        m.setOption("log", False)
        x = m.addMVar(3, ub=[4, 5, -0.5], lb=[0, -1, -2], name="x")
        b = m.addVar(vtype="B", name="1e5")
        k = m.addVar(ub=2.5, vtype="I", name="end")
        m.addConstr(x[0] * x[0] + 2 * x[0] * x[1] - x[2] <= 9, name="RHS")
        m.addGenConstrIndicator(b, 1, x.sum() >= 3.25, name="Obj")
        m.addGenConstrIndicator(b, 0, x[0] + x[1] <= -0.5, name="a b")
        m.addConstr(k - 2 * b >= -1)
        m.setObjective(2 * x[1] * x[1] + x[0] * x[1] - 3 * x[0] - b - 0.5 * k + x[2] + 4, "max")
        m.optimize()
        path = tmp_path / f"m.{ending}"
        m.write(path)
        scip.readProblem(str(path))
        scip.optimize()
        assert scip.getObjVal() == pytest.approx(m.Objective, rel=1e-5)
