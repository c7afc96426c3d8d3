"""python benchmarks/bench_solve_all.py [MODELS [TASKS]]: many models at once, as tables.

Throughput of MODELS small linear models (200 of them): solveAll beside pickled arrays that are
handed to highspy by hand in the same executor, of whole models and of one model with changes.
What comes back where workers are killed, models are bad or take too long. The memory of the
parent over TASKS tasks (10,000). What copying and pickling a model of 1e6 nonzeros takes beside
copies of its arrays.

All ways take turns; times are medians of the rounds, ratios medians of the rounds' ratios.
"""

import gc
import importlib.util
import multiprocessing
import os
import pickle
import signal
import statistics
import sys
import tempfile
import time
from concurrent.futures import ProcessPoolExecutor, ThreadPoolExecutor
from contextlib import ExitStack
from functools import partial
from pathlib import Path

import data
import highspy
import numpy as np
import scipy.sparse as sp
from one import memory

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
    m.update()
    return m


# By hand


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
    """Models one after the other."""
    found = []
    for model in models:
        copy = model.copy()
        copy.setOption("log", False)
        copy.optimize()
        found.append((copy.Objective, copy.getVars().X))
    return found


# Measuring


def race(calls, rounds=ROUNDS):
    """name -> median seconds, median ratio to the first one, result of the last round."""
    times = {name: [] for name in calls}
    results = {}
    for _ in range(rounds):
        for name, call in calls.items():
            started = time.perf_counter()
            results[name] = call()
            times[name].append(time.perf_counter() - started)
    first = next(iter(times.values()))
    return {
        name: (
            statistics.median(got),
            statistics.median(a / b for a, b in zip(got, first, strict=True)),
            results[name],
        )
        for name, got in times.items()
    }


def mute():
    """HiGHS prints its version where it is first made."""
    os.dup2(os.open(os.devnull, os.O_WRONLY), 1)


def processes():
    context = multiprocessing.get_context("forkserver")
    return ProcessPoolExecutor(WORKERS, mp_context=context, initializer=mute)


def dask_client(stack, workers):
    """A client of a local cluster of Dask, None where it isn't installed."""
    if not importlib.util.find_spec("distributed"):
        return None
    import dask
    import distributed

    # Dask itself tries a task that kills its worker on one other, not on three.
    dask.config.set({"distributed.scheduler.allowed-failures": 1})
    cluster = distributed.LocalCluster(
        n_workers=workers, threads_per_worker=1, dashboard_address=None
    )
    client = stack.enter_context(distributed.Client(stack.enter_context(cluster)))
    client.run(mute)
    return client


def executors(stack, dask_workers=WORKERS):
    yield "threads", stack.enter_context(ThreadPoolExecutor(WORKERS))
    yield "processes", stack.enter_context(processes())
    client = dask_client(stack, dask_workers)
    if client is not None:
        yield "Dask", client


# Tables


def throughput(count):
    """solveAll beside arrays by hand, and one model with changes beside all of them."""
    A, _, c = arrays_of(0)
    sides = np.random.default_rng(1).uniform(5, 10, (count, SIZE))
    tasks = [(A, side, c) for side in sides]
    models = [model_of(*arrays) for arrays in tasks]
    one = models[0]
    table = {"RHS": (one.getConstrs(), sides)}
    plain_loop(models[:1])  # HiGHS prints its version where it is first made, but not through us
    loop = race({"plain loop": partial(plain_loop, models)}, 1)["plain loop"][0]
    print(
        f"Seconds for {count} models of {SIZE} x {SIZE}, {WORKERS} workers; a plain loop took "
        f"{loop:.2f}. Aim 1.2 times\nby hand. The models differ in their right sides, which one "
        f"model is sent as changes.\n"
    )
    print("| Executor | by hand | solveAll | x by hand | changes | x by hand |")
    print("|---|---:|---:|---:|---:|---:|")
    with ExitStack() as stack:
        for name, executor in executors(stack):
            best = race(
                {
                    "by hand": partial(hand_out, executor, tasks),
                    "whole": partial(tv.solveAll, models, None, ["X"], executor),
                    "changes": partial(tv.solveAll, one, table, ["X"], executor),
                }
            )
            cells = [f"{best['by hand'][0]:.2f}"]
            for way in ("whole", "changes"):
                took, ratio, results = best[way]
                for (value, _), result in zip(best["by hand"][2], results, strict=True):
                    np.testing.assert_allclose(result.objective, value, rtol=1e-6)
                cells += [f"{took:.2f}", f"{ratio:.2f}"]
            print(f"| {name} | {' | '.join(cells)} |", flush=True)


def small(k):
    """A model with the optimum -k."""
    m = tv.Model()
    m.addConstr(m.addMVar(3, obj=-k).sum() <= 1)
    return m


def infeasible():
    m = tv.Model()
    m.addConstr(m.addMVar(2, ub=1.0).sum() >= 3)
    return m


