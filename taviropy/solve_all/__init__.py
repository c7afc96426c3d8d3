"""Many models at once, on the executor that one has: threads, processes, a cluster.

`request` is what the user asks for, checked; `worker` what solves it, in another thread or process;
`parent` what hands it out and takes in the results.
"""

from __future__ import annotations

from collections.abc import Callable, Iterable, Mapping, Sequence, Sized
from typing import Any

from .._scalars import ModelShell, data_of
from .parent import Parent
from .request import checked_models, scenarios, whole_model
from .result import SolveResult
from .worker import Batch

__all__ = ["SolveResult", "solveAll"]


def solveAll(
    models: Any,
    changes: Mapping[str, Any] | None = None,
    attributes: Sequence[str] | Mapping[str, Any] = (),
    executor: Any = None,
    progress: bool | Callable[[int, int | None], object] = False,
) -> list[SolveResult]:
    """
    ROUTINE:
      solveAll(models, changes=None, attributes=(), executor=None, progress=False)

    PURPOSE:
      Solve many models, or one model with many sets of data, several at a time.

    ARGUMENTS:
      models: Models, or functions without arguments that make one each, in any iterable, which is
        read as workers become free; or a single Model that `changes` belong to.
      changes (dict): for each attribute that changes the elements and their values by scenario,
        {"RHS": (rows, values), "UB": (x, values)}; values have the shape of the elements with the
        scenarios as a further first axis. Several blocks of one attribute stand in a list.
      attributes: names of attributes to bring back, such as ["X", "Dual", "Bound"]: of all
        variables or constraints in the model's order. With `changes` also a dict
        {"flow": (x, "X")}, which takes them of some elements, in their shape ("Pool" and the
        ranges with an axis more in front).
      executor: an executor of concurrent.futures, a Client of Dask, or anything else with its
        submit(). None stands for threads, one a processor; the engines solve without Python's lock.
      progress: True prints a line on stderr now and then; a function is called with the number of
        tasks that are done and that of all, None where that isn't known.

    RETURN VALUE:
      A list of SolveResult, in the order of the models or scenarios: status, objective, seconds,
      the attributes, or the error that one of them ended with, which leaves the others alone.

    EXAMPLE:
      results = tv.solveAll(m, {"RHS": (demand, scenarios)}, attributes=["X"])
      costs = [result.objective for result in results]

    NOTES:
      The given models are left as they are: workers solve copies, without a log. A worker gets the
      model of `changes` once and goes on from its last basis, so that of several optima another
      one may come out. Small models travel in chunks. Ctrl-C cancels what waits and ends what is
      being solved, as in optimize(): those have the status INTERRUPTED; a second one raises
      KeyboardInterrupt. What is lost with a worker is done again once, by itself, then the error
      is reported; a broken ProcessPoolExecutor is replaced by one of its kind for that, and stays
      with its owner. For processes models and functions must be picklable.
      An error that ends all, such as one of the iterable's own or a closed executor, holds what was
      done in its attribute `results`. ValueError, TypeError and TaviroError for changes and
      attributes that don't fit the model, before anything is solved.
    """
    if changes is not None:
        if not isinstance(models, ModelShell):
            raise TypeError(
                f"changes belong to a single Model, not to {type(models).__name__}: give one model"
            )
        batch = Batch(*scenarios(data_of(models), changes, attributes))
    else:
        if isinstance(models, ModelShell):
            models = [models]
        if not isinstance(models, Iterable):
            raise TypeError(f"solveAll takes models, not {type(models).__name__}: give a list")
        size = len(models) if isinstance(models, Sized) else None
        batch = Batch(checked_models(models), size, whole_model(attributes))
    return Parent(batch, executor, progress).run()
