"""Solvers that a model can be handed to. Each is imported when a model first needs it.

`protocol` says what an engine is; a new one is a file here, a line in ENGINES and, where its solver
isn't installed along, an extra of the package. `running` is what engines share: the log, and
Ctrl-C as a wish to stop.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from importlib import import_module
from typing import TYPE_CHECKING, NamedTuple

from .._exception import TaviroError
from .._tvo import TVO
from ..suggestions import did_you_mean

if TYPE_CHECKING:
    from ..data.view import View
    from .protocol import Engine


class Entry(NamedTuple):
    """Where an engine is found, and the extra that brings its solver, empty where none does."""

    module: str
    class_name: str
    extra: str


ENGINES = {
    "highs": Entry("highs", "HighsEngine", ""),
    "clarabel": Entry("clarabel", "ClarabelEngine", ""),
    "scip": Entry("scip", "ScipEngine", "scip"),
    "ipopt": Entry("ipopt", "IpoptEngine", "nonlinear"),
}


# What only some engines can do.
ABILITIES = {"lazy": ("scip",), "basis": ("highs",)}


def candidates(wanted: str, view: View | None = None) -> tuple[str, ...]:
    """The names of the engines that may be meant, the best first; "auto" means all whose answers
    are global.

    What is quadratic and convex goes to Clarabel, with the others behind it; all else to HiGHS
    where it can, and to SCIP where it must. Engines whose answers are local ones, "ipopt", are
    asked where they are named.
    """
    if wanted != "auto":
        return (wanted,)
    is_quadratic = view is not None and (view.quadratic_objective or view.quadratic_count)
    return ("clarabel", "highs", "scip") if is_quadratic else ("highs", "scip")


def check_name(name: object) -> None:
    """Refuse a name that is neither an engine's nor "auto"."""
    if name != "auto" and name not in ENGINES:
        names = ", ".join(map(repr, ENGINES))
        near = did_you_mean(name, ("auto", *ENGINES))
        raise ValueError(
            f"There is no engine {name!r}: {near + ' Otherwise ' if near else ''}use 'auto' or one "
            f"of {names}"
        )


def engine_class(name: str) -> type[Engine]:
    """The class of an engine; ImportError where its solver isn't installed."""
    entry = ENGINES[name]
    module = import_module(f".{entry.module}", __name__)
    found: type[Engine] = getattr(module, entry.class_name)
    return found


def choose(
    wanted: str, view: View, final: bool = True, but: Sequence[str] = (), ability: str = ""
) -> str:
    """The name of the engine for a model: the one that is wanted, or for "auto" the first one
    that can take it, leaving out those of `but`, which came to no end, and those without the
    ability, where one is needed.

    What takes long to find out is left out unless the answer is to be `final`.
    """
    reasons, hints = [], []
    for name in candidates(wanted, view):
        if name in but:
            continue
        if ability and name not in ABILITIES[ability]:
            if wanted != "auto":
                reasons.append(f"the engine '{name}' has no way to do what '{ability}' asks for")
            continue
        try:
            found = engine_class(name)
        except ImportError as error:
            reasons.append(f"the engine '{name}' is not installed ({error})")
            hints.append(f"pip install 'taviropy[{ENGINES[name].extra}]'")
            continue
        reason = found.refuses(view, final)
        if not reason:
            return name
        reasons.append(f"{found.title} can't take the model, since {reason}")
    if wanted != "auto":
        able = ABILITIES[ability] if ability else ("auto", *ENGINES)
        others = [f"engine={name!r}" for name in able if name != wanted]
        hints.append(f"use {' or '.join(others)}")
    raise TaviroError(TVO.Error.NOT_SUPPORTED, f"{'; '.join(reasons)}: {' or '.join(hints)}")


@contextmanager
def own_errors(name: str) -> Iterator[None]:
    """Turn an error of a solver's own into a TaviroError; what else may come passes.

    Solvers raise Python's plain kinds, also bare ones. An error of another class is that of a
    signal handler or a stream that the user has set.
    """
    try:
        yield
    except (OSError, MemoryError, Warning):
        raise
    except BaseException as error:
        kind = type(error)
        plain = isinstance(error, Exception) and kind.__module__ == "builtins"
        if not plain and kind.__name__ != "PanicException":  # of a solver written in Rust
            raise
        raise TaviroError(
            TVO.Error.ENGINE_FAILED,
            f"The engine '{name}' failed ({kind.__name__}: {error}): try another engine, or scale "
            f"the model's data",
        ) from error
