"""What an engine is given and what it must offer: all that the package knows of solvers."""

from __future__ import annotations

from collections import deque
from collections.abc import Callable, Iterable, Mapping
from dataclasses import dataclass, field
from typing import Any, ClassVar, NamedTuple, Protocol

from ..data.basis import Basis
from ..data.changes import Changes
from ..data.values import Floats
from ..data.view import View
from .running import Log, Reporter, Row, Stop


class Found(NamedTuple):
    """A point that an engine came upon, and its objective."""

    objective: float
    x: Floats


@dataclass
class Run:
    """How a model is to be solved. None leaves a thing to the engine.

    ``options`` are those that the user set by the engine's own names. ``stop`` becomes true when
    the user wants the solve to end: it then ends with the best solution so far. ``reporter``
    takes news of the solve to whom they concern.
    """

    log: Log
    stop: Stop
    time_limit: float = float("inf")
    gap: float | None = None
    threads: int | None = None
    seed: int | None = None
    options: Mapping[str, Any] = field(default_factory=dict)
    version: int = 0  # differs where anything but what follows and log and stop does
    reporter: Reporter = field(default_factory=Reporter)
    # Gives the rows that shall hold at a point beside those of the model. Only engines that
    # `engines.ABILITIES` lists for "lazy" are given one.
    lazy: Callable[[Floats], list[Row]] | None = None
    # Where an engine may put the points of integer models that it comes upon, worst first.
    found: deque[Found] = field(default_factory=deque)


@dataclass
class Answer:
    """What an engine found out.

    ``status`` is one of TVO.Status. ``bound`` is what no point can be better than; None with an
    optimal point stands for its own value. Values go by numbers of columns and rows, None where
    there are none; those that are wanted seldom may be functions that give them. Dual values say
    by how much the objective rises as a right-hand side does, whether it is minimized or not.
    ``basis`` gives the basis that a simplex method ended with.
    ``pool`` gives feasible points, `x` perhaps among them.
    ``missing`` says why attributes aren't there, as part of a sentence. ``nodes`` of the search
    tree and ``iterations`` of the algorithm are what the solve took.
    """

    status: int
    x: Floats | None = None
    bound: float | None = None
    row_values: Callable[[], Floats] | None = None
    reduced_costs: Floats | Callable[[], Floats] | None = None
    row_duals: Floats | Callable[[], Floats] | None = None
    quadratic_duals: Floats | None = None
    basis: Callable[[], Basis] | None = None
    pool: Callable[[], Iterable[Found]] | None = None
    missing: Mapping[str, str] = field(default_factory=dict)
    nodes: int = 0
    iterations: int = 0


class Engine(Protocol):
    """A solver that models are handed to.

    It is made without arguments, loaded, solved, loaded again, and closed.
    """

    title: ClassVar[str]  # as people call it

    @classmethod
    def refuses(cls, view: View, final: bool) -> str:
        """Why it can't take a model, as part of a sentence; empty where it can.

        What takes long to find out is left out unless the answer is to be `final`.
        """
        ...

    @classmethod
    def option_names(cls) -> list[str]:
        """The names of its own options."""
        ...

    @classmethod
    def checked_option(cls, name: str, value: object) -> object:
        """`value` as the type of an option that it has; ValueError, saying what it takes, where it
        doesn't fit."""
        ...

    def load(self, view: View, changes: Changes | None) -> None:
        """Take a model, or catch up with its changes since the last call; None: take it anew."""
        ...

    def solve(self, view: View, run: Run) -> Answer:
        """Solve the model that was loaded last, the one that `view` shows."""
        ...

    def close(self) -> None:
        """Release the solver's memory."""
        ...


class WithBasis(Engine, Protocol):
    """One of those that `engines.ABILITIES` lists for "basis"."""

    def set_basis(self, basis: Basis) -> None:
        """Begin the next solve of what is loaded from a basis."""
        ...
