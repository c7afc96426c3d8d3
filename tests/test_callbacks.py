"""Functions of the user's that are called while a model is solved."""

import io
import sys
from itertools import permutations

import numpy as np
import pytest

import taviropy as tv


def knapsack(engine, n=30):
    rng = np.random.default_rng(0)
    m = tv.Model("knapsack", engine=engine)
    m.setOption("log", False)
    x = m.addMVar(n, vtype="B")
    m.addConstr(rng.integers(5, 20, (8, n)) @ x <= 2.55 * n)
    m.setObjective((rng.integers(50, 100, n) + rng.random(n)) @ x + 1000, "max")
    return m, x


@pytest.mark.parametrize("engine", ["highs", "scip"])
def test_incumbents_and_bounds(engine):
    m, x = knapsack(engine)
    seen = []

    def note(p):
        if p.is_new:
            value = p.value(x)
            assert value.shape == x.shape and set(np.round(value, 6)) <= {0, 1}
            assert p.value(x.sum() + 1) == pytest.approx(value.sum() + 1)
            assert p.value(x[0].item()) == value[0]
        seen.append(p)

    m.optimize(callback=note)
    new = [p for p in seen if p.is_new]
    assert m.Status == "OPTIMAL" and len(new) > 1
    assert new[-1].incumbent == pytest.approx(m.Objective) and np.allclose(new[-1].value(x), x.X)
    assert all(p.bound is None or p.bound >= m.Objective - 1e-6 for p in seen)
    assert all(a.seconds <= b.seconds for a, b in zip(seen, seen[1:], strict=False))


@pytest.mark.parametrize("engine", ["highs", "scip"])
def test_a_callback_may_stop_a_solve_or_fail(engine):
    m, x = knapsack(engine, 120)
    m.optimize(callback=lambda p: p.stop() if p.is_new else None)
    assert m.Status == "INTERRUPTED" and len(x.X) == 120

    def fail(p):
        raise KeyError("mine")

    with pytest.raises(KeyError, match="mine"):
        m.optimize(callback=fail)
    assert m.Status == "INTERRUPTED"
    with pytest.raises(tv.TaviroError, match="being solved"):
        m.optimize(callback=lambda p: m.addVar())
    m.setOption("gap", 0.05)
    m.optimize()
    assert m.Status == "OPTIMAL"


@pytest.mark.parametrize("engine", ["clarabel", "ipopt", "highs"])
def test_news_of_continuous_solves(engine):
    rng = np.random.default_rng(1)
    m = tv.Model("lp", engine=engine)
    m.setOption("log", False)
    x = m.addMVar(200, ub=1.0)
    m.addConstr(rng.random((150, 200)) @ x <= 20)
    m.setObjective(rng.random(200) @ x, "max")
    seen = []
    m.optimize(callback=seen.append)
    assert m.Status == "OPTIMAL" and all(p.incumbent is None and p.gap is None for p in seen)
    if seen:
        with pytest.raises(tv.TaviroError, match="No point is known yet"):
            seen[0].value(x)


def tour_length(D):
    rest = range(1, len(D))
    return min(
        sum(D[a, b] for a, b in zip((0, *p), (*p, 0), strict=True)) for p in permutations(rest)
    )


def parts(edges, n):
    """The connected parts of a graph."""
    waiting, found = set(range(n)), []
    while waiting:
        part, new = set(), {waiting.pop()}
        while new:
            part |= new
            new = {j for i in new for j in np.flatnonzero(edges[i] + edges[:, i] > 0.5)} - part
        waiting -= part
        found.append(sorted(part))
    return found


@pytest.mark.parametrize("seed", range(3))
def test_a_tour_by_lazy_rows(seed):
    n = 8
    places = np.random.default_rng(seed).random((n, 2))
    D = np.linalg.norm(places[:, None] - places, axis=2)
    m = tv.Model("tour")
    m.setOption("log", False)
    x = m.addMVar((n, n), vtype="B", ub=np.triu(np.ones((n, n)), 1), obj=D)
    m.addConstr(x.sum(axis=0) + x.sum(axis=1) == 2)

    def connected(p):
        found = parts(p.value(x), n)
        return [x[np.ix_(c, c)].sum() <= len(c) - 1 for c in found] if len(found) > 1 else None

    m.optimize(lazy=connected)
    assert m.Status == "OPTIMAL" and m.Engine == "scip" and len(parts(x.X, n)) == 1
    assert m.Objective == pytest.approx(tour_length(D))
    assert m.NumConstrs == n


def test_lazy_rows_are_asked_for_wherever_a_point_may_be_an_answer():
    """Also where presolve would settle a model by itself, with several rows at once and none."""
    m = tv.Model("m")
    m.setOption("log", False)
    x = m.addMVar(3, ub=4, obj=[-1.0, -1.0, -1.0], vtype="I")
    asked = []

    def rows(p):
        asked.append(p.value(x))
        return x <= np.array([1, 2, 3])

    m.optimize(lazy=rows)
    assert asked and x.X.tolist() == [1, 2, 3]
    m.optimize()
    assert x.X.tolist() == [4, 4, 4]
    m.optimize(lazy=lambda p: [x.sum() <= 2, x[0] >= 3])
    assert m.Status == "INFEASIBLE"


def test_what_is_refused():
    m, x = knapsack("highs")
    with pytest.raises(tv.TaviroError, match="'lazy'"):
        m.optimize(lazy=lambda p: None)
    with pytest.raises(TypeError, match="'callback' takes a function, not int"):
        m.optimize(callback=3)
    m, x = knapsack("auto", 10)
    for bad, error in [(lambda p: x @ x <= 1, "quadratic"), (lambda p: True, "not bool")]:
        with pytest.raises(TypeError, match=error):
            m.optimize(lazy=bad)
    with pytest.raises(ZeroDivisionError):
        m.optimize(lazy=lambda p: 1 / 0)


def test_a_line_that_moves(monkeypatch):
    screen = io.StringIO()
    monkeypatch.setattr(sys, "stderr", screen)
    m, x = knapsack("highs")
    m.optimize()
    assert screen.getvalue() == ""
    m.optimize(progress=True)
    assert "incumbent" in screen.getvalue() and "gap" in screen.getvalue()
    assert "\n" not in screen.getvalue()
    screen.close()
    m.optimize(progress=True)
    assert m.Status == "OPTIMAL"
