"""A program with types that the checkers accept as it stands, and that runs."""

from typing import assert_type

import numpy as np
from numpy.typing import NDArray
from scipy.sparse import csr_array

import taviropy as tv
from taviropy.typing import ObjSense, Sparse, VType

type Floats = NDArray[np.float64]


class Plan(tv.Model):
    """A model with data of its own: names that begin with an underscore are the user's."""

    _periods: int


def revenue(x: tv.MVar, prices: Floats) -> tv.MLinExpr:
    return prices @ x


def balance(m: tv.Model, x: tv.MVar, matrix: Floats) -> tv.MConstr:
    return m.addConstr(matrix @ x <= np.ones(matrix.shape[0]), name="balance")


def covers(m: tv.Model, matrix: Sparse, x: tv.MVar) -> tv.MConstr:
    return m.addConstr(matrix @ x >= 0.1)


def squares(x: tv.MVar) -> tv.TempConstr[tv.MQConstr]:
    return x**2 <= 4


def solved(m: tv.Model, sense: ObjSense, x: tv.MVar) -> Floats:
    m.setObjective(x.sum(), sense)
    m.setOption("timeLimit", 60)
    m.setOption("limits/nodes", 1000)
    m.optimize()
    if m.Status != "OPTIMAL":
        raise RuntimeError(f"{m.Status}: {m.Status + 0}")
    return x.X


def main() -> None:
    matrix = np.array([[1.0, 2.0, 1.0], [0.0, 1.0, 3.0]])
    kinds: list[VType] = ["C", "I", "C"]
    with Plan("plan", engine="auto") as m:
        m._periods = 3
        x = m.addMVar(3, ub=[4, 5, 6], vtype=kinds, name="x")
        y = m.addMVar((3,), lb=-np.ones(3), ub=np.float64(9), vtype="C", name=["a", "b", "c"])
        v = m.addVar(ub=np.int64(3), obj=1, vtype="B")
        rows = balance(m, x, matrix)
        covers(m, csr_array(matrix), x)
        lone = m.addConstr(v + 2 * v <= 3)
        assert_type(lone, tv.Constr)
        assert_type(m.addConstr(squares(y)), tv.MQConstr)
        assert_type(m.addConstr(y <= [1, 2, 3]), tv.MConstr)
        assert_type(m.addConstr(v * v <= 1), tv.QConstr)
        assert_type(m.addGenConstrIndicator(v, True, x <= 3), tv.MGenConstr)
        assert_type(m.addGenConstrIndicator(v, True, v <= 3), tv.GenConstr)

        total = tv.MLinExpr.zeros(())
        for xi, row in zip(x, rows, strict=False):
            total += 2 * xi
            assert_type(row, tv.MConstr)
        for each in x.tolist():
            assert isinstance(each, tv.Var)
        m.addConstr(total <= 100)

        m.update()
        x.UB = 5
        x.Start = np.zeros(3)
        x.LB = [0, 0, 0]
        x.VType = "C"
        y.VType = ["I"] + ["C"] * 2
        rows.RHS = matrix.sum(axis=1)
        rows.Sense = "<"
        v.UB = np.float64(1)
        lone.RHS = 2
        m.ObjSense = "max"
        m.ObjSense = tv.TVO.MINIMIZE
        m.remove([rows[0], lone])

        assert_type(solved(m, "max", x), Floats)
        assert_type(solved(m, tv.TVO.MAXIMIZE, y), Floats)
        assert_type(m.Objective, float)
        assert_type(m.NumVars, int)
        assert_type(m.getOption("timeLimit"), float)
        assert_type(m.ModelName, str)
        assert_type(revenue(x, np.ones(3)).getValue(), Floats)

        assert_type(tv.vstack((x, y)), tv.MVar)
        assert_type(tv.vstack((x, y + 1)), tv.MLinExpr)
        assert_type(tv.hstack([x * y, x, np.ones(3)]), tv.MQuadExpr)
        assert_type(tv.concatenate((tv.exp(x), x)), tv.MNLExpr)
        assert_type(tv.hstack((rows, rows)), tv.MConstr)


if __name__ == "__main__":
    main()
