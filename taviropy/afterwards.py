"""What is found out about the last solve only when somebody asks: attributes of its solution that
cost more than a solve gives away."""

from __future__ import annotations

from ._exception import TaviroError
from ._tvo import TVO
from .data.attributes import RANGES
from .data.model_data import ModelData
from .data.view import View


def find(data: ModelData, attrname: str) -> None:
    """Enter an attribute among the values of the solution; TaviroError where there is none."""
    if attrname in RANGES:
        _find_ranges(data, attrname)


def _find_ranges(data: ModelData, attrname: str) -> None:
    from .engines.ranging import ranges

    solution, x = data.solution, data.solution.array("X")
    if solution.status != TVO.Status.OPTIMAL or x is None:
        return
    view = View(data)
    if solution.basis is None:
        raise _none(
            attrname,
            "ranges belong to a basis, which engine='highs' has for linear models without integers",
        )
    found = ranges(view, solution.basis, x)
    if found is None:
        raise _none(attrname, "the model was changed since its last solve: call optimize() again")
    solution.values.update(found)


def _none(attrname: str, why: str) -> TaviroError:
    return TaviroError(TVO.Error.NO_SOLUTION, f"There is no '{attrname}': {why}")
