"""Statuses and optima: random models against what they must be, claims of solvers put to the test."""

import answers
import numpy as np
import pytest
import scipy.sparse as sp
from inside import view_of

import taviropy as tv
from taviropy import TVO
from taviropy.engines.certificates import has_ray, is_ray, proves_no_point
from taviropy.engines.highs import HighsEngine
from taviropy.engines.optimality import ConvexProgram

Status = TVO.Status
INF = np.inf


def solved(build, engine="auto"):
    """A model that `build` filled, solved."""
    m = tv.Model(engine=engine)
    m.setOption("log", False)
    m.setOption("timeLimit", 20)
    build(m)
    m.optimize()
    return m


@pytest.mark.parametrize(
    "kind, engine, count",
    [
        ("lp", "highs", 100),
        ("mip", "highs", 60),
        ("qp", "clarabel", 60),
        ("qp", "highs", 60),
    ],
)
def test_random_models(kind, engine, count):
    wrong = [text for text, _ in answers.compare(kind, engine, count, seed=10)]
    assert not wrong, "\n".join(wrong)


def test_integers_between_fractional_bounds():
    for engine in ("highs", "scip"):
        with tv.Model(engine=engine) as m:
            m.setOption("log", False)
            x = m.addMVar(2, lb=-2.75, ub=[1.75, 1.5], obj=[-2, -4], vtype="I")
            m.addConstr(np.array([[-1, 1], [3, 2]]) @ x <= [-1, 4])
            y = m.addVar(lb=0.25, ub=9, vtype="I", obj=1)
            m.addConstr(y <= 5)
            m.optimize()
            assert m.Status == Status.OPTIMAL and m.Objective == pytest.approx(-1)
            np.testing.assert_allclose(x.X, [1, 0], atol=1e-6)
            assert pytest.approx(1) == y.X and y.LB == 0.25 and x.LB.tolist() == [-2.75, -2.75]
            y.UB = 0.75  # nothing whole is left
            m.optimize()
            assert m.Status == Status.INFEASIBLE


@pytest.mark.parametrize("engine", ["auto", "highs", "clarabel", "scip"])
def test_models_without_variables(engine):
    def row_alone(m):
        m.addConstr(tv.LinExpr() >= 1)

    def row_left_behind(m):
        x = m.addVar(obj=2)
        m.addConstr(x >= 1)
        m.update()
        m.remove(x)

    def constant(m):
        m.setObjective(tv.LinExpr() + 3.0, "max")
        m.addConstr(tv.LinExpr() >= -1)

    assert solved(row_alone, engine).Status == Status.INFEASIBLE
    assert solved(row_left_behind, engine).Status == Status.INFEASIBLE
    m = solved(constant, engine)
    assert m.Status == Status.OPTIMAL and m.Objective == m.Bound == 3.0


@pytest.mark.parametrize("engine", ["highs", "clarabel", "scip"])
def test_the_objective_is_that_at_the_point(engine):
    """Where a solver drops tiny coefficients, the value is still the model's."""
    with tv.Model(engine=engine) as m:
        m.setOption("log", False)
        x = m.addVar(ub=1e5)
        m.setObjective(4.9e-10 * x * x - 1e-4 * x)
        m.optimize()
        assert m.Objective == pytest.approx(4.9e-10 * x.X**2 - 1e-4 * x.X, rel=1e-12)
        assert m.Objective == pytest.approx(-5.1, rel=1e-6)


@pytest.mark.parametrize("engine", ["auto", "highs"])
def test_a_small_convex_program_ends_by_itself(engine):
    with tv.Model(engine=engine) as m:
        m.setOption("log", False)
        x = m.addMVar(4, lb=[-5, 0, -4, -8], ub=[0, 7, 8, 2.5])
        m.addConstr(np.array([11.384, 0, -6.017, 0]) @ x >= 1)
        Q = np.zeros((4, 4))
        Q[:2, :2] = [[8, -4], [-4, 2]]
        m.setObjective(x @ Q @ x - 3 * x[1])
        m.optimize()
        assert m.Status == Status.OPTIMAL and m.Objective == pytest.approx(-1.125, abs=1e-6)


# Claims


def program(m):
    """The model as the certificates see it."""
    return ConvexProgram(view_of(m))


def test_certificates_are_checked():
    with tv.Model() as m:
        x = m.addMVar(3, lb=[0, -INF, 0], ub=[INF, INF, 4])
        m.addConstr(np.array([[1, 1, 0], [1, 1, 1], [-1, 1, 1e-3]]) @ x >= [1, -INF, -9])
        first = m.addConstr(x[0] + x[1] + x[2] <= 0.5)
        found = program(m)
        assert proves_no_point(found, np.array([1.0, 0, 0, -1]))  # -x[2] >= 0.5
        assert proves_no_point(found, np.array([-2.0, 0, 0, 2]))
        for none in ([1.0, 0, 0, 0], [1, 0, 0, -0.5], [0, 1, 0, -1], [0, 0, 0, 0]):
            assert not proves_no_point(found, np.array(none, float))
        m.remove(first)
        m.setObjective(x[1] - x[0], "max")
        found = program(m)
        assert is_ray(found, np.array([0.0, 1, 0])) and is_ray(found, np.array([1e7, 2e7, 0]))
        for none in ([1.0, 1, 0], [0, 1, 1], [-1, 1, 0], [0, -1, 0], [0, 0, 0]):
            assert not is_ray(found, np.array(none, float))
        assert has_ray(found)
        m.addConstr(x[1] - 2 * x[0] <= 7)
        assert has_ray(program(m))  # by (1, 2, 0)
        m.addConstr(2 * x[0] - x[1] + sp.csr_array([[0, 0, 1.0]]) @ x <= 7)
        m.addConstr(x[1] + x[2] <= 7)
        assert not has_ray(program(m))


@pytest.mark.parametrize("vtype", ["C", "I"])
@pytest.mark.parametrize(
    "claim", [Status.INFEASIBLE, Status.UNBOUNDED, Status.INFEASIBLE_OR_UNBOUNDED, Status.FAILED]
)
def test_no_claim_of_highs_is_taken_on_trust(monkeypatch, vtype, claim):
    """Whatever HiGHS says first about a model, what comes out is right."""
    real = HighsEngine._status
    for side, right in ((5, Status.OPTIMAL), (-5, Status.INFEASIBLE), (INF, Status.UNBOUNDED)):
        with tv.Model(engine="highs") as m:
            m.setOption("log", False)
            x = m.addMVar(2, ub=INF if side == INF else 9, vtype=vtype)
            m.addConstr(x.sum() <= side)
            m.setObjective(x.sum(), "max")
            claims = [claim]
            monkeypatch.setattr(
                HighsEngine, "_status", lambda self, c=claims: c.pop() if c else real(self)
            )
            m.optimize()
            assert m.Status == right
