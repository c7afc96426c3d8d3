"""Nonlinear problems whose optima the literature gives, solved over arrays of variables.

"HS" with a number is a problem of Hock and Schittkowski, Test Examples for Nonlinear Programming
Codes (Springer, 1981).
"""

import numpy as np
import pytest

import taviropy as tv

INF = np.inf


@pytest.fixture
def m():
    with tv.Model("optima") as model:
        model.setOption("log", False)
        model.setOption("gap", 1e-5)
        model.setOption("timeLimit", 30)
        model.setOption("numerics/feastol", 1e-8)
        yield model


def defined(m, expr, lb=-INF, ub=INF):
    """New variables that equal a nonlinear expression, within bounds."""
    value = m.addMVar(expr.shape, lb=lb, ub=ub)
    m.addConstr(value == expr)
    return value


def assert_optimum(m, published, x=None, at=None):
    m.optimize()
    assert m.Status == tv.TVO.Status.OPTIMAL
    assert m.Objective == pytest.approx(published, rel=1e-4)
    if x is not None:
        np.testing.assert_allclose(x.X, at, atol=2e-2)


def test_hs5_sine(m):
    x = m.addMVar(2, lb=[-1.5, -3], ub=[4, 3])
    wave = defined(m, tv.sin(x.sum()))
    m.setObjective(wave + (x[0] - x[1]) ** 2 - np.array([1.5, -2.5]) @ x + 1)
    assert_optimum(m, -np.sqrt(3) / 2 - np.pi / 3, x, [0.5 - np.pi / 3, -0.5 - np.pi / 3])


def test_hs43_convex_quadratic(m):
    """Rosen and Suzuki, Communications of the ACM 8 (1965)."""
    x = m.addMVar(4, lb=-INF)
    squares = np.array([[1, 1, 1, 1], [1, 2, 1, 2], [2, 1, 1, 0]])
    linear = np.array([[1, -1, 1, -1], [-1, 0, 0, -1], [2, -1, 0, -1]])
    m.addConstr(squares @ (x * x) + linear @ x <= np.array([8, 10, 5]))
    m.setObjective(x @ np.diag([1, 1, 2, 1]) @ x + np.array([-5, -5, -21, 7]) @ x)
    assert_optimum(m, -44, x, [0, 1, 2, -1])


def test_hs62_logarithms_of_ratios(m):
    x = m.addMVar(3, ub=1)
    above = np.triu(np.ones((3, 3)))
    below = above - np.diag([0.91, 0.93, 0.87])
    gain = defined(m, tv.log((above @ x + 0.03) / (below @ x + 0.03)))
    m.addConstr(x.sum() == 1)
    m.setObjective(-32.174 * (np.array([255, 280, 290]) @ gain))
    assert_optimum(m, -26272.51448, x, [0.617813, 0.328202, 0.053985])


def test_hs71_products(m):
    x = m.addMVar(4, lb=1, ub=5)
    defined(m, x[0] * x[1] * x[2] * x[3], lb=25)
    m.addConstr((x * x).sum() == 40)
    m.setObjective(defined(m, x[0] * x[3] * x[:3].sum() + x[2]))
    assert_optimum(m, 17.0140173, x, [1, 4.742999, 3.821150, 1.379408])


def test_hs80_exponential(m):
    bound = np.array([2.3, 2.3, 3.2, 3.2, 3.2])
    x = m.addMVar(5, lb=-bound, ub=bound)
    m.addConstr((x * x).sum() == 10)
    m.addConstr(x[1] * x[2] == 5 * x[3] * x[4])
    defined(m, (x[:2] ** 3).sum(), lb=-1, ub=-1)
    m.setObjective(defined(m, tv.exp(x[0] * x[1] * x[2] * x[3] * x[4])))
    assert_optimum(m, 0.0539498478)


def test_hs100_powers(m):
    x = m.addMVar(7, lb=-10, ub=12)  # a box round the optimum, for a proof in time
    p = defined(m, x ** np.array([2, 4, 4, 2, 6, 2, 4]))  # x1^2, x2^4, x3^4 ...
    m.addConstr(2 * p[0] + 3 * p[1] + x[2] + 4 * x[3] ** 2 + 5 * x[4] <= 127)
    m.addConstr(7 * x[0] + 3 * x[1] + 10 * x[2] ** 2 + x[3] - x[4] <= 282)
    m.addConstr(23 * x[0] + x[1] ** 2 + 6 * p[5] - 8 * x[6] <= 196)
    m.addConstr(4 * p[0] + x[1] ** 2 - 3 * x[0] * x[1] + 2 * x[2] ** 2 + 5 * x[5] <= 11 * x[6])
    centre = np.array([10, 12, 11])
    m.setObjective(
        np.array([1, 5, 3]) @ (x[[0, 1, 3]] - centre) ** 2
        + np.array([1, 10, 7, 1]) @ p[[2, 4, 5, 6]]
        - (4 * x[5] * x[6] + 10 * x[5] + 8 * x[6])
    )
    assert_optimum(m, 680.6300573)


def test_fermat_point_of_a_triangle(m):
    """The least sum of distances to the corners of a triangle has a closed form (Torricelli)."""
    corners = np.array([[0, 0], [4, 0], [0, 3]])
    x = m.addMVar(2, ub=4)
    m.setObjective(defined(m, tv.sqrt(((x - corners) ** 2).sum(axis=1))).sum())
    assert_optimum(m, np.sqrt((3**2 + 4**2 + 5**2) / 2 + 2 * np.sqrt(3) * 6))


@pytest.mark.parametrize(
    ("limit", "price", "published"), [(100, 16, -400), (600, 16, -600), (100, 13, -750)]
)
def test_haverly_pooling(m, limit, price, published):
    """Haverly, Studies of the Behaviour of Recursion for the Pooling Problem (SIGMAP, 1978).

    Crudes of 3 % and 1 % sulphur are pooled; the pool and a third crude of 2 % are blended to two
    products of at most 2.5 % and 1.5 %.
    """
    pooled = m.addMVar(2, obj=[6, price], name="pooled")
    blend = m.addMVar((2, 2), obj=np.array([[-9, -15], [1, -5]]), name="blend")
    sulphur = m.addVar(lb=1, ub=3, name="sulphur")
    m.addConstr(pooled.sum() == blend[0].sum())
    m.addConstr(np.array([3, 1]) @ pooled == sulphur * blend[0].sum())
    m.addConstr(sulphur * blend[0] + 2 * blend[1] <= np.array([2.5, 1.5]) * blend.sum(axis=0))
    m.addConstr(blend.sum(axis=0) <= np.array([limit, 200]))
    assert_optimum(m, published)


def test_pressure_vessel_in_whole_plates(m):
    """Kannan and Kramer, Journal of Mechanical Design 116 (1994); plates come in 1/16 inch."""
    plates = m.addMVar(2, lb=1, ub=99, vtype="I")  # of the shell and of the head
    size = m.addMVar(2, lb=10, ub=200)  # radius and length
    shell, head = 0.0625 * plates[0], 0.0625 * plates[1]
    radius, length = size[0], size[1]
    m.addConstr(0.0625 * plates >= np.array([0.0193, 0.00954]) * radius)
    defined(m, np.pi * radius**2 * (length + 4 / 3 * radius), lb=1_296_000)
    plate_cost = 0.6224 * shell * radius * length + 1.7781 * head * radius**2
    weld_cost = shell**2 * (3.1661 * length + 19.84 * radius)
    m.setObjective(defined(m, plate_cost + weld_cost))
    assert_optimum(m, 6059.714335)
    np.testing.assert_array_equal(np.round(plates.X), [13, 7])
