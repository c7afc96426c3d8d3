"""The points of a solve that are kept beside the best one."""

from __future__ import annotations

from collections.abc import Iterable

import numpy as np

from ..data.values import Floats
from .protocol import Found

_MOST = 100  # points that are kept
_ROOM = 2**23  # values that they may have in all
_SAME = 1e-6  # by what points differ that are one, and the objectives of such


def room_for(columns: int) -> int:
    """How many points of so many columns are kept at most, those that were found last."""
    return max(1, min(_MOST, _ROOM // max(1, columns)))


def pooled(best: Found, sense: int, points: Iterable[Found]) -> Floats:
    """The points, each once and the best first, as an array of shape (columns, points)."""
    kept = [best]
    room = room_for(len(best.x))
    for point in sorted(points, key=lambda found: sense * found.objective):
        if len(kept) == room:
            break
        if not any(_is_same(point, other) for other in kept):
            kept.append(point)
    return np.column_stack([found.x for found in kept])


def _is_same(point: Found, other: Found) -> bool:
    near = abs(point.objective - other.objective) <= _SAME * (1.0 + abs(other.objective))
    return near and np.allclose(point.x, other.x, rtol=_SAME, atol=_SAME)
