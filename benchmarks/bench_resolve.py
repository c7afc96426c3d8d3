"""python benchmarks/bench_resolve.py: solving again, beside the same calls of highspy by hand.

A round changes a live model and solves it: a new right side, one row more (a cut), one column more.
Then attributes of 1e6 variables beside HiGHS's own arrays, and a process from its start to the
answer. Both ways take turns; times are medians, the ratio is the median of the rounds' ratios.
Times are those of the processor, which others on the machine don't disturb.
"""

import os
import resource
import statistics
import subprocess
import sys
import tempfile
import time

import highspy
import numpy as np
import scipy.sparse as sp

import taviropy as tv

INFINITY = highspy.kHighsInf


def clock():
    """Seconds of the processor that this process and those it waited for have taken."""
    children = resource.getrusage(resource.RUSAGE_CHILDREN)
    return time.process_time() + children.ru_utime + children.ru_stime


class Race:
    """Two ways that take turns, by seconds a call."""

    def __init__(self, title, aim, rounds):
        self.title, self.aim, self.rounds = title, aim, rounds

    def run(self, by_hand, ours):
        """A line of the table. The ways are called with the number of the round."""
        times = ([], [])
        for k in range(-3, self.rounds):
            pair = [(0, by_hand), (1, ours)]
            for which, call in pair if k % 2 else reversed(pair):
                started = clock()
                call(k)
                if k >= 0:
                    times[which].append(clock() - started)
        ratios = [ours / hand for hand, ours in zip(*times, strict=True)]
        hand, own = (1e3 * statistics.median(got) for got in times)
        ratio = statistics.median(ratios)
        print(f"| {self.title} | {hand:.3f} | {own:.3f} | {ratio:.2f} | {self.aim} |", flush=True)


def program(n, seed=0):
    """max c @ x, A @ x <= b, 0 <= x <= 10."""
    rng = np.random.default_rng(seed)
    A = sp.random_array((n, n), density=min(1.0, 10 / n), rng=rng, format="csr")
    return A, rng.uniform(5, 10, n), rng.uniform(1, 2, n)


def hand_made(A, b, c):
    """The program in HiGHS."""
    highs = highspy.Highs()
    highs.setOptionValue("output_flag", False)
    lp = highspy.HighsLp()
    lp.num_row_, lp.num_col_ = A.shape
    lp.sense_ = highspy.ObjSense.kMaximize
    lp.col_cost_, lp.col_lower_ = c, np.zeros(len(c))
    lp.col_upper_, lp.row_lower_ = np.full(len(c), 10.0), np.full(len(b), -INFINITY)
    lp.row_upper_ = b
    lp.a_matrix_.format_ = highspy.MatrixFormat.kRowwise
    lp.a_matrix_.start_, lp.a_matrix_.index_, lp.a_matrix_.value_ = A.indptr, A.indices, A.data
    highs.passModel(lp)
    highs.run()
    return highs


def model_of(A, b, c):
    m = tv.Model()
    m.setOption("log", False)
    x = m.addMVar(len(c), ub=10.0)
    rows = m.addConstr(A @ x <= b)
    m.setObjective(c @ x, "max")
    m.optimize()
    return m, x, rows


def answer(highs):
    """The point and its objective, as arrays."""
    x = np.array(highs.getSolution().col_value)
    return highs.getInfoValue("objective_function_value")[1], x


def check(highs, m):
    np.testing.assert_allclose(m.Objective, answer(highs)[0], rtol=1e-7)


def right_sides(n, aim, rounds):
    """A new right side and a solve, from the last basis."""
    A, b, c = program(n)
    highs, (m, x, rows) = hand_made(A, b, c), model_of(A, b, c)
    sides = np.random.default_rng(1).uniform(5, 10, (rounds + 3, n))
    at, lower = np.arange(n, dtype=np.int32), np.full(n, -INFINITY)

    def by_hand(k):
        highs.changeRowsBounds(n, at, lower, sides[k])
        highs.run()
        return answer(highs)

    def ours(k):
        rows.RHS = sides[k]
        m.optimize()
        return m.Objective, x.X

    Race(f"new right side, n = {n}", aim, rounds).run(by_hand, ours)
    check(highs, m)


def cuts(n, aim, rounds):
    """One row more and a solve."""
    A, b, c = program(n)
    highs, (m, x, _) = hand_made(A, b, c), model_of(A, b, c)
    rng = np.random.default_rng(1)
    at = np.arange(n, dtype=np.int32)
    new = rng.uniform(0, 1, (rounds + 3, n)) * (rng.uniform(size=(rounds + 3, n)) < 10 / n)
    sides = new.sum(axis=1) * 3.0 + 1.0

    def by_hand(k):
        highs.addRow(-INFINITY, sides[k], n, at, new[k])
        highs.run()
        return answer(highs)

    def ours(k):
        m.addConstr(new[k] @ x <= sides[k])
        m.optimize()
        return m.Objective, x.X

    Race(f"a cut, n = {n}", aim, rounds).run(by_hand, ours)
    check(highs, m)


