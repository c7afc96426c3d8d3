"""The examples that need nothing but what the tests need: each checks its own answer."""

import runpy
from pathlib import Path

import pytest

EXAMPLES = Path(__file__).parent.parent / "examples"


@pytest.mark.parametrize("name", ["blocks", "control", "cutting_stock", "spring_design", "sudoku"])
def test_an_example(name, capsys, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    runpy.run_path(str(EXAMPLES / f"{name}.py"), run_name="__main__")
    assert capsys.readouterr().out
