"""Solvers that a model can be handed to. Each is imported when a model first needs it.

An engine is a class with

- ``load(model, changes)``: bring the solver into step with the model. `changes` holds, by
  attribute name, lists of index arrays of what changed since the last call.
- ``push(model, changes)``: the same for changed attributes alone.
- ``remove(kind, kept)``: elements left, `kept` are the old indices that stay.
- ``solve(model, options)``: solve and return a ``Solution``.
- ``write(model, path)`` and ``close()``.
"""

from __future__ import annotations

from .._exception import TaviroError
from .._tvo import TVO


def choose(wanted, model, final=True):
    """The engine class for a model: the one that is wanted, or for "auto" one that can take it.

    What takes long to find out is left out unless the answer is to be `final`.
    """
    reason = "" if wanted == "scip" else _highs().reason_against(model, final)
    if wanted == "highs" and reason:
        raise TaviroError(
            TVO.Error.NOT_SUPPORTED,
            f"HiGHS can't take the model, since {reason}: use engine='scip' or engine='auto'",
        )
    if wanted == "highs" or (wanted == "auto" and not reason):
        return _highs()
    try:
        return _scip()
    except ImportError as error:
        reason = reason or "the model was made with engine='scip'"
        raise TaviroError(
            TVO.Error.NOT_SUPPORTED,
            f"The engine SCIP is needed, since {reason}; it is not installed ({error}): "
            f"pip install 'taviropy[scip]'",
        ) from None


def second_choice(wanted, failed):
    """The engine class for a model that the class `failed` came to no end with, or None."""
    if wanted != "auto" or failed is not _highs():
        return None
    try:
        return _scip()
    except ImportError:
        return None


def knows_option(name, option):
    """Whether the engine `name` has the option; False where the engine isn't installed."""
    try:
        return _class(name).option_type(option) is not None
    except ImportError:
        return False


def checked_option(name, option, value):
    """`value` as the type of the engine's option; TaviroError where it doesn't fit."""
    kind = _class(name).option_type(option)
    fits = {
        bool: isinstance(value, bool) or value in (0, 1),
        int: not isinstance(value, bool | str | float) and hasattr(value, "__index__"),
        float: not isinstance(value, bool | str) and hasattr(value, "__float__"),
        str: isinstance(value, str),
    }[kind]
    if not fits:
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT,
            f"The option '{option}' takes a {kind.__name__}, not {value!r}",
        )
    return kind(value)


def _class(name):
    return _highs() if name == "highs" else _scip()


def _highs():
    from .highs import HighsEngine

    return HighsEngine


def _scip():
    from .scip import ScipEngine

    return ScipEngine
