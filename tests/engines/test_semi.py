"""Semi-continuous and semi-integer variables: zero, or between bounds."""

import itertools

import numpy as np
import pytest
from inside import lp_of, view_of

import taviropy as tv
from taviropy import TaviroError
from taviropy._scalars import data_of
from taviropy.engines import engine_class

INF = np.inf
ENGINES = ("highs", "scip")


def new(engine="auto"):
    model = tv.Model(engine=engine)
    model.setOption("log", False)
    return model


def built(m, seed, types="SNC"):
    """A random model; the first four variables have the types that are asked about."""
    rng = np.random.default_rng(seed)
    lower = np.append(rng.integers(0, 5, 4) * rng.choice([1.0, 0.5]), [0, -2])
    if seed % 3 == 0:
        lower[0] = -9.0  # the side below zero, which HiGHS can't take
    upper = np.append(lower[:4] + rng.integers(0, 6, 4) + 0.5, [7, 2])
    vtype = [*rng.choice(list(types), 4), "I", "C"]
    x = m.addMVar(6, lb=lower, ub=upper, vtype=vtype)
    m.addConstr(rng.integers(-3, 6, (3, 6)) @ x <= rng.integers(4, 20, 3))
    m.addConstr(rng.integers(0, 6, 6) @ x >= rng.integers(0, 30))
    m.setObjective(rng.integers(-5, 6, 6) @ x, "max" if seed % 2 else "min")
    return x


def by_cases(m, x):
    """The optimum found by fixing what may be zero, or letting it be an ordinary variable."""
    types, lower, upper = x.VType, x.LB, x.UB
    semi = np.flatnonzero(np.isin(types, ("S", "N")))
    best = None
    plain = m.copy()
    y = plain.getVars()
    y.VType = np.where(np.isin(types, ("N", "I")), "I", "C")
    for on in itertools.product((False, True), repeat=len(semi)):
        y.LB, y.UB = lower, upper
        y[semi].LB, y[semi].UB = np.where(on, lower[semi], 0), np.where(on, upper[semi], 0)
        plain.optimize()
        if plain.Status == "OPTIMAL":
            value = m.ObjSense * plain.Objective
            best = value if best is None else min(best, value)
    return best


@pytest.mark.parametrize("engine", ENGINES)
@pytest.mark.parametrize("seed", range(8))
def test_the_optimum_is_the_best_of_all_cases(engine, seed):
    m = new(engine)
    x = built(m, seed)
    m.update()
    if engine == "highs" and engine_class("highs").refuses(view_of(m), True):
        with pytest.raises(TaviroError, match=r"semi-continuous variable 'C0' has bounds beyond"):
            m.optimize()
        return
    rng = np.random.default_rng(seed)
    for _ in range(4):
        m.optimize()
        best = by_cases(m, x)
        assert (m.Status == "INFEASIBLE") == (best is None)
        if best is not None:
            assert m.ObjSense * m.Objective == pytest.approx(best, abs=1e-5) and m.check(1e-6)
        changed = rng.integers(0, x.size, 2)
        x[changed].VType = rng.choice(list("SNCI"), 2)
        x[changed].LB = lower = rng.integers(0, 4, 2)
        x[changed].UB = lower + rng.integers(0, 4, 2)
        if rng.random() < 0.4:
            y = m.addMVar(1, lb=1, ub=2.5, obj=1, vtype=rng.choice(list("SN")))
            m.addConstr(x[0] + 2 * y >= rng.integers(1, 4))
            x = tv.hstack([x, y])
        if rng.random() < 0.4:
            m.remove(x[1])
            x = tv.hstack([x[:1], x[2:]])
        m.update()


@pytest.mark.parametrize("engine", ["highs", "scip"])
def test_zero_is_apart_and_a_large_bound_is_no_bound(engine):
    m = new(engine)
    x = m.addVar(lb=2, ub=1e4 if engine == "highs" else INF, vtype="S", name="x")
    c = m.addConstr(x >= 0.5)
    m.setObjective(x + 0)
    m.optimize()
    assert pytest.approx(2) == x.X
    c.Sense = "<"
    m.ObjSense = "max"
    m.optimize()
    assert pytest.approx(0, abs=1e-9) == x.X
    c.RHS = 3.5
    x.VType = "N"
    m.optimize()
    assert pytest.approx(3) == x.X
    x.LB = 0
    m.optimize()
    assert pytest.approx(3) == x.X and m.check()
    m.addVar(lb=5, ub=9, vtype="S", obj=1)  # behind the others
    m.optimize()
    assert m.Objective == pytest.approx(12)


