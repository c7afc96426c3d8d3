"""Writing and reading model files, beside HiGHS's own writer and reader on the same model.

python benchmarks/bench_files.py [nonzeros]
"""

import sys
from pathlib import Path
from tempfile import TemporaryDirectory
from time import process_time

import numpy as np
import scipy.sparse as sp
from highspy import Highs

import taviropy as tv


def seconds(call, *arguments):
    start = process_time()
    call(*arguments)
    return process_time() - start


def model(nonzeros):
    """A model with 10 nonzeros a row, half of its values distinct."""
    rng = np.random.default_rng(1)
    size = nonzeros // 10
    A = sp.random_array((size, size), density=10 / size, rng=rng, format="csr")
    A.data = np.where(rng.random(A.nnz) < 0.5, A.data, np.round(100 * A.data))
    m = tv.Model()
    x = m.addMVar(size, ub=np.round(rng.random(size), 3), obj=rng.random(size), name="x")
    m.addConstr(A @ x >= np.round(rng.random(size), 2), name="c")
    return m


def main(nonzeros=1_000_000):
    m = model(nonzeros)
    m.update()
    highs = Highs()
    highs.setOptionValue("output_flag", False)
    print(f"{m.NumNonzeros:,} nonzeros      taviropy   HiGHS (seconds of the processor)")
    with TemporaryDirectory() as folder:
        for ending in ("mps", "lp"):
            ours, theirs = Path(folder, f"ours.{ending}"), Path(folder, f"theirs.{ending}")
            written = seconds(m.write, ours)
            read = seconds(tv.read, ours)
            highs.readModel(str(ours))
            print(
                f"write .{ending:4} {written:20.2f} {seconds(highs.writeModel, str(theirs)):7.2f}"
            )
            print(f"read  .{ending:4} {read:20.2f} {seconds(highs.readModel, str(ours)):7.2f}")


if __name__ == "__main__":
    main(*map(int, sys.argv[1:]))
