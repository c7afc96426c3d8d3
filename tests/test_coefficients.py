"""Coefficients read and set by blocks, and variables that enter old rows."""

import numpy as np
import pytest
import scipy.sparse as sp

import taviropy as tv


@pytest.mark.parametrize("seed", range(25))
def test_changed_coefficients_are_those_of_a_model_built_anew(m, seed):
    rng = np.random.default_rng(seed)
    costs, A = -rng.random(6), rng.integers(0, 3, (4, 6)).astype(float)
    b = 10.0 + rng.random(4)
    blocks = [m.addMVar(6, ub=5, obj=costs)]
    c = m.addConstr(A @ blocks[0] <= b)
    for _ in range(rng.integers(1, 6)):
        if rng.random() < 0.7:
            m.optimize()  # the engine has the model and is told of changes
        x, kind = tv.hstack(blocks), rng.integers(4)
        if kind == 0:
            rows, columns = (
                rng.choice(4, 2, replace=False),
                rng.choice(A.shape[1], 3, replace=False),
            )
            block = rng.integers(0, 3, (2, 3)).astype(float)
            m.setCoefficients(c[rows], x[columns], block)
            A[np.ix_(rows, columns)] = block
        elif kind == 1:
            block, more = rng.integers(0, 3, (4, 2)).astype(float), -rng.random(2)
            given = block if rng.random() < 0.5 else sp.csc_matrix(block)
            blocks.append(m.addMVar(2, ub=5, obj=more, columns=(c, given)))
            A, costs = np.hstack([A, block]), np.append(costs, more)
        elif kind == 2:
            block = sp.random_array(A.shape, density=0.3, rng=rng).tocoo()
            m.setCoefficients(c, x, block)
            A[block.row, block.col] = block.data
        else:
            m.addConstr(x[1] + x[2] <= 9)
            m.setCoefficients(c[1], x[2], 1.5)
            A[1, 2] = 1.5
    m.optimize()
    assert np.array_equal(m.getCoefficients(c).matrix.toarray(), A)
    assert np.array_equal(m.getObjective().costs, costs)
    again = tv.Model("again")
    again.setOption("log", False)
    rows = m.getCoefficients()
    z = again.addMVar(A.shape[1], ub=5, obj=costs)
    again.addConstr(rows.matrix @ z <= rows.rhs)
    again.optimize()
    assert m.Objective == pytest.approx(again.Objective, abs=1e-7) and m.check()


def test_removed_and_waiting_elements(m):
    x = m.addMVar(4, obj=[1.0, 2.0, 3.0, 4.0])
    c = m.addConstr(x + x[::-1] >= 1.0)
    m.setCoefficients(c, x, sp.eye_array(4) * 7)  # both wait
    m.remove([c[0], x[1]])
    m.update()
    assert m.getCoefficients().matrix.toarray().tolist() == [[0, 1, 0], [0, 7, 0], [1, 0, 7]]
    m.setCoefficients(c[3], x[[0, 3]], np.zeros((1, 2)))
    A, senses, rhs = m.getCoefficients(c[2:])
    assert A.toarray().tolist() == [[0, 7, 0], [0, 0, 0]] and A.nnz == 1
    assert senses.tolist() == [">", ">"] and rhs.tolist() == [1.0, 1.0]
    m.optimize()
    assert m.Status == "INFEASIBLE"


def test_many_changed_coefficients_at_once(m):
    n = 60
    A = np.random.default_rng(1).random((n, n))
    x = m.addMVar(n, obj=1.0)
    c = m.addConstr(A @ x >= 1.0)
    m.optimize()
    m.setCoefficients(c, x, A + 1.0)
    m.optimize()
    assert np.all((A + 1.0) @ x.X >= 1.0 - 1e-6) and m.check()


def test_the_objective_as_arrays(m):
    x = m.addMVar(3)
    assert m.getObjective().quadratic is None
    m.setObjective(x[0] * x[1] + 2 * x[1] * x[0] + x[2] * x[2] - x.sum() + 4)
    m.update()
    costs, Q, offset = m.getObjective()
    assert costs.tolist() == [-1, -1, -1] and offset == 4.0
    assert Q.toarray().tolist() == [[0, 3, 0], [0, 0, 0], [0, 0, 1]]


def test_what_is_refused_changes_nothing(m):
    x, other = m.addMVar(2), tv.Model("other").addMVar(2)
    c, ball = m.addConstr(x <= 1), m.addConstr(x @ x <= 1)
    m.update()
    before = m.getCoefficients().matrix.toarray()
    broken = sp.csr_array((np.ones(2), np.array([0, 5]), np.array([0, 1, 2])), shape=(2, 2))
    for args, error, text in [
        ((c, x, np.ones((2, 3))), ValueError, r"\(2, 3\)"),
        ((c, x, sp.eye_array(3)), ValueError, r"\(3, 3\)"),
        ((c, x, broken), ValueError, "malformed"),
        ((c, x, [[1.0, np.nan], [0.0, 0.0]]), tv.TaviroError, "nan"),
        ((c, x, "ab"), tv.TaviroError, "ab"),
        ((c, other, np.ones((2, 2))), tv.TaviroError, "model"),
        ((c, x[[0, 0]], np.ones((2, 2))), tv.TaviroError, "twice"),
        ((ball, x, np.ones((1, 2))), TypeError, "MQConstr|QConstr"),
        ((c, 2 * x, np.ones((2, 2))), TypeError, "MLinExpr"),
    ]:
        with pytest.raises(error, match=text):
            m.setCoefficients(*args)
    with pytest.raises(ValueError):
        m.addMVar(2, columns=(c, np.ones((3, 2))))
    m.update()
    assert m.NumVars == 2 and np.array_equal(m.getCoefficients().matrix.toarray(), before)
    with pytest.raises(tv.TaviroError, match="awaits"):
        m.getCoefficients(m.addConstr(x <= 2))
