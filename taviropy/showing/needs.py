"""Packages that only some methods need, and that aren't installed along."""

from __future__ import annotations

from importlib import import_module
from typing import Any


def needed(module: str, what: str) -> Any:
    """The module; ImportError that says how to get it where it isn't there."""
    package = module.partition(".")[0]
    try:
        return import_module(module)
    except ImportError as error:
        raise ImportError(
            f"{what} needs {package}, which is not installed ({error}): "
            f"pip install 'taviropy[notebook]'"
        ) from None
