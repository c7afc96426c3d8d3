"""Many models at once: in threads, in processes, on a cluster."""

import gc
import multiprocessing
import os
import signal
import threading
import time
from concurrent.futures import Future, ProcessPoolExecutor, ThreadPoolExecutor
from functools import partial

import numpy as np
import pytest

import taviropy as tv

STATUS = tv.TVO.Status


def quiet(name=""):
    model = tv.Model(name)
    model.setOption("log", False)
    return model


def knapsack(k, limit=10.0):
    """A small model whose optimum is that of its number."""
    m = tv.Model(f"model {k}")
    x = m.addMVar(3, ub=2.0, obj=[-1.0, -2.0, -k], name="x")
    m.addConstr(x.sum() <= min(limit, 4.0))
    return m


def optimum(k):
    return -float(np.sort([1.0, 2.0, k])[1:].sum() * 2)


def infeasible():
    m = tv.Model()
    x = m.addMVar(2)
    m.addConstr(x.sum() <= -1)
    m.addConstr(x[0] >= x[1] + 1)
    return m


def slow():
    """A model that takes long: its time limit ends it."""
    rng = np.random.default_rng(0)
    m = tv.Model()
    x = m.addMVar(50, vtype="B")
    shares = rng.integers(0, 100, (6, 50))
    m.addConstr(shares @ x == shares.sum(axis=1) // 2)
    m.setOption("timeLimit", 0.3)
    return m


def killed(mark):
    """Kill the worker; where there is a file to mark, only at the first time."""
    if mark is None or not os.path.exists(mark):
        if mark is not None:
            with open(mark, "w"):
                pass
        os.kill(os.getpid(), signal.SIGKILL)
    return knapsack(7)


def bad():
    raise ZeroDivisionError("no such model")


def processes(count=2):
    return ProcessPoolExecutor(count, mp_context=multiprocessing.get_context("forkserver"))


@pytest.fixture(scope="module")
def pool():
    with processes() as executor:
        yield executor


@pytest.fixture(params=["threads", "processes"])
def executor(request):
    return None if request.param == "threads" else request.getfixturevalue("pool")


def assert_as(results, expected):
    """Each result is that of its number: an objective, a status, or the type of an error."""
    assert [result.index for result in results] == list(range(len(expected)))
    for result, wanted in zip(results, expected, strict=True):
        if isinstance(wanted, type):
            assert isinstance(result.error, wanted) and result.status is None, result
        elif isinstance(wanted, float):
            assert result.objective == pytest.approx(wanted) and result.error is None, result
        else:
            assert result.status == wanted and result.error is None, result


def test_models_and_functions_come_back_in_order(executor):
    models = [knapsack(k) if k % 2 else partial(knapsack, k) for k in range(40)]
    counts = []
    results = tv.solveAll(
        (model for model in models),
        attributes=["X", "Slack", "Bound", "VarName"],
        executor=executor,
        progress=lambda done, size: counts.append((done, size)),
    )
    assert_as(results, [optimum(k) for k in range(40)])
    assert results[9]["X"].tolist() == [0.0, 2.0, 2.0] and results[9]["VarName"][2] == "x[2]"
    assert results[9]["Bound"] == pytest.approx(optimum(9)) and results[9].seconds >= 0
    assert counts[-1] == (40, None) and "OPTIMAL, objective -" in repr(results[9])
    assert models[1].Status == STATUS.LOADED and models[1].getOption("log") is True
    same = quiet()
    same.addVar(lb=3, obj=1)
    assert_as(tv.solveAll([same] * 20, executor=executor), [3.0] * 20)
    assert tv.solveAll([], executor=executor) == []
    assert_as(tv.solveAll(same, executor=executor), [3.0])


def test_each_error_stays_with_its_model(executor):
    models = [partial(knapsack, 3), bad, slow, infeasible, partial(int, "7"), knapsack(4)]
    results = tv.solveAll(models, attributes=["X"], executor=executor)
    assert_as(
        results,
        [optimum(3), ZeroDivisionError, STATUS.TIME_LIMIT, STATUS.INFEASIBLE, TypeError,
         optimum(4)],
    )  # fmt: skip
    assert "in bad" in "".join(results[1].error.__notes__) and "no such model" in repr(results[1])
    for k, text in ((1, "no such model"), (3, "infeasible")):
        with pytest.raises(tv.TaviroError, match=text):
            results[k]["X"]
    with pytest.raises(KeyError, match="asked for"):
        results[0]["Dual"]


def scenarios(count=60):
    rng = np.random.default_rng(5)
    m = tv.Model()
    x = m.addMVar((2, 3), obj=rng.uniform(1, 2, (2, 3)))
    rows = m.addConstr(x.sum(axis=0) >= 1)
    y = m.addVar(lb=1, obj=1)
    table = {
        "RHS": (rows, rng.uniform(0, 5, (count, 3))),
        "UB": [(x[0], rng.uniform(1, 4, (count, 3)))],
        "LB": [(y, rng.uniform(0, 2, count)), (x[1, 0], np.zeros(count))],
    }
    return m, x, y, table


def test_changes_of_one_model(executor):
    m, x, y, table = scenarios()
    wanted = {"flow": (x, "X"), "y": (y, "X"), "range": (x, "ObjRange"), "pool": (y, "Pool")}
    results = tv.solveAll(m, table, wanted, executor)
    for k in (0, 17, 59):
        other, x2, y2, _ = scenarios()
        other.setOption("log", False)
        other.update()
        other.getConstrs().RHS = table["RHS"][1][k]
        x2[0].UB = table["UB"][0][1][k]
        y2.LB = table["LB"][0][1][k]
        other.optimize()
        assert results[k].objective == pytest.approx(other.Objective)
        assert results[k]["flow"] == pytest.approx(x2.X) and results[k]["y"] == y2.X
        assert results[k]["range"].shape == (2, *x.shape)
        assert results[k]["pool"].tolist() == [y2.X]
    with pytest.warns(UserWarning, match="NumVars is 0 as of the last update"):
        assert m.NumVars == 0
    assert len(tv.solveAll(m, table, ["X"], executor)[3]["X"]) == 7
    values = np.ones((3, 3))
    values[1] = -1.0
    x.UB = 4.0 if m.update() is None else None
    results = tv.solveAll(m, {"UB": [(x[0], values), (x[1], values)]}, executor=executor)
    assert [result.status for result in results] == ["OPTIMAL", "INFEASIBLE", "OPTIMAL"]


def test_changes_that_do_not_fit_are_refused_before_anything_is_solved(m):
    x = m.addMVar(3)
    rows = m.addConstr(x >= 1)
    gone = m.addVar()
    m.update()
    m.remove(gone)
    foreign = tv.Model().addMVar(3)
    wrong = [
        ({"UB": (foreign, np.ones((2, 3)))}, tv.TaviroError, "'UB'.*another model"),
        ({"UB": (gone, np.ones(2))}, tv.TaviroError, "removed"),
        ({"UB": (x, np.ones((2, 4)))}, ValueError, r"\(2, 4\).*\(3,\)"),
        ({"UB": (x, 1.0)}, ValueError, r"shape \(\)"),
        ({"UB": (x, np.full((2, 3), np.nan))}, tv.TaviroError, "UB"),
        ({"UB": (rows, np.ones((2, 3)))}, TypeError, "attribute of a Var"),
        ({"UB": x}, ValueError, "pair"),
        ({"X": (x, np.ones((2, 3)))}, ValueError, "can't set 'X'"),
        ({"upper": (x, np.ones((2, 3)))}, ValueError, "no attribute 'upper'"),
        ({"UB": (x, np.ones((2, 3))), "RHS": (rows, np.ones((3, 3)))}, ValueError, "2 of UB, 3 of"),
        ({}, ValueError, "empty"),
    ]
    for changes, error, text in wrong:
        with pytest.raises(error, match=text):
            tv.solveAll(m, changes)
    fits = {"UB": (x, np.ones((2, 3)))}
    for arguments, error, text in (
        (([m], fits), TypeError, "single Model"),
        ((m, fits, {"a": (foreign, "X")}), tv.TaviroError, "another model"),
        ((m, fits, ["Xs"]), ValueError, "no attribute 'Xs'"),
        (([m], None, {"a": (x, "X")}), ValueError, "changes"),
        ((m, fits, (), 3), TypeError, "no submit"),
        ((7,), TypeError, "solveAll takes models"),
    ):
        with pytest.raises(error, match=text):
            tv.solveAll(*arguments)


def test_what_ends_all_holds_what_was_done():
    def source():
        yield from map(knapsack, range(5))
        raise OSError("the file of models is gone")

    with pytest.raises(OSError, match="file of models") as caught:
        tv.solveAll(source())
    assert_as(caught.value.results, [optimum(k) for k in range(5)])
    with pytest.raises(TypeError, match="number 2 is of type int") as caught:
        tv.solveAll([knapsack(0), knapsack(1), 3])
    assert_as(caught.value.results, [optimum(0), optimum(1)])
    closed = ThreadPoolExecutor(1)
    closed.shutdown()
    with pytest.raises(tv.TaviroError, match="takes no tasks.*open one") as caught:
        tv.solveAll([knapsack(0)], executor=closed)
    assert caught.value.results == []
    closing = ThreadPoolExecutor(1)
    with pytest.raises(tv.TaviroError, match="takes no tasks") as caught:
        tv.solveAll(map(knapsack, range(90)), executor=closing,
                    progress=lambda done, size: closing.shutdown(wait=False))  # fmt: skip
    done = caught.value.results
    assert 0 < len(done) < 90
    assert_as(done, [optimum(k) for k in range(len(done))])


def test_a_killed_worker_costs_only_the_one_who_kills_it(tmp_path):
    mark = str(tmp_path / "mark")
    models = [partial(knapsack, k) for k in range(12)]
    models[3], models[8] = partial(killed, mark), partial(killed, None)
    with processes() as executor:
        results = tv.solveAll(models, executor=executor)
    expected = [optimum(k) for k in range(12)]
    expected[3], expected[8] = optimum(7), tv.TaviroError
    assert_as(results, expected)
    assert "second try" in str(results[8].error)
    results = tv.solveAll([lambda: knapsack(1), partial(knapsack, 2)], executor=processes(1))
    assert_as(results, [tv.TaviroError, optimum(2)])  # a lambda can't be sent


class Forgetful:
    """An executor whose workers are gone before the first answers."""

    def __init__(self):
        self.calls = 0

    def submit(self, call, *args):
        self.calls += 1
        future = Future()
        if self.calls <= 3:
            future.set_exception(ConnectionError("gone"))
        else:
            future.set_result(call(*args))
        return future


def test_any_executor_with_submit_will_do():
    executor = Forgetful()
    assert_as(
        tv.solveAll([partial(knapsack, k) for k in range(7)], executor=executor),
        [optimum(k) for k in range(7)],
    )
    m, _, _, table = scenarios(5)
    assert all(result.status == "OPTIMAL" for result in tv.solveAll(m, table, executor=Forgetful()))


def test_interrupt_ends_what_is_solved_and_cancels_what_waits():
    def long_one():
        model = slow()
        model.setOption("timeLimit", 60)
        main = threading.main_thread().ident
        threading.Timer(0.3, signal.pthread_kill, [main, signal.SIGINT]).start()
        return model

    began = time.perf_counter()
    models = [partial(knapsack, 5), *[long_one] * 3, *[partial(knapsack, k) for k in range(50)]]
    with ThreadPoolExecutor(1) as executor:
        results = tv.solveAll(models, executor=executor)
    assert time.perf_counter() - began < 30
    assert_as(results, [optimum(5), *[STATUS.INTERRUPTED] * 53])


def test_the_parents_memory_stays_flat():
    made = partial(knapsack, 3)
    tv.solveAll([made] * 50)
    gc.collect()
    before = len(gc.get_objects())
    count = sum(1 for result in tv.solveAll(made for _ in range(500)) if result.error is None)
    gc.collect()
    assert count == 500 and len(gc.get_objects()) - before < 200
    from taviropy.solve_all.worker import batches

    assert not batches


def test_a_worker_keeps_few_models(pool):
    """Workers forget the models of batches long gone, and ask again for what they lack."""
    m, _, _, table = scenarios(4)
    for _ in range(8):
        results = tv.solveAll(m, table, executor=pool)
        assert [result.status for result in results] == ["OPTIMAL"] * 4
    assert pool.submit(held_models).result() <= 4


def held_models():
    from taviropy.solve_all.worker import batches

    return len(batches)


@pytest.mark.filterwarnings("default")
def test_dask_keeps_all_results_where_a_worker_is_killed(tmp_path):
    distributed = pytest.importorskip("distributed")
    with (
        distributed.LocalCluster(
            n_workers=3, threads_per_worker=1, dashboard_address=None, local_directory=tmp_path
        ) as cluster,
        distributed.Client(cluster) as client,
    ):
        models = [partial(knapsack, k) for k in range(60)]
        models[20] = partial(killed, str(tmp_path / "mark"))
        models[5] = bad
        expected = [optimum(k) for k in range(60)]
        expected[20], expected[5] = optimum(7), ZeroDivisionError
        counts = []
        results = tv.solveAll(models, executor=client, progress=lambda n, size: counts.append(n))
        assert_as(results, expected)
        assert counts[-1] == 60 and counts == sorted(counts)
        m, x, _, table = scenarios()
        local = tv.solveAll(m, table, {"x": (x, "X")})
        remote = tv.solveAll(m, table, {"x": (x, "X")}, client)
        for one, other in zip(local, remote, strict=True):
            assert one.objective == pytest.approx(other.objective)
        assert client.run(held_models)