def test_what_takes_them_and_what_they_are_called():
    m = new()
    x = m.addMVar(2, lb=[0, 3], ub=[5, 1e6], vtype=["S", "N"], name="x")
    m.update()
    assert x.VType.tolist() == ["S", "N"]
    m.addConstr(x.sum() >= 1)
    m.optimize()
    assert m.Engine == "scip"  # HiGHS's bound is 1e5
    x[1].VType = "C"
    x[1].UB = 9
    m.optimize()
    assert m.Engine == "highs" and m.basis()  # x[0] reaches to zero anyway
    x.LB, x.VType = 1, "S"
    for engine in ("clarabel", "ipopt"):
        twin = new(engine)
        twin.addMVar(1, lb=1, ub=2, vtype="S")
        pytest.importorskip("casadi")
        with pytest.raises(TaviroError, match="'C0' is semi-continuous"):
            twin.optimize()
    with pytest.raises(TaviroError, match="'S' .semi-continuous. or 'N'"):
        m.addVar(vtype="X")
    x.LB = 6  # above the bound of x[0]
    m.optimize()
    assert m.Status == "INFEASIBLE"
    x.LB, x.UB, x.VType = 0.25, 0.75, "N"  # nothing whole lies in between: they are zero
    m.remove(m.getConstrs())
    m.optimize()
    assert m.Status == "OPTIMAL" and not x.X.any()


def test_the_judges_know_them():
    m = new()
    x = m.addMVar(2, lb=[2, 3], ub=[5, 9], vtype=["S", "N"], obj=[1, 1], name="x")
    m.addConstr(x[0] <= 1.5, name="a")
    b = m.addConstr(x[0] >= 0.5, name="b")
    m.addConstr(x[1] <= 8)
    m.optimize()
    assert m.Status == "INFEASIBLE"
    assert {c.ConstrName for c in m.conflict().constrs} == {"a", "b"}
    assert m.relax().total == pytest.approx(0.5)
    with pytest.raises(TaviroError, match=r"bounds of 'x\[0\]' can't give"):
        m.relax(bounds=True)
    m.remove(b)
    m.optimize()
    assert m.check()["semi-continuity"].size == 0
    data_of(m).solution.values["X"] = np.array([1.0, 4.0])
    assert m.check()["semi-continuity"].name == "x[0]" and not m.check()


@pytest.mark.parametrize("ending", ["mps", "lp"])
def test_files_keep_them(ending, tmp_path):
    m = new()
    x = m.addMVar(
        7,
        lb=[0, 2, 1.5, -6, -3, 0, 0],
        ub=[4, 5, 8.5, -2, 3, INF, 1],
        vtype=list("SSNSNSN"),
        obj=[1.0, -1, 2, 1, 1, 1, -1],
    )
    m.addConstr(x.sum() <= 12)
    m.write(tmp_path / f"m.{ending}")
    back = tv.read(tmp_path / f"m.{ending}")
    back.setOption("log", False)
    y = back.getVars()
    assert y.VType.tolist() == list("SSNSNSN")
    np.testing.assert_array_equal(y.LB, [0, 2, 2, -6, -3, 0, 0])  # those of integers rounded
    np.testing.assert_array_equal(y.UB, [4, 5, 8, -2, 3, INF, 1])
    m.optimize()
    back.optimize()
    assert back.Objective == pytest.approx(m.Objective)


def test_other_spellings_in_files(tmp_path):
    (tmp_path / "a.lp").write_text(
        "max\n obj: x + y + z\nst\n c: x + y + z <= 9\nbounds\n 2 <= x <= 8\n y <= 3\n z <= 4\n"
        "general\n y\nsemi-continuous\n x y\nsemi-integer\n z\nend\n"
    )
    (tmp_path / "a.mps").write_text(
        "NAME\nROWS\n N obj\n L c\nCOLUMNS\n x c 1\n M 'MARKER' 'INTORG'\n y c 1\n"
        " M 'MARKER' 'INTEND'\n z c 1\nRHS\n r c 9\nBOUNDS\n LO b x 2\n SC b x 8\n SC b y 3\n"
        " SI b z 4\nENDATA\n"
    )
    for ending in ("lp", "mps"):
        m = tv.read(tmp_path / f"a.{ending}")
        x = m.getVars()
        assert x.VType.tolist() == ["S", "N", "N"] and x.UB.tolist() == [8, 3, 4]
        assert x.LB.tolist() == [2, 0, 0]
        assert [int(kind) for kind in lp_of(m).integrality_] == [2, 1, 1]  # y, z reach to zero
