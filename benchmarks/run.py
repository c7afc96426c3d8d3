"""python benchmarks/run.py [--repeats N] [--only WORD ...] [--quick]

Runs every work in every library that is installed, each time in a fresh process, the libraries
taking turns, and writes the medians as multiples of the hand-written arrays of the same run to
docs/benchmarks.md, with the figures of the other scripts of this folder and all versions.
"""

import argparse
import importlib.metadata
import importlib.util
import json
import os
import platform
import statistics
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).parent
PAGE = HERE.parent / "docs" / "benchmarks.md"

#: library -> the package that it needs
LIBRARIES = {
    "arrays": "highspy",
    "taviropy": "taviropy",
    "linopy": "linopy",
    "cvxpy": "cvxpy",
    "pyscipopt": "pyscipopt",
    "highspy_expressions": "highspy",
    "casadi": "casadi",
    "pyomo": "pyomo",
}

#: work -> (title, libraries, the multiple that we mean to stay below, of the first library)
TABLE = {
    "w1_small": ("W1, n = 10,000", "arrays taviropy linopy cvxpy pyscipopt", 2.0),
    "w1": ("W1, n = 100,000", "arrays taviropy linopy cvxpy", 1.3),
    "w1_large": ("W1, n = 1,000,000", "arrays taviropy linopy", 1.3),
    "w2": ("W2, A dense 2000 x 2000", "arrays taviropy linopy cvxpy", 1.5),
    "w3": ("W3, 10,000 small blocks", "arrays taviropy pyscipopt highspy_expressions", 4.0),
    "w4": ("W4, X of (300, 300)", "arrays taviropy linopy cvxpy pyscipopt", 2.0),
    "w5": ("W5, Q sparse, n = 100,000", "arrays taviropy cvxpy", 1.3),
    "w5_dense": ("W5, Q dense 1000 x 1000", "arrays taviropy cvxpy", 1.3),
    "w6": ("W6, x**3 / (1 + y), n = 100,000", "casadi taviropy pyomo", 0.8),
}

#: sections of the page, each printed by another script
SECTIONS = {
    "Small operations": "micro.py",
    "Arrays of expressions": "full_form.py",
    "Nonlinear expressions": "bench_nonlinear.py",
    "Solving again": "bench_resolve.py",
    "Many models": "bench_solve_all.py",
    "Scaling": "scaling.py",
}

INTRODUCTION = """# Benchmarks

Written by `make bench`. Every figure is a median of {repeats} fresh processes a library, the
libraries taking turns in one run on one machine ({machine}), from NumPy and
SciPy data to a loaded solver or to solver-ready arrays; "x" is the multiple of the first library of
its row (hand-written arrays given to HiGHS by `passModel` or `addRow`; CasADi for W6). The works
stand in `benchmarks/data.py`, each library's way of doing them in `benchmarks/libraries/`.

- W1: min c'x, A x + b <= r, A sparse n x n with 10 entries a row. W2: the same, A dense.
- W3: 10,000 blocks `a @ x[idx] <= r` of 10 terms each, one by one (by hand: `addRow`).
- W4: X of shape (300, 300): `A @ X <= B` with A sparse, `X.sum(axis=0) == 1`, `X.sum(axis=1) <= s`.
- W5: min `x @ Q @ x + c @ x`. W6: `x**3 / (1 + y)`, element by element.
"""


def one(library, work, size=None):
    """The measurement of one fresh process, or None where it failed."""
    command = [sys.executable, str(HERE / "one.py"), library, work, *([str(size)] if size else [])]
    done = subprocess.run(command, capture_output=True, text=True, timeout=900, check=False)
    if done.returncode:
        print(f"  {library} {work} failed: {done.stderr.strip().splitlines()[-1:]}", flush=True)
        return None
    return json.loads(done.stdout.strip().splitlines()[-1])


def installed(library):
    return importlib.util.find_spec(LIBRARIES[library]) is not None


def run_work(work, repeats, quick):
    """library -> (median seconds, median MiB)."""
    libraries = [name for name in TABLE[work][1].split() if installed(name)]
    samples = {name: [] for name in libraries}
    size = 2000 if quick and work.startswith("w1") else None
    for _ in range(repeats):
        for name in libraries:
            sample = one(name, work, size)
            if sample:
                samples[name].append(sample)
    return {
        name: tuple(statistics.median(s[key] for s in got) for key in ("seconds", "mib"))
        for name, got in samples.items()
        if got
    }


def rows_of(results):
    """The results as lines of a Markdown table."""
    yield "| Work | Library | ms | x | MiB | aim |"
    yield "|---|---|---:|---:|---:|---:|"
    for work, got in results.items():
        title, names, aim = TABLE[work]
        base = got.get(names.split()[0])
        for name, (seconds, mib) in got.items():
            ratio = f"{seconds / base[0]:.2f}" if base else ""
            shown = f"{aim}" if name == "taviropy" else ""
            yield f"| {title} | {name} | {1e3 * seconds:.1f} | {ratio} | {mib:.0f} | {shown} |"


def versions():
    names = sorted({LIBRARIES[name] for name in LIBRARIES} | {"numpy", "scipy"})
    for name in names:
        try:
            yield f"{name} {importlib.metadata.version(name)}"
        except importlib.metadata.PackageNotFoundError:
            continue


def script(name, *arguments):
    """The Markdown that another script of this folder prints."""
    command = [sys.executable, str(HERE / name), *arguments]
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--repeats", type=int, default=5)
    parser.add_argument("--only", nargs="*", default=list(TABLE))
    parser.add_argument("--quick", action="store_true", help="small sizes, page not written")
    options = parser.parse_args()
    results = {}
    for work in options.only:
        results[work] = run_work(work, options.repeats, options.quick)
        print("\n".join(list(rows_of({work: results[work]}))[2:]), flush=True)
    sections = {title: script(name) for title, name in SECTIONS.items()}
    print("\n".join(sections.values()))
    if options.quick or options.only != list(TABLE):
        return
    machine = f"{platform.machine()}, {os.cpu_count()} cores, Python {platform.python_version()}"
    parts = [
        INTRODUCTION.format(repeats=options.repeats, machine=machine),
        "\n".join(rows_of(results)),
        *(f"\n## {title}\n\n{text}" for title, text in sections.items()),
        "\n## Versions\n\n" + ", ".join(versions()) + "\n",
    ]
    PAGE.write_text("\n".join(parts))
    print(f"written to {PAGE}")


if __name__ == "__main__":
    main()