def columns(n, aim, rounds):
    """One column more and a solve."""
    A, b, c = program(n)
    highs, (m, x, rows) = hand_made(A, b, c), model_of(A, b, c)
    rng = np.random.default_rng(1)
    places = np.array([rng.permutation(n)[:10] for _ in range(rounds + 3)]).astype(np.int32)
    entries, costs = rng.uniform(0, 1, places.shape), rng.uniform(1, 3, rounds + 3)

    def by_hand(k):
        highs.addCol(costs[k], 0.0, 10.0, 10, places[k], entries[k])
        highs.run()
        return answer(highs)

    def ours(k):
        m.addMVar(1, ub=10.0, obj=costs[k], columns=(rows[places[k]], entries[k]))
        m.optimize()
        return m.Objective, x.X

    Race(f"a column, n = {n}", aim, rounds).run(by_hand, ours)
    check(highs, m)


def attributes(n, aim, rounds):
    """Data in and out of many variables."""
    highs, m = highspy.Highs(), tv.Model()
    highs.setOptionValue("output_flag", False)
    m.setOption("log", False)
    x = m.addMVar(n, ub=1.0, obj=-1.0)
    m.addConstr(x[:2].sum() <= 1)
    at, zero = np.arange(n, dtype=np.int32), np.zeros(n)
    highs.addCols(n, zero - 1.0, zero, zero + 1.0, 0, at, at[:0], zero[:0])
    highs.addRow(-INFINITY, 1.0, 2, at[:2], np.ones(2))
    highs.run()
    m.optimize()
    check(highs, m)
    Race(f"reading X, n = {n}", aim, rounds).run(lambda k: answer(highs), lambda k: x.X)
    bounds = np.random.default_rng(0).uniform(1, 2, (2, n))

    def set_by_hand(k):
        highs.changeColsBounds(n, at, zero, bounds[k % 2])

    def set_ours(k):
        x.UB = bounds[k % 2]
        m.load()

    Race(f"setting UB, n = {n}", aim, rounds).run(set_by_hand, set_ours)

    def solve_by_hand(k):
        set_by_hand(k)
        highs.run()
        return answer(highs)

    def solve_ours(k):
        x.UB = bounds[k % 2]
        m.optimize()
        return m.Objective, x.X

    Race(f"setting UB, solving, reading X, n = {n}", aim, rounds).run(solve_by_hand, solve_ours)
    check(highs, m)


BY_HAND = """
import highspy, numpy as np
highs = highspy.Highs()
highs.setOptionValue("output_flag", False)
none, three = np.zeros(3), np.arange(3, dtype=np.int32)
highs.addCols(3, -np.ones(3), none, np.ones(3), 0, three, three[:0], none[:0])
highs.addRow(-np.inf, 2.0, 3, three, np.ones(3))
highs.run()
assert abs(np.array(highs.getSolution().col_value).sum() - 2.0) < 1e-9
"""
OURS = """
import taviropy as tv
m = tv.Model()
m.setOption("log", False)
x = m.addMVar(3, ub=1.0, obj=-1.0)
m.addConstr(x.sum() <= 2)
m.optimize()
assert abs(x.X.sum() - 2.0) < 1e-9
"""


def start(aim, rounds):
    """A process from its start to the answer."""

    title = "process from start to answer, 3 variables"
    with tempfile.TemporaryDirectory() as folder:  # of compiled modules, as pip makes them
        environment = {**os.environ, "PYTHONPYCACHEPREFIX": folder}
        environment.pop("PYTHONDONTWRITEBYTECODE", None)

        def process(program):
            command = [sys.executable, "-c", program]
            subprocess.run(command, check=True, stdout=subprocess.DEVNULL, env=environment)

        Race(title, aim, rounds).run(lambda k: process(BY_HAND), lambda k: process(OURS))


def main():
    model_of(*program(3))  # HiGHS prints its version where it is first made, but not through us
    print("Milliseconds of the processor a round.\n")
    print("| Work | highspy by hand | taviropy | x | aim |")
    print("|---|---:|---:|---:|---:|")
    right_sides(20, 1.4, 300)
    right_sides(200, 1.15, 200)
    cuts(20, 1.3, 60)
    cuts(200, 1.3, 60)
    columns(20, 1.3, 60)
    columns(200, 1.3, 60)
    attributes(1_000_000, 1.5, 10)
    start(1.5, 10)


if __name__ == "__main__":
    main()
