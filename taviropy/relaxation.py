"""By how much constraints and bounds must give for a model to be feasible."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import numpy as np

from ._exception import TaviroError
from ._matrixapi import MConstr, MVar
from ._tvo import TVO
from .data.attributes import LINEAR, VARIABLE
from .data.elastic import Elastic
from .data.locks import SOLVING
from .data.model_data import ModelData
from .data.values import Floats, column_data, invalid
from .engines import choose, engine_class
from .engines.decided import decided
from .engines.protocol import Answer, Run
from .engines.running import Log, Stop
from .options import Options
from .typing import Numbers

_SHOWN = 1e-7  # what gives less isn't named


@dataclass(frozen=True)
class Relaxation:
    """What `Model.relax` found.

    ``total`` is the weighted sum. ``constrs`` has the shape of the constraints that may give, and
    says by how much each does: by how much the right-hand side of a "<" must rise, of a ">" fall,
    of an equality either. ``lower`` and ``upper`` say by how much bounds must give way, arrays of
    the shape of the variables whose bounds may, None where none may. ``is_optimal`` tells that it
    can't be done with less.
    """

    total: float
    constrs: Floats
    lower: Floats | None
    upper: Floats | None
    is_optimal: bool
    _lines: list[str]

    def __str__(self) -> str:
        if not self._lines:
            return "Nothing has to give: the model is feasible"
        least = "at least " if self.is_optimal else ""
        return "\n".join(
            [f"For the model to be feasible {least}this gives:", *(f"  {n}" for n in self._lines)]
        )


def find_relaxation(
    data: ModelData,
    constrs: MConstr | None,
    weights: Numbers,
    bounds: MVar | bool,
    bound_weights: Numbers,
    wanted: str,
    options: Options,
) -> Relaxation:
    """The smallest relaxation; TaviroError where there is none."""
    data.update()
    rows, row_shape = _numbers(data, LINEAR, constrs)
    loose, loose_shape = np.empty(0, np.intp), None
    if bounds is not False:
        loose, loose_shape = _numbers(data, VARIABLE, None if bounds is True else bounds)
    view = Elastic(
        data,
        rows,
        _weights("weights", weights, row_shape),
        loose,
        _weights("bound_weights", bound_weights, loose_shape or (0,)),
    )
    is_semi = view.is_semi[loose]
    if is_semi.any():
        name = view.column_name(int(loose[is_semi.argmax()]))
        raise invalid(
            f"The bounds of '{name}' can't give: it is semi-continuous; name the others in 'bounds'"
        )
    data.lock = SOLVING
    stop = Stop()
    try:
        with Log(options["log"], options["logFile"]) as log, stop.on_interrupt():
            answer = decided(view) or _solve(view, wanted, options, log, stop)
    finally:
        data.lock = ""
    if answer.x is None:
        raise TaviroError(
            TVO.Error.NO_SOLUTION,
            "No relaxation was found: "
            + (
                "what may not give can't hold by itself; let more give, or ask conflict()"
                if answer.status == TVO.Status.INFEASIBLE
                else f"the solve ended as {answer.status}; give it more time"
            ),
        )
    given, lower, upper = view.given(np.maximum(answer.x, 0.0))
    lines = [f"{view.row_name(int(k))} by {given[k]:.6g}" for k in rows if given[k] > _SHOWN]
    for amounts, text in ((lower, "the LB of"), (upper, "the UB of")):
        places = np.flatnonzero(amounts > _SHOWN).tolist()
        lines += [f"{text} {view.column_name(j)} by {amounts[j]:.6g}" for j in places]
    return Relaxation(
        view.objective_at(answer.x),
        given[rows].reshape(row_shape),
        None if loose_shape is None else lower[loose].reshape(loose_shape),
        None if loose_shape is None else upper[loose].reshape(loose_shape),
        answer.status == TVO.Status.OPTIMAL,
        lines,
    )


def _solve(view: Elastic, wanted: str, options: Options, log: Log, stop: Stop) -> Answer:
    name = choose(wanted, view)
    engine = engine_class(name)()
    try:
        engine.load(view, None)
        limits = options["timeLimit"], options["gap"], options["threads"], options["seed"]
        return engine.solve(view, Run(log, stop, *limits, options.of_engine(name)))
    finally:
        engine.close()


def _numbers(data: ModelData, kind: int, block: Any) -> tuple[Any, tuple[int, ...]]:
    elements = data.elements_of(kind)
    if block is None:
        return np.arange(elements.placed), (elements.placed,)
    matrix, field = (MConstr, "_constrarr") if kind == LINEAR else (MVar, "_vararr")
    if not isinstance(block, matrix):
        raise TypeError(f"relax takes {matrix.__name__}, not {type(block).__name__}")
    handles = getattr(block, field)
    found = elements.positions(data.ids(kind, handles).reshape(-1)).astype(np.intp)
    if len(np.unique(found)) < len(found):
        raise invalid("An element comes twice among those that may give: name it once")
    return found, handles.shape


def _weights(noun: str, given: Numbers, shape: tuple[int, ...]) -> Floats:
    weights = np.broadcast_to(column_data(noun, given, shape), (int(np.prod(shape)),))
    if len(weights) and not (np.isfinite(weights).all() and weights.min() > 0.0):
        raise invalid(f"'{noun}' takes positive finite numbers, not {float(weights.min())}")
    return weights
