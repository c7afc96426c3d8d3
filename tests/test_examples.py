"""The examples, whose answers check themselves; what they need and isn't here is a reason to skip."""

import runpy
from pathlib import Path

import pytest

EXAMPLES = Path(__file__).parent.parent / "examples"
SLOW = {"spring_design", "stochastic_capacity", "tour", "unit_commitment"}  # in "make examples"


@pytest.mark.filterwarnings(
    "ignore::PendingDeprecationWarning",
    "ignore::DeprecationWarning",
    "ignore:FigureCanvasAgg is non-interactive",
)
@pytest.mark.parametrize("name", sorted({path.stem for path in EXAMPLES.glob("*.py")} - SLOW))
def test_an_example(name, capsys, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    monkeypatch.setenv("MPLBACKEND", "agg")
    monkeypatch.setattr("sys.argv", [name, str(tmp_path / "picture.png")])
    try:
        runpy.run_path(str(EXAMPLES / f"{name}.py"), run_name="__main__")
    except ModuleNotFoundError as error:
        if error.name in ("sklearn", "plotly", "matplotlib", "pyscipopt"):
            pytest.skip(f"without {error.name}")
        raise
    finally:
        pyplot = __import__("sys").modules.get("matplotlib.pyplot")
        if pyplot is not None:
            pyplot.close("all")
    assert capsys.readouterr().out
