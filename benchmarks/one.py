"""python benchmarks/one.py LIBRARY WORK [SIZE]: one work in one library, in this process.

Prints seconds, and MiB at the peak above what the process held before. A small instance runs
first, so that imports and other first-time costs stand outside.
"""

import gc
import importlib
import json
import sys
import time
from pathlib import Path

HERE = Path(__file__).parent


def load_library(name):
    """The module libraries/NAME.py, whose name may be that of the library which it imports."""
    path = HERE / "libraries" / f"{name}.py"
    spec = importlib.util.spec_from_file_location(f"bench_{name}", path)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def memory(field):
    """A field of /proc/self/status in MiB: VmRSS or VmHWM, the peak since `reset_peak`."""
    for line in Path("/proc/self/status").read_text().splitlines():
        if line.startswith(field):
            return int(line.split()[1]) / 1024
    raise LookupError(field)


def reset_peak():
    Path("/proc/self/clear_refs").write_text("5")


def measure(library, work, size=None):
    """Seconds, and MiB above the data, of one work."""
    import data

    generate, usual = data.WORKS[work]
    build = getattr(load_library(library), work.removesuffix("_small").removesuffix("_large"))
    build(generate(20))
    instance = generate(size or usual)
    gc.collect()
    reset_peak()
    before = memory("VmRSS")
    start = time.perf_counter()
    built = build(instance)
    seconds = time.perf_counter() - start
    peak = memory("VmHWM") - before
    del built
    return {"seconds": seconds, "mib": peak}


if __name__ == "__main__":
    # The folder of this file would hide the libraries behind the modules of the same names.
    sys.path = [p for p in sys.path if Path(p or ".").resolve() != HERE.resolve() / "libraries"]
    print(json.dumps(measure(sys.argv[1], sys.argv[2], *map(int, sys.argv[3:]))))
