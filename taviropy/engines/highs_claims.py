"""Whether HiGHS is right where it says that a linear or mixed-integer model has no optimum."""

from __future__ import annotations

from collections.abc import Callable
from functools import cached_property
from time import perf_counter
from typing import Any

import numpy as np
from highspy import HighsModelStatus, HighsStatus

from .._tvo import TVO
from ..data.view import View
from .certificates import has_ray, is_ray, proves_no_point
from .highs_live import PRIMAL_SIMPLEX, new_highs
from .optimality import ConvexProgram

_FEASIBLE = 2  # of HiGHS's solution statuses


class Claims:
    """What HiGHS says about a model, and what it rests on.

    `run` runs another instance, with options; it ends in time.
    """

    def __init__(self, highs: Any, view: View, run: Callable[..., None]) -> None:
        self._highs = highs
        self._view = view
        self._run = run

    def holds(self, status: int, deadline: float) -> int:
        """The status that is proven, FAILED where none is and another run is to tell.

        One that takes more time to prove than there is stays as it is.
        """
        if status == TVO.Status.INFEASIBLE:
            if self._has_infeasibility_proof():
                return status
            return TVO.Status.FAILED if self.has_point else status
        if status not in (TVO.Status.UNBOUNDED, TVO.Status.INFEASIBLE_OR_UNBOUNDED):
            return status
        if status == TVO.Status.UNBOUNDED and self._has_unboundedness_proof():
            return status
        if self.has_point is None:
            return TVO.Status.INFEASIBLE_OR_UNBOUNDED
        if not self.has_point:
            return TVO.Status.INFEASIBLE
        if has_ray(self._program, deadline - perf_counter()):
            return TVO.Status.UNBOUNDED
        return status if perf_counter() > deadline else TVO.Status.FAILED

    @cached_property
    def _program(self) -> ConvexProgram:
        return ConvexProgram(self._view)

    def _has_infeasibility_proof(self) -> bool:
        if self._view.has_integers:
            return bool(self._highs.getInfo().mip_node_count > 0)
        if not self._highs.getDualRayExist()[1]:  # it was presolve that said so
            return False
        status, found, ray = self._highs.getDualRay()
        return status == HighsStatus.kOk and found and proves_no_point(self._program, np.array(ray))

    def _has_unboundedness_proof(self) -> bool:
        highs = self._highs
        if self._view.has_integers or not highs.getPrimalRayExist()[1]:
            return False
        if highs.getInfoValue("primal_solution_status")[1] != _FEASIBLE:
            return False
        status, found, ray = highs.getPrimalRay()
        return status == HighsStatus.kOk and found and is_ray(self._program, np.array(ray))

    @cached_property
    def has_point(self) -> bool | None:
        """Whether there is a point at all; None where the time ran out.

        Without costs nothing confuses HiGHS.
        """
        highs, columns = new_highs(), np.arange(self._view.column_count, dtype=np.int32)
        highs.passModel(self._highs.getLp())
        highs.changeColsCost(len(columns), columns, np.zeros(len(columns)))
        self._run(highs)
        if highs.getModelStatus() == HighsModelStatus.kUnknown:
            highs.clearSolver()
            self._run(highs, simplex_strategy=PRIMAL_SIMPLEX)
        known = {HighsModelStatus.kOptimal: True, HighsModelStatus.kInfeasible: False}
        return known.get(highs.getModelStatus())
