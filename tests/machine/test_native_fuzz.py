"""A short run of the fuzzer of native code, in a process of its own: it may crash."""

import os
import subprocess
import sys
from pathlib import Path

import taviropy

FUZZER = Path(__file__).with_name("native_fuzz.py")


def test_acting_operands_never_crash():
    path = os.pathsep.join(map(str, (Path(taviropy.__file__).parent.parent, FUZZER.parent)))
    done = subprocess.run(
        [sys.executable, "-P", str(FUZZER), "--operations", "3000", "--seed", "1"],
        env={**os.environ, "PYTHONPATH": path, "PYTHONHASHSEED": "0"},
        capture_output=True,
        text=True,
        timeout=300,
    )
    lines = (done.stdout + done.stderr).splitlines()
    assert done.returncode == 0 and lines[-1].endswith("no finding"), "\n".join(lines[-40:])
