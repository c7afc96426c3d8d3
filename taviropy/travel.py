"""Models that are copied and pickled: their packed data, with a new session to solve them."""

from __future__ import annotations

from .data import packing
from .data.model_data import ModelData
from .session import Session


def packed(data: ModelData) -> packing.State:
    """All data of a model, and nothing of its engine."""
    return packing.packed(data)


def copied(data: ModelData) -> ModelData:
    """A second model's data; both share what never changes."""
    return packing.copied(data, Session)


def unpacked(state: object) -> ModelData:
    """The data of a model that `packed` gave; UnpicklingError where they can't be its."""
    return packing.unpacked(state, Session)
