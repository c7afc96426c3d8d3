"""The basis of a linear model, and how far its data may move while it stays optimal."""

import copy
import pickle

import numpy as np
import pytest

import taviropy as tv
from taviropy import TaviroError

INF = np.inf


@pytest.fixture
def m():
    model = tv.Model()
    model.setOption("log", False)
    return model


def optimum(m):
    m.optimize()
    return m.Objective if m.Status == "OPTIMAL" else None


def test_a_basis_goes_from_model_to_model(m):
    rng = np.random.default_rng(0)
    x = m.addMVar((6, 10), obj=rng.random((6, 10)))
    c = m.addConstr(rng.random((30, 60)) @ x.reshape(-1) >= 1)
    with pytest.raises(TaviroError, match="not been solved yet"):
        m.basis()
    m.optimize()
    basis, value, iterations = m.basis(), m.Objective, m.Iterations
    assert basis.of(x).shape == (6, 10) and basis.of(c).shape == (30,)
    assert abs(x.ReducedCost[basis.of(x) == "B"]).max() < 1e-9 and (basis.of(x) == "B").any()
    assert (basis.variables == "B").sum() + (basis.constrs == "B").sum() == 30
    for other in (m.copy(), copy.copy(m), pickle.loads(pickle.dumps(m))):
        assert other.basis().variables.tolist() == basis.variables.tolist()
        other.setBasis(m.basis())
        assert optimum(other) == pytest.approx(value) and other.Iterations == 0
        other.setBasis((["L"] * 60, ["B"] * 30))  # that of a start from scratch
        assert optimum(other) == pytest.approx(value) and other.Iterations >= iterations
        y = other.addMVar(3, obj=0.01, columns=(other.getConstrs(), rng.random((30, 3))))
        other.setOption("timeLimit", 60)
        assert optimum(other) < value and (other.basis().of(y) == "B").any()
        with pytest.raises(TaviroError, match=r"shape \(60,\), the model needs \(63,\)"):
            other.setBasis(basis)
        with pytest.raises(TaviroError, match="came after it"):
            basis.of(y)
        other.remove(other.getVars()[:4])
        other.update()
        with pytest.raises(TaviroError, match="of 60 Var elements, and the model has 59"):
            basis.of(y)
    for bad, text in (
        (3, "not int"),
        ((["L"] * 60, ["L"] * 30), "0 basic elements, but the model 30"),
        ((["L"] * 60, ["B"] * 29 + ["x"]), "not 'x' .at position 29 of 'constrs'"),
    ):
        with pytest.raises((TaviroError, TypeError), match=text):
            m.setBasis(bad)
    singular = (["B", "B"] + ["L"] * 58, ["L", "L"] + ["B"] * 28)
    m.setCoefficients(c, x[0, :2], 1.0)
    expected = optimum(m)
    m.setBasis(singular)
    assert optimum(m) == pytest.approx(expected)


def test_who_has_no_basis_says_so(m):
    x = m.addMVar(2, ub=5, vtype="I", obj=-1.0)
    m.addConstr(2 * x.sum() <= 9)
    m.optimize()
    for read in (m.basis, lambda: x.ObjRange):
        with pytest.raises(TaviroError, match="without integers"):
            read()
    with pytest.raises(TaviroError, match="this one has integer variables"):
        m.setBasis((["L"] * 2, ["B"]))
    with pytest.raises(TaviroError, match="'clarabel' has no way to do what 'basis'.*'highs'"):
        relaxed = tv.Model(engine="clarabel")
        relaxed.addMVar(2)
        relaxed.setBasis((["L"] * 2, []))


