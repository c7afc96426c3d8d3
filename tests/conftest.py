"""Fixtures that several test files use."""

import os
import signal
import sys
from pathlib import Path

import pytest

# The checkout's package lacks the native parts: neither the tests nor the processes that they start
# may find it before the installed one, as they would from the checkout's own folder.
_FOLDER = Path(__file__).resolve().parent
sys.path[:] = [entry for entry in sys.path if Path(entry).resolve() != _FOLDER.parent]

import taviropy as tv  # noqa: E402


@pytest.fixture(scope="session", autouse=True)
def own_folder():
    """Processes that tests start look for modules in the tests' folder, not in the checkout."""
    os.chdir(_FOLDER)


@pytest.fixture(scope="session", autouse=True)
def python_signals():
    """Ctrl-C works as usual, also where a shell started the tests in the background."""
    signal.signal(signal.SIGINT, signal.default_int_handler)


@pytest.fixture
def m():
    """An empty model that prints nothing."""
    model = tv.Model()
    model.setOption("log", False)
    return model


@pytest.fixture
def x(m):
    """Three variables of that model, which wait."""
    return m.addMVar(3, name="x")


@pytest.fixture(params=[1, 0], ids=["compact", "full"])
def form(request, monkeypatch):
    """Runs a test with the compact form allowed, and once more without it."""
    monkeypatch.setattr(tv.MLinExpr, "_keep_compact", request.param)
    monkeypatch.setattr(tv.MQuadExpr, "_keep_compact", request.param)
    return request.param
