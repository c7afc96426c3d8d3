"""Draws docs/static/speed.svg from the table of docs/benchmarks.md, as `make bench` wrote it."""

import re
from pathlib import Path

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plt  # noqa: E402  (after the choice of the backend)

DOCS = Path(__file__).resolve().parent.parent / "docs"
WORKS = {
    "W1, n = 100,000": "A @ x + b <= r, sparse",
    "W2, A dense 2000 x 2000": "the same, dense",
    "W3, 10,000 small blocks": "10,000 rows, one by one",
    "W4, X of (300, 300)": "A @ X <= B, sums over axes",
    "W5, Q sparse, n = 100,000": "x @ Q @ x",
}
LIBRARIES = ("taviropy", "linopy", "cvxpy", "pyscipopt", "highspy_expressions")
ROW = re.compile(r"^\| (W.*?) \| (\w+) \| [\d.]+ \| ([\d.]+) \|", re.MULTILINE)

table = {
    (work, library): float(x)
    for work, library, x in ROW.findall((DOCS / "benchmarks.md").read_text())
}
plt.rcParams.update({"svg.hashsalt": "speed", "svg.fonttype": "none"})
figure, axis = plt.subplots(figsize=(8, 3.4))
for k, library in enumerate(LIBRARIES):
    found = [
        (w - 0.3 + 0.15 * k, table[work, library])
        for w, work in enumerate(WORKS)
        if (work, library) in table
    ]
    places, values = zip(*found, strict=True)
    colour = "#d62728" if library == "taviropy" else f"{0.75 - 0.12 * k:.2f}"
    axis.barh(places, values, 0.15, color=colour, label=library.replace("_expressions", ""))
    for place, value in found:
        axis.text(value * 1.05, place, f"{value:.1f}", va="center", fontsize=7)
axis.set_xscale("log")
axis.set_xlim(0.5, 200)
axis.invert_yaxis()
axis.axvline(1, color="k", linewidth=0.8)
axis.set_yticks(range(len(WORKS)), WORKS.values())
axis.set_xlabel("time to a loaded solver, as a multiple of hand-written arrays")
axis.spines[["top", "right"]].set_visible(False)
axis.legend(frameon=False, fontsize=8)
figure.tight_layout()
figure.savefig(DOCS / "static" / "speed.svg", metadata={"Date": None})
