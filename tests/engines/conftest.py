"""Every engine of the list in turn, and one more that only the tests have."""

import sys

import pytest
import scipy_milp
from inside import view_of

import taviropy as tv
from taviropy import TVO
from taviropy.engines import ENGINES, Entry, engine_class

OF_THE_TESTS = "milp"
LOCAL = {"ipopt"}  # their answers to models that aren't convex are local ones
_AS_GLOBAL = {
    TVO.Status.LOCALLY_OPTIMAL: TVO.Status.OPTIMAL,
    TVO.Status.LOCALLY_INFEASIBLE: TVO.Status.INFEASIBLE,
}


@pytest.fixture(params=[*ENGINES, OF_THE_TESTS])
def engine(request, monkeypatch):
    """The name of an engine; what isn't installed is left out."""
    monkeypatch.setitem(sys.modules, "taviropy.engines.scipy_milp", scipy_milp)
    monkeypatch.setitem(ENGINES, OF_THE_TESTS, Entry("scipy_milp", "MilpEngine", ""))
    try:
        engine_class(request.param)
    except ImportError as error:
        pytest.skip(str(error))
    return request.param


@pytest.fixture
def model(engine):
    """An empty model of the engine that prints nothing and comes to an end."""
    with tv.Model("test", engine=engine) as m:
        m.setOption("log", False)
        m.setOption("timeLimit", 20)
        yield m


@pytest.fixture
def solve(engine):
    """Solves a model and gives the status, a local one as if it were global; where the engine
    refuses the model's class, the test is skipped for that reason."""

    def solved(model):
        reason = engine_class(engine).refuses(view_of(model), True)
        if reason:
            pytest.skip(f"{engine_class(engine).title}: {reason}")
        model.optimize()
        return _AS_GLOBAL.get(model.Status, model.Status) if engine in LOCAL else model.Status

    return solved


@pytest.fixture
def proves(engine):
    """Leaves out engines that need not find the best of several local optima."""
    if engine in LOCAL:
        pytest.skip(f"{engine_class(engine).title}: its answers are local ones")
