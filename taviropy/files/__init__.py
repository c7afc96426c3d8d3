"""Model files."""

from __future__ import annotations

import os
from collections.abc import Callable, Iterator

from .._exception import TaviroError
from .._tvo import TVO
from ..data.view import View
from .contents import Contents
from .storage import Source, format_of, save


def _writer(form: str) -> Callable[[View], Iterator[str]] | None:
    if form == ".mps":
        from .mps_writer import write_mps

        return write_mps
    if form == ".lp":
        from .lp_writer import write_lp

        return write_lp
    return None


def write_model(view: View, path: str | os.PathLike[str]) -> None:
    """Write a model to a file, whose ending tells the format; see `Model.write`."""
    path = os.fsdecode(path)
    write = _writer(format_of(path)[0])
    if write is None:
        raise _unknown_ending(path)
    save(path, write(view))


def read_contents(path: str | os.PathLike[str]) -> Contents:
    """The model in a file, whose ending tells the format; see `taviropy.read`."""
    path = os.fsdecode(path)
    form = format_of(path)[0]
    if not os.path.exists(path):
        raise FileNotFoundError(f"There is no file '{os.path.abspath(path)}': check the path")
    if form == ".mps":
        from .mps_reader import read_mps

        return read_mps(Source(path))
    if form == ".lp":
        from .lp_reader import read_lp

        return read_lp(Source(path))
    raise _unknown_ending(path)


def _unknown_ending(path: str) -> TaviroError:
    return TaviroError(
        TVO.Error.FILE,
        f"The ending of '{path}' names no known format: use .mps or .lp, also with .gz or .bz2 "
        f"behind it",
    )