def test_ranges_have_the_shapes_of_blocks(m):
    x = m.addMVar((1, 2), obj=[[3.0, 2.0]], ub=[[3.0, INF]])
    z = m.addVar(lb=-INF)
    c = m.addConstr(np.array([[1.0, 1.0], [1.0, 3.0]]) @ x[0] <= [4.0, 7.0])
    e = m.addConstr(z + 0 * x[0, 0] == 2)
    m.ObjSense = "max"
    m.optimize()
    np.testing.assert_allclose(x.ObjRange, [[[2, 0]], [[INF, 3]]])
    np.testing.assert_allclose(x.UBRange, [[[2.5, 1]], [[4, INF]]])
    np.testing.assert_allclose(x.LBRange, [[[-INF, -INF]], [[3, 1]]])
    np.testing.assert_allclose(c.RHSRange, [[3, 6], [13 / 3, INF]])
    low, high = z.LBRange
    assert (low, high) == (-INF, 2) and e.RHSRange.tolist() == [-INF, INF]
    np.testing.assert_allclose(x[0, 1].ObjRange, [0, 3])
    m.remove(x[0, 0])
    m.update()
    np.testing.assert_allclose(x[0, 1:].ObjRange, [[0], [3]])
    second = pickle.loads(pickle.dumps(m))
    with pytest.raises(TaviroError, match="changed since its last solve"):
        _ = second.getVars().ObjRange


def test_models_that_were_changed_into_others_have_no_ranges(m):
    x = m.addMVar(2, ub=5.0)
    m.addConstr(x.sum() <= 3)
    for change in (
        lambda m, x: m.setObjective(tv.exp(x).sum()),
        lambda m, x: m.addConstr(x @ x <= 1),
        lambda m, x: m.addConstr(x[:1] == tv.sin(x[1:])),
        lambda m, x: x.setAttr("VType", "I"),
        lambda m, x: (m.remove(x[0]), m.addMVar(1, ub=5.0)),
    ):
        other = m.copy()
        other.optimize()
        change(other, other.getVars())
        other.update()
        with pytest.raises(TaviroError, match="changed since its last solve"):
            _ = other.getVars()[:1].ObjRange


def drawn(m, rng):
    """A random linear model."""
    n, k = rng.integers(1, 7), rng.integers(0, 6)
    lower = np.where(rng.random(n) < 0.2, -INF, rng.integers(-3, 3, n))
    width = np.where(rng.random(n) < 0.4, INF, rng.integers(0, 5, n))
    x = m.addMVar(n, lb=lower, ub=np.where(np.isfinite(lower), lower, 0) + width)
    for _ in range(k):
        le, sense = rng.integers(-3, 4, n) @ x, rng.choice(list("<>="), p=[0.45, 0.45, 0.1])
        m.addConstr(tv.TempConstr(le, str(sense), float(rng.integers(-6, 8))))
    m.setObjective(rng.integers(-4, 5, n) @ x, rng.choice(["min", "max"]))
    return x


@pytest.mark.parametrize("seed", range(30))
def test_the_optimum_follows_a_datum_to_the_ends_of_its_range(m, seed):
    """And where it no longer does beyond them, in most models: those that aren't degenerate."""
    x = drawn(m, np.random.default_rng(seed))
    value = optimum(m)
    if value is None or not m.Engine or not m.NumConstrs:
        return
    rows = m.getConstrs()
    slopes = {"Obj": x.X, "RHS": rows.Dual}
    for name, sign in (("LB", 1), ("UB", -1)):
        holds = (x.getAttr(name) == x.X) & (sign * m.ObjSense * x.ReducedCost > 0)
        slopes[name] = np.where(holds, x.ReducedCost, 0.0)
    ranges = {name: (rows if name == "RHS" else x).getAttr(f"{name}Range") for name in slopes}
    for name, (low, high) in ranges.items():
        block = rows if name == "RHS" else x
        given = block.getAttr(name)
        assert (low <= given + 1e-9).all() and (given <= high + 1e-9).all()
        for k, end in [(k, end[k]) for end in (low, high) for k in range(block.size)]:
            if np.isfinite(end) and np.isfinite(given[k]):
                block[k].setAttr(name, end)
                assert optimum(m) == pytest.approx(value + slopes[name][k] * (end - given[k]))
                block[k].setAttr(name, given[k])


def test_the_optimum_leaves_its_slope_beyond_the_ends(m):
    x = m.addMVar(2, ub=[3.0, INF])
    c = m.addConstr(np.array([[1.0, 1.0], [1.0, 3.0]]) @ x <= [4.0, 7.0])
    m.setObjective(3 * x[0] + 2 * x[1], "max")
    value, dual, (low, high) = optimum(m), c.Dual[0], c.RHSRange[:, 0]
    for end in (low, high):
        c[0].RHS = end + np.sign(end - 4.0)
        assert optimum(m) < value + dual * (c[0].RHS.item() - 4.0) - 0.1
