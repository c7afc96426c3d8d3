"""The matrix of a model as a picture."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

from ..data.coefficients import read_coefficients
from ..data.model_data import ModelData
from .needs import needed

if TYPE_CHECKING:
    from matplotlib.axes import Axes

_MARKS = 100_000  # entries that are drawn one by one; more are drawn as shares of areas
_CELLS = 400  # areas along each axis


def draw_matrix(data: ModelData, ax: Axes | None) -> Axes:
    """Draw where the linear constraints have coefficients; see `Model.spy`."""
    pyplot = needed("matplotlib.pyplot", "Model.spy()")
    matrix = read_coefficients(data, None).matrix
    if ax is None:
        ax = pyplot.subplots()[1]
    if matrix.nnz > _MARKS:
        _draw_density(ax, matrix)
    elif all(matrix.shape):
        size = max(0.5, min(8.0, 200.0 / max(matrix.shape)))
        ax.spy(matrix, markersize=size, aspect="auto")
    rows, columns = matrix.shape
    ax.set_title(f"{data.name or 'model'}: {matrix.nnz:,} nonzeros", pad=20)
    ax.set_xlabel(f"{columns:,} variables")
    ax.set_ylabel(f"{rows:,} linear constraints")
    return ax


def _draw_density(ax: Axes, matrix: Any) -> None:
    """Draw how densely the areas of a large matrix are filled."""
    import numpy as np

    rows, columns = matrix.shape
    entries = matrix.tocoo()
    cells = min(rows, _CELLS), min(columns, _CELLS)
    extent = (0.0, float(rows)), (0.0, float(columns))
    counts, _, _ = np.histogram2d(entries.row, entries.col, bins=cells, range=extent)
    shown = np.ma.masked_equal(counts, 0.0)
    ax.imshow(shown, extent=(0, columns, rows, 0), aspect="auto", norm="log", cmap="Blues")
    ax.xaxis.tick_top()
