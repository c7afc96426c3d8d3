"""Mistakes: a checker refuses each line with the word at its end, and no other."""

import numpy as np
from numpy.typing import NDArray

import taviropy as tv
from taviropy.typing import Sparse


def names(m: tv.Model, x: tv.MVar, c: tv.MConstr, v: tv.Var) -> None:
    m.optimise()  # wrong
    m.NumVar  # wrong
    m.objsense = "max"  # wrong
    x.lb = 0  # wrong
    x.x  # wrong
    c.Duals  # wrong
    v.Ub = 1  # wrong
    tv.Modell()  # wrong
    tv.TVO.MAX  # wrong
    v.shape  # wrong
    x.item().tolist()  # wrong


def choices(m: tv.Model, x: tv.MVar, c: tv.MConstr, q: tv.QConstr) -> None:
    m.setObjective(x.sum(), sense="maximise")  # wrong
    m.setObjective(x.sum(), "minimize")  # wrong
    m.setObjective(x.sum(), 2)  # wrong
    m.ObjSense = "maximum"  # wrong
    m.addMVar(3, vtype="integer")  # wrong
    m.addMVar(3, vtype=int)  # wrong
    m.addVar(vtype="BINARY")  # wrong
    tv.Model(engine="hihgs")  # wrong
    x.VType = "integer"  # wrong
    c.Sense = "<="  # wrong
    q.QSense = "=="  # wrong


def attributes(m: tv.Model, x: tv.MVar, c: tv.MConstr, v: tv.Var, k: tv.Constr) -> None:
    m.NumVars = 3  # wrong
    m.Objective = 0.0  # wrong
    x.X = np.zeros(3)  # wrong
    c.Dual = 0  # wrong
    v.X = 1.0  # wrong
    k.Slack = 0.0  # wrong
    v.LB = "0"  # wrong
    x.UB = "many"  # wrong
    x.UB = [None, 2, 3]  # wrong
    x.UB = [[1], [2]]  # wrong
    name: str = v.UB  # wrong
    count: int = m.ModelName  # wrong
    print(name, count)


def arguments(m: tv.Model, x: tv.MVar, v: tv.Var) -> None:
    m.addMVar()  # wrong
    m.addMVar("three")  # wrong
    m.addMVar(2.5)  # wrong
    m.addMVar(3, lb="0")  # wrong
    m.addMVar(3, lower=0)  # wrong
    m.addVar(ub=[1, 2])  # wrong
    m.setObjective("x + y")  # wrong
    m.setObjective(x <= 1)  # wrong
    m.addConstr(x)  # wrong
    m.addConstr("x <= 1")  # wrong
    m.addConstr(x.LB <= 3)  # wrong
    m.addConstr(x != 1)  # wrong
    m.addConstr(v != 1)  # wrong
    m.addConstr(tv.exp(x) == 1)  # wrong
    m.addGenConstrNL(3, tv.exp(x))  # wrong
    m.addGenConstrIndicator(v, True, x * x <= 1)  # wrong
    m.remove("x")  # wrong
    m.write(3)  # wrong
    m.setOption(3, 4)  # wrong
    x.reshape("C")  # wrong
    tv.vstack(x, x)  # wrong
    tv.exp("x")  # wrong


def operators(x: tv.MVar, v: tv.Var, a: NDArray[np.float64], s: Sparse, n: tv.MNLExpr) -> None:
    x + "1"  # wrong
    x < 1  # wrong
    v > 1  # wrong
    x @ 2  # wrong
    v @ x  # wrong
    x - s  # wrong
    n + s  # wrong
    n <= 1  # wrong
    tv.exp(v) + None  # wrong
    x / (x * x)  # wrong
    x + [1, 2, 3]  # wrong
    v * [1, 2]  # wrong


def results(m: tv.Model, x: tv.MVar, v: tv.Var, a: NDArray[np.float64]) -> None:
    linear: tv.MLinExpr = x * x  # wrong
    scalar: tv.LinExpr = a @ x  # wrong
    product: tv.QuadExpr = v * x  # wrong
    single: tv.Constr = m.addConstr(x <= 1)  # wrong
    rows: tv.MConstr = m.addConstr(x * x <= 1)  # wrong
    curve: tv.GenConstr = m.addConstr(x == tv.exp(x))  # wrong
    block: tv.MVar = tv.vstack((x, x + 1))  # wrong
    limit: str = m.getOption("timeLimit")  # wrong
    print(linear, scalar, product, single, rows, curve, block, limit)
    for xi in x:
        xi.item().append(1)  # wrong
