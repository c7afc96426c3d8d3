"""Statuses and optima that solvers get wrong, their claims put to the test, and what they can't see."""

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
    assert m.addMVar((0,)).X.shape == (0,)


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


def test_nonlinear_models_without_an_end():
    def cube(m):
        x, y = m.addMVar(2, lb=-INF).tolist()
        m.addConstr(y == x**3)
        m.setObjective(1e-3 * y)

    def product(m):
        x = m.addMVar(2, lb=-INF)
        m.setObjective(x[0] * x[1], "max")

    def wide(m):  # there is an end; that of z is nowhere
        x, y, z = m.addMVar(3, lb=-INF, ub=[2, INF, INF]).tolist()
        m.addConstr(y == x**3)
        m.addConstr(z >= y**2)
        m.setObjective(y, "max")

    def none(m):
        cube(m)
        x = m.addVar(lb=-INF)
        m.addConstr(x**2 <= -1)

    pytest.importorskip("pyscipopt")
    assert solved(cube).Status == Status.UNBOUNDED
    assert solved(product).Status == Status.UNBOUNDED
    assert solved(wide).Objective == pytest.approx(8, abs=1e-4)
    assert solved(none).Status == Status.INFEASIBLE


# What a solver can't see


@pytest.mark.parametrize("engine", ["highs", "scip"])
def test_small_coefficients_count(engine):
    def one(m):
        x = m.addVar(ub=1e12, obj=-1)
        m.addConstr(1e-10 * x <= 1)

    assert solved(one, engine).Objective == pytest.approx(-1e10)


def test_small_coefficients_count_in_all_parts():
    def in_a_tree(m):
        x, y = m.addVar(ub=1e12), m.addVar(ub=1e3)
        m.addConstr(y == 1e-11 * x + tv.sin(0 * x))
        m.setObjective(-1 * y)

    def in_a_product(m):
        x = m.addVar(ub=1e9, obj=-1)
        m.addConstr(1e-12 * x * x + 1e-10 * x <= 1)
        m.addConstr(x * x >= 0)  # not convex

    def in_costs(m):
        x = m.addVar(lb=1, ub=9)
        m.addConstr(x >= 2)
        m.setObjective(1e-12 * x)

    pytest.importorskip("pyscipopt")
    assert solved(in_a_tree).Objective == pytest.approx(-10)
    assert solved(in_a_product, "scip").Objective == pytest.approx(-1e6 + 50, rel=1e-6)
    for engine in ("highs", "clarabel", "scip"):
        assert solved(in_costs, engine).Objective == pytest.approx(2e-12, rel=1e-6)


def test_what_is_out_of_reach_is_named():
    def row(m):
        x = m.addVar(ub=9, name="x")
        m.addConstr(1e-16 * x <= 1, name="r")

    def square(m):
        x = m.addVar(ub=9, name="x")
        m.addConstr(1e-16 * x * x + x <= 1, name="r")

    def tree(m):
        x = m.addVar(ub=9, name="x")
        m.addConstr(x**3 + 1e-16 * x <= 1, name="r")

    def wide(m):
        x = m.addVar(lb=-1, ub=1e22, name="x", obj=1)
        m.addConstr(x <= 5)

    def side(m):
        x = m.addVar(ub=9, name="x", obj=1)
        m.addConstr(x <= 1e21, name="r")

    for build, words, engines in (
        (row, "1e-16 of variable 'x' in the constraint 'r'", ("highs", "scip")),
        (square, "1e-16 of variable 'x' squared in the constraint 'r'", ("scip",)),
        (tree, "1e-16 in the constraint 'r", ("scip",)),
        (wide, r"the bound 1e\+22 of 'x'", ("clarabel", "scip")),
        (side, r"the side 1e\+21 of 'r'", ("clarabel", "scip")),
    ):
        for engine in engines:
            with pytest.warns(tv.NumericsWarning, match=words):
                assert solved(build, engine).Status == Status.OPTIMAL


def test_scip_names_what_it_refuses():
    def cost(m):
        m.addMVar(2, ub=1, obj=[1, -1e25], name="x")
        m.addConstr(m.addVar() <= 1)

    def row(m):
        m.addConstr(1e25 * m.addVar(name="x") <= 1, name="r")

    def binary(m):
        m.addVar(lb=2, ub=3, vtype="B")

    pytest.importorskip("pyscipopt")
    for build, words in (
        (cost, r"-1e\+25 of variable 'x\[1\]' in the objective"),
        (row, r"1e\+25 of variable 'x' in the constraint 'r'"),
    ):
        with pytest.raises(tv.TaviroError, match=words):
            solved(build, "scip")
    assert solved(binary, "scip").Status == Status.INFEASIBLE
