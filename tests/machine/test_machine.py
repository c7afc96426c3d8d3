"""A model against its shadow: a hundred sequences of statements. `make fuzz` runs more of them."""

import os
import sys
import tempfile
import time
import warnings
from pathlib import Path

import hypothesis
import pytest
from hypothesis import HealthCheck, Phase, settings
from hypothesis.stateful import run_state_machine_as_test
from rules import Machine

AT_ONCE = settings(
    max_examples=100,
    stateful_step_count=14,
    deadline=None,
    database=None,
    print_blob=True,
    report_multiple_bugs=False,
    suppress_health_check=list(HealthCheck),
    phases=(Phase.generate, Phase.shrink),
)


def run(seed):
    """Sequences of statements from a seed. A failure is shrunk, and told as a program as well."""
    try:
        run_state_machine_as_test(hypothesis.seed(seed)(Machine), settings=AT_ONCE)
    except BaseException as error:
        error.add_note(f"seed {seed}; the same as a program:\n\n{Machine.last.script()}\n")
        raise


@pytest.mark.filterwarnings("ignore:Num")  # counts before an update are told of
def test_model_agrees_with_its_shadow():
    run(1)


if __name__ == "__main__":
    warnings.simplefilter("error")  # as it is under pytest
    warnings.filterwarnings("ignore", "Num")
    fixed = 1 if os.environ.get("CI") == "true" else int(time.time())
    first = seed = int(os.environ.get("SEED", fixed))
    Machine.trace = Path(tempfile.mkdtemp(prefix="machine-"), "program.py")
    print(f"If this ends in a crash, {Machine.trace} is the program that crashed.", flush=True)
    end = time.monotonic() + float(sys.argv[1])
    while time.monotonic() < end:
        run(seed)
        seed += 1
        print(f"seed {seed} comes after {Machine.count} sequences", flush=True)
    print(
        f"{Machine.count} sequences from seed {first} on, no difference; "
        f"{Machine.unfinished} solves came to the time limit"
    )
