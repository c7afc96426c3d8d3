"""Why a model may not be changed right now."""

from __future__ import annotations

from collections.abc import Callable
from functools import wraps
from typing import Concatenate, Protocol

CLOSED = "The model is closed: create a new one with taviropy.Model()"
SOLVING = (
    "The model is being solved, by another thread or around this callback, and can't be changed "
    "meanwhile: wait for optimize() to return"
)
CHANGING = (
    "The model is being changed right now, by another thread or by a call that this one came from: "
    "change it from one thread, and not from finalizers or signal handlers"
)


class Lockable(Protocol):
    """Data with a lock: one of the reasons above, or empty."""

    lock: str

    def refuse_locked(self) -> None: ...


def changing[D: Lockable, **P, R](
    method: Callable[Concatenate[D, P], R],
) -> Callable[Concatenate[D, P], R]:
    """A method that changes arrays which belong together: nobody else may meanwhile."""

    @wraps(method)
    def locked(self: D, /, *args: P.args, **kwargs: P.kwargs) -> R:
        if self.lock:
            self.refuse_locked()
        self.lock = CHANGING
        try:
            return method(self, *args, **kwargs)
        finally:
            self.lock = ""

    return locked
