"""What is found out about the last solve only when somebody asks: attributes of its solution that
cost more than a solve gives away."""

from __future__ import annotations

import numpy as np

from ._exception import TaviroError
from ._tvo import TVO
from .data.attributes import RANGES
from .data.model_data import ModelData
from .data.solution import Values
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


def _find_proof(data: ModelData, attrname: str) -> None:
    """A ray, or the certificates, of the model as it is now."""
    is_ray = attrname == "Ray"
    proven, text = (
        (TVO.Status.UNBOUNDED, "unbounded") if is_ray else (TVO.Status.INFEASIBLE, "infeasible")
    )
    if data.solution.status not in (proven, TVO.Status.INFEASIBLE_OR_UNBOUNDED):
        raise _none(attrname, f"only a model that was solved and is {text} has one")
    view = View(data)
    columns = view.columns()
    crossed = columns.lower > columns.upper
    if crossed.any():
        name = view.column_name(int(crossed.argmax()))
        raise _none(attrname, f"nothing lies between the bounds of the variable '{name}'")
    found = _ray(view) if is_ray else _certificates(view)
    if found is None:
        raise _none(attrname, _NO_RAY if is_ray else _NO_CERTIFICATE)
    data.solution.values.update(found)


_NO_RAY = "no direction was found along which all constraints hold for ever"
_NO_CERTIFICATE = (
    "no multipliers of linear and convex quadratic constraints were found that prove it without "
    "integrality and other constraints: m.conflict() tells what can't hold together"
)


def _ray(view: View) -> dict[str, Values] | None:
    from .engines.proofs import ray

    found = ray(view)
    return None if found is None else {"Ray": found}


def _certificates(view: View) -> dict[str, Values] | None:
    """Those of the linear constraints where they suffice, else with the quadratic ones."""
    from .engines.proofs import certificate

    rows, quadratic = certificate(view), np.zeros(view.quadratic_count)
    if rows is None and view.quadratic_count:
        from .engines.conic_proofs import conic_certificate

        rows, quadratic = conic_certificate(view) or (None, quadratic)
    return None if rows is None else {"Certificate": rows, "QCertificate": quadratic}


def _none(attrname: str, why: str) -> TaviroError:
    return TaviroError(TVO.Error.NO_SOLUTION, f"There is no '{attrname}': {why}")
