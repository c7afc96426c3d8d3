"""Variables and constraints as tables of pandas."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

import numpy as np

from .._exception import TaviroError
from .._scalars import data_of
from ..data.attributes import ATTRIBUTES, KIND_NAMES, OF_SOLUTION, ON_DEMAND, QUADRATIC, VARIABLE
from ..data.view import View
from .needs import needed
from .rowtext import row_texts

if TYPE_CHECKING:
    import pandas as pd  # type: ignore[import-not-found, import-untyped, unused-ignore]

NAMES = {
    kind: next(n for n, a in ATTRIBUTES.items() if a.kind == kind and n.endswith("Name"))
    for kind in KIND_NAMES
}
COLUMNS = {
    kind: [
        name
        for name, attribute in ATTRIBUTES.items()
        # What is computed on demand takes time, and some of it has another shape.
        if attribute.kind == kind and name not in {NAMES[kind], *ON_DEMAND}
    ]
    for kind in KIND_NAMES
}
_GEN_KINDS = np.array(["", "nonlinear", "indicator"], object)


def frame_of(block: Any, written: bool = False) -> pd.DataFrame:
    """The table of a block of variables or constraints; see `MVar.frame`, `MConstr.frame`."""
    pandas = needed("pandas", f"{type(block).__name__}.frame()")
    kind = block._typeenum
    names, columns = [], {}
    if block._cmodel is not None:
        data = data_of(block)
        data.check_open()
        names = list(block.getAttr(NAMES[kind]).reshape(-1))
        if written:
            numbers = data.numbering(kind).numbers(data.ids(kind, handles_of(block), True))
            columns["Row"] = row_texts(View(data), kind, numbers)
        for name in COLUMNS[kind]:
            try:
                values = block.getAttr(name).reshape(-1)
            except TaviroError:
                if name not in OF_SOLUTION:
                    raise
                continue  # there is no answer, or it has none of these
            if name == "Start" and np.isnan(values).all():
                continue
            columns[name] = _GEN_KINDS[values] if name == "GenKind" else values
    index = pandas.Index(names, name=NAMES[kind], dtype=object)
    return pandas.DataFrame(columns, index=index)


def handles_of(block: Any) -> Any:
    """The handles that a block of variables or constraints holds, flat in C order."""
    fields = {VARIABLE: "_vararr", QUADRATIC: "_qconstrarr"}
    return np.asarray(getattr(block, fields.get(block._typeenum, "_constrarr"))).reshape(-1)
