"""What mypy and pyright say of programs that use the package; `make check` runs this file."""

import json
import operator
import re
import runpy
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest
import scipy.sparse as sp

import taviropy as tv

FOLDER = Path(__file__).resolve().parent
PROGRAM, MISTAKES = FOLDER / "program.py", FOLDER / "mistakes.py"

OPERATORS = {
    "+": operator.add, "-": operator.sub, "*": operator.mul, "@": operator.matmul,
    "/": operator.truediv, "**": operator.pow, "<=": operator.le, "==": operator.eq,
}  # fmt: skip
DATA = {"number": "float", "array": "NDArray[np.float64]", "matrix": "Sparse"}
SCALARS = {name: f"tv.{name}" for name in ("Var", "LinExpr", "QuadExpr", "NLExpr")}
BLOCKS = {name: f"tv.{name}" for name in ("MVar", "MLinExpr", "MQuadExpr", "MNLExpr")}
OPERANDS = DATA | SCALARS | BLOCKS
LINEAR = ("Var", "LinExpr", "MVar", "MLinExpr")
PAIRS = [
    (left, sign, right)
    for sign in OPERATORS
    for left in OPERANDS
    for right in OPERANDS
    if not (left in DATA and right in DATA)
]


def operands():
    """A fresh operand of each kind, of a shape that fits all others."""
    m = tv.Model()
    v, x = m.addVar(), m.addMVar((2, 2))
    linear, block = v + 1, x + 1
    data = {"number": 3.0, "array": np.ones((2, 2)), "matrix": sp.csr_array(np.ones((2, 2)))}
    scalars = {"Var": v, "LinExpr": linear, "QuadExpr": v * v, "NLExpr": tv.exp(v)}
    blocks = {"MVar": x, "MLinExpr": block, "MQuadExpr": x * x, "MNLExpr": tv.exp(x)}
    return m, data | scalars | blocks


def outcome(left, sign, right):
    """The type of a result as a checker writes it, "error" where there is none."""
    m, values = operands()
    try:
        result = OPERATORS[sign](values[left], values[right])
        if isinstance(result, tv.TempConstr):
            return f"TempConstr[{type(m.addConstr(result)).__name__}]"
    except (TypeError, ValueError, NotImplementedError):
        return "error"
    return type(result).__name__


@pytest.fixture(scope="module")
def pairs(tmp_path_factory):
    """A file with the result of one pair of operands revealed a line."""
    lines = ["import numpy as np", "from numpy.typing import NDArray", "import taviropy as tv"]
    lines += ["from taviropy.typing import Sparse"]
    parameters = ", ".join(f"{name}_: {text}" for name, text in OPERANDS.items())
    lines += [f"def results({parameters}) -> None:"]
    first = len(lines) + 1
    lines += [f"    reveal_type({left}_ {sign} {right}_)" for left, sign, right in PAIRS]
    path = tmp_path_factory.mktemp("typing") / "pairs.py"
    path.write_text("\n".join(lines) + "\n")
    return path, first


def mypy(*paths):
    command = [sys.executable, "-m", "mypy", "--strict", "--output=json", *map(str, paths)]
    done = subprocess.run(command, cwd=FOLDER.parents[1], capture_output=True, text=True)
    assert done.returncode in (0, 1), done.stderr + done.stdout
    for line in done.stdout.splitlines():
        found = json.loads(line)
        yield Path(found["file"]).name, found["line"], found["severity"], found["message"]


def pyright(*paths):
    command = [sys.executable, "-m", "pyright", "--pythonpath", sys.executable, "--outputjson"]
    done = subprocess.run(
        [*command, *map(str, paths)], cwd=FOLDER.parents[1], capture_output=True, text=True
    )
    assert done.returncode in (0, 1), done.stderr + done.stdout
    for found in json.loads(done.stdout)["generalDiagnostics"]:
        line = found["range"]["start"]["line"] + 1
        yield Path(found["file"]).name, line, found["severity"], found["message"]


@pytest.fixture(scope="module", params=[mypy, pyright], ids=["mypy", "pyright"])
def findings(request, pairs):
    """(file, line, severity, message) of one run of the checker over all files."""
    pytest.importorskip(request.param.__name__)
    return list(request.param(PROGRAM, MISTAKES, pairs[0]))


def test_the_program_is_accepted_and_runs(findings):
    # What a file of the package itself says here, no user sees.
    assert [found for found in findings if found[0] == PROGRAM.name and found[2] == "error"] == []
    runpy.run_path(str(PROGRAM), run_name="__main__")


def test_each_mistake_is_refused(findings):
    text = MISTAKES.read_text().splitlines()
    wrong = {number for number, line in enumerate(text, 1) if line.endswith("# wrong")}
    refused = {found[1] for found in findings if found[0] == MISTAKES.name and found[2] == "error"}
    assert len(wrong) > 70
    assert sorted(text[number - 1] for number in wrong ^ refused) == []


def test_the_types_of_operators_are_those_of_their_results(findings, pairs):
    path, first = pairs
    revealed = {}
    for name, line, severity, message in findings:
        if name == path.name and line >= first:
            if severity == "error":
                revealed[line] = "error"
            elif found := re.search(r'ype .*is "(.*)"$', message):
                revealed.setdefault(line, re.sub(r"[\w.]+\.", "", found[1]))
    differ = []
    for line, pair in enumerate(PAIRS, first):
        left, sign, right = pair
        said, is_so = revealed[line], outcome(*pair)
        if sign == "==" and left in DATA:
            continue  # what the data's own type says of any object
        if sign == "**" and right == "number" and left in LINEAR:
            is_so = "MQuadExpr | MNLExpr" if left in BLOCKS else "QuadExpr | NLExpr"
        if said != is_so:
            differ.append((*pair, said, is_so))
    assert differ == []
