"""Every public operation again and again, its error path included: objects and memory stay flat.

TAVIROPY_LEAK_REPEATS sets how often (10,000 shows more than the default and takes minutes).
"""

import contextlib
import copy
import os
import warnings

import numpy as np
import pytest
import scipy.sparse as sp
from heap import heap

import taviropy as tv
from taviropy._scalars import data_of

REPEATS = int(os.environ.get("TAVIROPY_LEAK_REPEATS", "400"))


def scope():
    m = tv.Model("leaks")
    m.setOption("log", False)
    x = m.addMVar(4, ub=1.0, name="x")
    y = m.addMVar(4, ub=1.0)
    X = m.addMVar((2, 3))
    v = m.addVar(ub=1.0)
    A = sp.csr_matrix(np.eye(4) + np.eye(4, k=1))
    c = m.addConstr(A @ x <= 3.0, name="c")
    m.setObjective(x.sum(), sense="max")
    m.optimize()
    bad = sp.csr_matrix((4, 4))
    bad.data, bad.indices = np.ones(3), np.array([0, 9, 1], dtype=np.int32)
    bad.indptr = np.array([0, 1, 2, 3, 3], dtype=np.int32)
    return {
        "d": data_of(m), "tv": tv, "np": np, "sp": sp, "copy": copy, "m": m, "x": x, "y": y, "X": X, "v": v, "A": A,
        "D": A.toarray(), "b": np.arange(4.0), "c": c, "bad": bad, "le": 2 * v + 1, "qe": v * v + v,
        "scalars": tv._scalars, "util": tv._util,
        "e": A @ x + 1.0, "full": (A @ x + 1.0)._to_full(), "mask": np.array([True, False, True, True]),
    }  # fmt: skip


