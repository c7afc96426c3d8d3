"""python benchmarks/bench_solve_all.py [MODELS]: throughput of many small linear models.

solveAll beside pickled arrays that are handed to highspy by hand in the same executor: threads,
processes and, where it is installed, a local cluster of Dask; and beside a plain loop. Then one
model with changes beside whole models. Both ways take turns; the best of three rounds counts.
Last, what copying and pickling a model of 1e6 nonzeros takes beside its arrays alone.
"""

import importlib.util
import multiprocessing
import pickle
import sys
import time
from concurrent.futures import ProcessPoolExecutor, ThreadPoolExecutor
from contextlib import ExitStack

import highspy
import numpy as np
import scipy.sparse as sp

import taviropy as tv

SIZE, WORKERS, ROUNDS = 200, 2, 3


def arrays_of(k):
    """max c @ x, A @ x <= b, 0 <= x <= 10."""
    rng = np.random.default_rng(k)
    A = sp.random_array((SIZE, SIZE), density=0.05, rng=rng, format="csr")
    return A, rng.uniform(5, 10, SIZE), rng.uniform(1, 2, SIZE)


def model_of(A, b, c):
    m = tv.Model()
    x = m.addMVar(A.shape[1], ub=10.0)
    m.addConstr(A @ x <= b)
    m.setObjective(c @ x, "max")
    return m


def by_hand(arrays):
    """What one would write without a modelling package: arrays in, objective and values out."""
    A, b, c = arrays
    highs = highspy.Highs()
    highs.setOptionValue("output_flag", False)
    lp = highspy.HighsLp()
    lp.num_col_, lp.num_row_ = A.shape[1], A.shape[0]
    lp.sense_ = highspy.ObjSense.kMaximize
    lp.col_cost_, lp.col_lower_ = c, np.zeros(len(c))
    lp.col_upper_, lp.row_lower_ = np.full(len(c), 10.0), np.full(len(b), -np.inf)
    lp.row_upper_ = b
    lp.a_matrix_.format_ = highspy.MatrixFormat.kRowwise
    lp.a_matrix_.start_, lp.a_matrix_.index_, lp.a_matrix_.value_ = A.indptr, A.indices, A.data
    highs.passModel(lp)
    highs.run()
    return highs.getInfo().objective_function_value, np.array(highs.getSolution().col_value)


def of_pickle(stream):
    return by_hand(pickle.loads(stream))


def hand_out(executor, tasks):
    """All tasks by hand, in an executor's own way."""
    streams = [pickle.dumps(arrays, protocol=5) for arrays in tasks]
    if isinstance(executor, ProcessPoolExecutor):
        return list(executor.map(of_pickle, streams, chunksize=8))
    if isinstance(executor, ThreadPoolExecutor):
        return list(executor.map(of_pickle, streams))
    return executor.gather(executor.map(of_pickle, streams, pure=False, batch_size=len(streams)))


def plain_loop(models):
    found = []
    for model in models:
        copy = model.copy()
        copy.setOption("log", False)
        copy.optimize()
        found.append(copy.Objective)
    return found


def seconds(call):
    started = time.perf_counter()
    result = call()
    return time.perf_counter() - started, result


def race(calls):
    """name -> best seconds and result; the calls take turns."""
    best = {}
    for _ in range(ROUNDS):
        for name, call in calls.items():
            took, result = seconds(call)
            if name not in best or took < best[name][0]:
                best[name] = took, result
    return best


def executors(stack):
    yield "threads", stack.enter_context(ThreadPoolExecutor(WORKERS))
    context = multiprocessing.get_context("forkserver")
    yield "processes", stack.enter_context(ProcessPoolExecutor(WORKERS, mp_context=context))
    if importlib.util.find_spec("distributed"):
        import distributed

        cluster = distributed.LocalCluster(
            n_workers=WORKERS, threads_per_worker=1, dashboard_address=None
        )
        yield "Dask", stack.enter_context(distributed.Client(stack.enter_context(cluster)))


def throughput(count):
    tasks = [arrays_of(k) for k in range(count)]
    models = [model_of(*arrays) for arrays in tasks]
    took, objectives = seconds(lambda: plain_loop(models))
    print(f"{count} models of {SIZE} x {SIZE}: plain loop {took:.2f} s")
    print(f"{'':12}{'by hand':>10}{'solveAll':>10}{'ratio':>8}{'scenarios':>11}{'ratio':>8}")
    A, b, c = tasks[0]
    one = model_of(A, b, c)
    rows, sides = one.getConstrs(), np.random.default_rng(1).uniform(5, 10, (count, SIZE))
    one.update()
    rows = one.getConstrs()
    with ExitStack() as stack:
        for name, executor in executors(stack):
            calls = {
                "by hand": lambda e=executor: hand_out(e, tasks),
                "solveAll": lambda e=executor: tv.solveAll(models, None, ["X"], e),
            }
            best = race(calls)
            hand, ours = best["by hand"], best["solveAll"]
            for (value, _), result, wanted in zip(hand[1], ours[1], objectives, strict=True):
                np.testing.assert_allclose([value, result.objective], wanted, rtol=1e-6)
            changed = [(A, side, c) for side in sides]
            warm = race(
                {
                    "by hand": lambda e=executor, t=changed: hand_out(e, t),
                    "changes": lambda e=executor: tv.solveAll(
                        one, {"RHS": (rows, sides)}, ["X"], e
                    ),
                }
            )
            for (value, _), result in zip(warm["by hand"][1], warm["changes"][1], strict=True):
                np.testing.assert_allclose(result.objective, value, rtol=1e-6)
            print(
                f"{name:12}{hand[0]:9.2f}s{ours[0]:9.2f}s{ours[0] / hand[0]:8.2f}"
                f"{warm['changes'][0]:10.2f}s{warm['changes'][0] / warm['by hand'][0]:8.2f}"
            )


def travel():
    rng = np.random.default_rng(0)
    A = sp.random_array((20_000, 10_000), density=5e-3, rng=rng, format="csr")
    m = model_of(A, np.ones(20_000), np.ones(10_000))
    m.update()
    arrays = [A.indptr, A.indices, A.data, *[np.ones(10_000)] * 4, *[np.ones(20_000)] * 2]

    def out_of_band(thing):
        buffers = []
        stream = pickle.dumps(thing, protocol=5, buffer_callback=buffers.append)
        return pickle.loads(stream, buffers=buffers)

    best = race(
        {
            "copy the arrays": lambda: [array.copy() for array in arrays],
            "m.copy()": m.copy,
            "pickle the model, buffers out of band": lambda: out_of_band(m),
            "pickle the arrays, in band": lambda: pickle.loads(pickle.dumps(arrays, protocol=5)),
            "pickle the model, in band": lambda: pickle.loads(pickle.dumps(m, protocol=5)),
        }
    )
    for name, (took, _) in best.items():
        print(f"{name:40}{1e3 * took:8.2f} ms")
    size = len(pickle.dumps(m, protocol=5)) / sum(array.nbytes for array in arrays)
    print(f"size of the pickle: {size:.3f} times the arrays")


if __name__ == "__main__":
    throughput(int(sys.argv[1]) if len(sys.argv) > 1 else 1000)
    travel()