def slow():
    """Knapsacks that take long: the time limit ends them."""
    rng = np.random.default_rng(0)
    m = tv.Model()
    x = m.addMVar(50, vtype="B")
    shares = rng.integers(0, 100, (6, 50))
    m.addConstr(shares @ x == shares.sum(axis=1) // 2)
    m.setOption("timeLimit", 0.3)
    return m


def bad():
    raise ZeroDivisionError("no such model")


def kills(mark):
    """Kill the worker; where there is a file to mark, only at the first time."""
    if mark is None or not mark.exists():
        if mark is not None:
            mark.touch()
        time.sleep(2.0)  # Dask doesn't start a worker again that dies while it is started
        os.kill(os.getpid(), signal.SIGKILL)
    return small(1)


def failures(count=60):
    """What came back of models that go wrong, among others."""
    print(f"{count} tasks, of which five go wrong, each in its own way.\n")
    print("| Task | threads | processes | Dask |")
    print("|---|---|---|---|")
    kinds = {
        "kills its worker once": kills,
        "kills its worker each time": partial(kills, None),
        "raises an exception": bad,
        "is infeasible": infeasible,
        "reaches its time limit": slow,
    }
    table = {what: [] for what in (*kinds, "the others")}
    with ExitStack() as stack:
        folder = Path(stack.enter_context(tempfile.TemporaryDirectory()))
        for name, executor in executors(stack, 3):
            tasks = [partial(small, k) for k in range(count)]
            places = {what: 7 + 10 * k for k, what in enumerate(kinds)}
            for what, make in kinds.items():
                if make is kills:
                    make = partial(kills, folder / name)
                if not ("kills" in what and name == "threads"):  # it would be this process
                    tasks[places[what]] = make
            results = tv.solveAll(tasks, executor=executor)
            assert [result.index for result in results] == list(range(count))
            for what, place in places.items():
                skips = "kills" in what and name == "threads"
                table[what].append("" if skips else told(results[place]))
            others = [r for r in results if r.index not in places.values()]
            right = sum(r.objective is not None and abs(r.objective + r.index) < 1e-6
                        for r in others)  # fmt: skip
            table["the others"].append(f"{right} of {len(others)} optimal, in order, none twice")
    for what, cells in table.items():
        print(f"| {what} | {' | '.join(cells)} |")


def told(result):
    """A result in few words."""
    if result.error is None:
        return str(result.status)
    text = str(result.error).partition(":")[0]
    return f"{type(result.error).__name__}: {text}"


def parents_memory(count):
    """MiB that the parent holds after some of its tasks, and after all."""
    marks = [count // 10, count // 2, count]
    print(f"MiB of the parent beyond the start, over {count} tasks; none should be kept but the\n"
          f"results, of which {count} without attributes take some MiB.\n")  # fmt: skip
    print("| Executor | " + " | ".join(f"{mark} tasks" for mark in marks) + " | afterwards |")
    print("|---|" + "---:|" * (len(marks) + 1))
    for name, make in (("threads", partial(ThreadPoolExecutor, WORKERS)), ("processes", processes)):
        with make() as executor:
            tv.solveAll([partial(small, 1)] * 200, executor=executor)
            gc.collect()
            before, found = memory("VmRSS"), {}

            def note(done, size, before=before, found=found):
                for mark in marks:
                    if done >= mark and mark not in found:
                        found[mark] = memory("VmRSS") - before

            results = tv.solveAll(
                (small(k) for k in range(count)), executor=executor, progress=note
            )
            assert sum(result.error is None for result in results) == count
            del results
            gc.collect()
            after = memory("VmRSS") - before
        cells = " | ".join(f"{found[mark]:.1f}" for mark in marks)
        print(f"| {name} | {cells} | {after:.1f} |", flush=True)


def travel():
    """Copies and pickles of a model of 1e6 nonzeros beside copies of its arrays."""
    d = data.w1(100_000)
    m = model_of(d.A, d.r, d.c)
    columns = [np.ones(d.n) for _ in range(4)] + [np.zeros(d.n, np.uint8) for _ in range(2)]
    arrays = [d.A.indptr, d.A.indices, d.A.data, *columns]

    def out_of_band(thing):
        buffers = []
        stream = pickle.dumps(thing, protocol=5, buffer_callback=buffers.append)
        return pickle.loads(stream, buffers=buffers)

    best = race(
        {
            "copy its arrays": lambda: [array.copy() for array in arrays],
            "`m.copy()`": m.copy,
            "pickle it, buffers out of band": lambda: out_of_band(m),
            "pickle its arrays, in band": lambda: pickle.loads(pickle.dumps(arrays, protocol=5)),
            "pickle it, in band": lambda: pickle.loads(pickle.dumps(m, protocol=5)),
        },
        15,
    )
    size = len(pickle.dumps(m, protocol=5)) / sum(array.nbytes for array in arrays)
    print(f"A model of 1e6 nonzeros; its pickle is {size:.2f} times its arrays. Aim 1.5 times.\n")
    print("| Way | ms | x |")
    print("|---|---:|---:|")
    for name, (took, ratio, _) in best.items():
        print(f"| {name} | {1e3 * took:.2f} | {ratio:.2f} |")


def main():
    throughput(int(sys.argv[1]) if len(sys.argv) > 1 else 200)
    print()
    failures()
    print()
    parents_memory(int(sys.argv[2]) if len(sys.argv) > 2 else 10_000)
    print()
    travel()


if __name__ == "__main__":
    main()