OPERATIONS = {
    "variables": """
        x[2]; x[1:3]; x[mask]; x.T; x.reshape(2, 2); x.copy(); x.tolist(); x.diagonal; X.diagonal()
        repr(x); x.sum(); X.sum(axis=0); X.sum(axis=1); X.sum(axis=5); x[9]; x.item(); x[0].item()
        tv.MVar.fromlist(x.tolist()); tv.MVar.fromlist([1]); copy.copy(x); dir(x); x.nope""",
    "attributes": """
        x.LB; x.X; x.setAttr("UB", b); x.setAttr("UB", [1.0] * 4); x.setAttr("UB", [1.0]); x.VType
        x.setAttr("UB", [1.0, 2.0]); x.setAttr("X", 1.0); x.setAttr("UB", None); x.getAttr("RHS")
        x.VarName; c.Dual; c.Slack; c.RHS; c.setAttr("RHS", 3.0); c.LB; m.Objective; m.NumVars; m.nope
        v.X; v.LB; v.nope; x.setAttr("UB", float("nan")); repr(c); c[0]; c.tolist()""",
    "sums": """
        x + 1; 1 + x; x + b; b + x; x + A; A + x; x + y; x + e; e + x; e - x; x - e; 3 - e; e + v
        e + le; e + full; full + e; full + full; full + b; full + 1; full + x; e + "text"; e - A
        x + np.ones(3); e + np.ones((2, 3)); full + np.ones(3)""",
    "in place": """
        e.copy().__iadd__(x); e.copy().__iadd__(b); e.copy().__iadd__(v); e.copy().__iadd__(le)
        full.copy().__iadd__(x); full.copy().__iadd__(b); full.copy().__iadd__(1)
        full.copy().__iadd__(full); e.copy().__iadd__(np.ones(3)); full.copy().__iadd__(np.ones(3))
        e.copy().__imul__(2); e.copy().__imul__(b); full.copy().__imul__(b); e.copy().__itruediv__(0)
        e.copy().__imul__(b / 0); e.copy().clear(); full.copy().clear()""",
    "products": """
        2 * x; x * b; b * x; x / 2; x / b; A @ x; D @ x; x @ A; x @ D; b @ x; x @ b; A @ e; e @ D
        A @ full; full @ D; e * A; full * A; full * b; bad @ x; x @ bad; e + bad; e * bad; x @ 2; 2 @ x
        A @ X; np.ones((5, 2)) @ X; sp.csr_matrix((5, 2)) @ X; -x; -e; -full""",
    "elements": """
        full[0]; full[1:3]; full[mask]; full[[0, 2]]; full[9]; full[0].item(); full.item(); full.sum()
        full.__setitem__(0, v); full.__setitem__(0, 1.0); full.__setitem__(slice(1, 3), x[:2])
        full.__setitem__(0, "text"); full.__setitem__(slice(None), full); full.__setitem__(9, 1)
        full.__setitem__(slice(None), e); full.__setitem__(0, [1.0, 2.0]); repr(e); repr(full)
        e.getValue(); full.getValue(); e.getConstant(); full.getConstant(); e.copy(); full.copy()
        tv.MLinExpr.zeros(4); tv.MLinExpr.zeros((2, 2)); full.sum(axis=7)""",
    "constraints": """
        x <= 1; 1 >= x; x == y; x != y; e <= b; b <= e; full == full; bool(x <= 1); A <= x; x < 1
        m.addConstr(x <= np.nan); m.addConstr(x + "a"); m.addConstr(e <= np.ones(3))""",
    "scalars": """
        v + 1; 2 * v; v * v; v - le; le * le; qe + le; qe * 2; le / 2; le / 0; v ** 2; v ** 3; 1 / v
        v <= 1; bool(v <= 1); v == v; bool(v == v); repr(le); repr(qe); le.getValue(); qe.getValue()
        le.copy(); qe.copy(); le + "text"; tv.LinExpr([1.0], [v]); tv.LinExpr([1.0], [v, v])
        tv.LinExpr(["a"], [v]); v * x; le + x; np.float64(2) * v; le.add(le.copy() * 0.0) or le.clear()
        v * b; b + qe; v <= b; b >= le; np.array(2.0) * v; np.array([v, v]) + v; np.array([v, v]) == v
        qe._normalize(); tv.LinExpr(b, x.tolist()); le < v; le != v; v == b; copy.copy(le); dir(v)
        le.copy().__iadd__(qe); qe.copy().__iadd__(qe); qe.copy().__itruediv__(0); v ** b; le * A""",
    "trees": """
        v / v; abs(v); np.exp(le); tv.NLExpr(qe); tv.NLExpr("a"); str(v / le); (v ** v).getValue()
        (v / le)._root.children; (v / v).__iadd__(1); (v / v).__ipow__(2)
        (v / v)._root._from_plus(v); tv.NLExpr._from_plus(v / v, 1); (v / v)._root._from_function("a", 1)
        setattr(v / v, "_root", 1); tv.NLExpr._coerce_to_exprtree(None); np.log(v) / b""",
    "the layer below": """
        d.ids(1, x._vararr); d.ids(1, [v, 1]); d.ids(1, x._vararr[::-2]); d.elements(1, [0, 1])
        d.elements(1, [10 ** 6]); d.numbering(1).discard([10 ** 6]); d.numbering(1).numbers([0]); d.ids(2, c._constrarr)
        scalars.gather_linear(d, [v, le, 1.0]); scalars.gather_linear(d, [v, qe])
        scalars.gather_quadratic(d, [v, qe, le, 2]); scalars.gather_quadratic(d, [v, "a"])
        scalars.gather_trees(d, [(v / le)._root]); scalars.gather_trees(d, [(v / le)._root, 1]); v._cmodel
        scalars.sum_pairs([(A.indices, A.indices, A.data)], 9); scalars.sum_pairs([9], 9)
        util._broadcast_shapes((2, 1), 3); util._broadcast_shapes(2, 3); util._axis_to_axeslist((0, 0), 2)
        util._matmul_shape(2, 3); util._matmul_shape((2, 3), (3, 4)); util._all_refs_match(b, b)
        util._sparse_left_matmul_kernel(A, b, max, sum); util._sparse_left_matmul_kernel(bad, b, max, sum)
        util._sparse_right_matmul_kernel(b, A, max, len); util._dense_matmul_kernel(b, b, max, abs)""",
    "quadratic": """
        x * y; x @ y; x @ A @ x; x ** 2; e * e; full * x; x * v; (x @ A @ x) + 1; 2 * (x * y); -(x * y)
        (x * y).sum(); (x * y)[0]; (x * y)[mask]; (x * y).getValue(); (x @ A @ x).getValue(); x @ bad @ x
        repr(x * y); (x * y).copy(); (x * y) + (x * y); (x * y) + b; (x * y) <= 1; (x * y) + "text"
        D @ (x * y); (x * y) @ D; (x * y).__setitem__(0, 1.0); (x * y).__setitem__(0, "text")""",
    "nonlinear": """
        x ** 3; 1 / x; x / y; (x ** 3) + 1; (x ** 3) * y; D @ (x ** 3); (x ** 3).sum(); (x ** 3)[0]
        A @ (x ** 3); repr(x ** 3); (x ** 3) + "text"; x.nl; (x ** 3) ** 2; tv.exp(x); tv.sqrt(v)
        (x ** 3).__setitem__(0, 1.0); (x ** 3).__setitem__(0, "text"); (x * y) ** 2; 2 ** x""",
    "stacking": """
        tv.vstack((x, y)); tv.hstack((x, b)); tv.concatenate((x, e)); tv.hstack((c, c)); tv.hstack(())
        tv.hstack((x, x * y)); tv.hstack((x, x ** 3)); tv.hstack((x, 1)); tv.vstack((x, y[:2]))""",
}


@pytest.mark.parametrize("group", OPERATIONS)
def test_operations_leave_nothing_behind(group):
    names = scope()
    statements = [s.strip() for s in OPERATIONS[group].replace("\n", ";").split(";") if s.strip()]
    codes = [compile(s, s, "eval") for s in statements]

    def run(code, times):
        for _ in range(times):
            with contextlib.suppress(Exception):
                eval(code, names)

    def growth(code):
        blocks, size = heap()
        run(code, REPEATS)
        more_blocks, more_size = heap()
        return more_blocks - blocks, more_size - size

    def is_leak(blocks, size):
        # A leak of one object a call shows as REPEATS; caches may settle by a few.
        return blocks > REPEATS // 4 or size > 16 * REPEATS + 65536

    with warnings.catch_warnings(), np.errstate(all="ignore"):
        warnings.simplefilter("ignore")
        grown = []
        for statement, code in zip(statements, codes, strict=True):
            run(code, 50)
            # The interpreter's free lists come and go; a leak grows in every round.
            rounds = [growth(code)]
            while is_leak(*rounds[-1]) and len(rounds) < 3:
                rounds.append(growth(code))
            if is_leak(*rounds[-1]):
                grown.append((statement, rounds))
    assert not grown
