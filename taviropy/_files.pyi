"""Types of what walks over the coefficients of model files."""

import numpy as np
from numpy.typing import NDArray

type Places = NDArray[np.int64]
type Floats = NDArray[np.float64]

def number_texts(values: Floats, /) -> list[str]: ...
def column_texts(
    names: list[str],
    others: list[str],
    indptr: Places,
    ids: NDArray[np.int32],
    data: Floats,
    /,
) -> list[str]: ...
def sum_texts(
    names: list[str], indptr: Places, ids: NDArray[np.int32], data: Floats, width: int, /
) -> list[str]: ...
def column_entries(
    text: str, rows: dict[str, int], /
) -> tuple[list[str], Places, Places, Floats, list[int]] | None: ...
def plain_rows(
    text: str, columns: dict[str, int], /
) -> tuple[int, list[str], Places, Places, Floats, Floats, Floats]: ...
