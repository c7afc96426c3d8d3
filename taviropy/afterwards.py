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
    elif attrname == "Pool":
        _find_pool(data)
    else:
        _find_proof(data, attrname)


def _find_pool(data: ModelData) -> None:
    """The pool of a solution out of a pickle: its point alone."""
    x = data.solution.array("X")
    if x is not None:
        data.solution.values["Pool"] = x[:, None]


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


_PROOFS = {"Ray": "unbounded", "Certificate": "infeasible"}
_PROVEN = {"Ray": TVO.Status.UNBOUNDED, "Certificate": TVO.Status.INFEASIBLE}


def _find_proof(data: ModelData, attrname: str) -> None:
    """A ray or a certificate, of the model as it is now."""
    from .engines.proofs import certificate, ray

    status = data.solution.status
    if status not in (_PROVEN[attrname], TVO.Status.INFEASIBLE_OR_UNBOUNDED):
        raise _none(attrname, f"only a model that was solved and is {_PROOFS[attrname]} has one")
    view = View(data)
    columns = view.columns()
    crossed = columns.lower > columns.upper
    if crossed.any():
        name = view.column_name(int(crossed.argmax()))
        raise _none(attrname, f"nothing lies between the bounds of the variable '{name}'")
    found = (ray if attrname == "Ray" else certificate)(view)
    if found is None:
        raise _none(attrname, _WHY_UNPROVEN[attrname])
    data.solution.values[attrname] = found


_WHY_UNPROVEN = {
    "Ray": "no direction was found along which all constraints hold for ever",
    "Certificate": "the linear constraints can hold together within the bounds, as long as "
    "variables need not be integer and other constraints don't count: m.conflict() tells what "
    "can't",
}


def _none(attrname: str, why: str) -> TaviroError:
    return TaviroError(TVO.Error.NO_SOLUTION, f"There is no '{attrname}': {why}")
