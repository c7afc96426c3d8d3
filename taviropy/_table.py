"""Growable columns of data with one entry an element, and names that are made when asked for."""

from __future__ import annotations

from bisect import bisect_right

import numpy as np

_FIRST_CAPACITY = 16


class Table:
    """Data of all elements of one kind: those placed in the model first, then those that wait.

    Each column is a NumPy array with room to grow. ``optional`` columns take no memory until
    they are first written; until then they read as their default.
    """

    def __init__(self, prefix, dtypes, optional=None):
        self._arrays = {name: np.empty(0, dtype) for name, dtype in dtypes.items()}
        self._optional = dict(optional or {})
        self._capacity = 0
        self.size = 0  # placed and waiting
        self.placed = 0
        self.created = 0  # the id that the next element gets
        self.ids = None  # id of each entry; None while entry k is element k
        self.names = Names(prefix)

    def __getitem__(self, name):
        """The column, an array of ``size`` entries that may be written to.

        A view: growing the table may leave it behind.
        """
        return self._arrays[name][: self.size]

    def has(self, name):
        """Whether an optional column was ever written."""
        return name in self._arrays

    def need(self, name):
        """The column; an optional one comes into being here."""
        if name not in self._arrays:
            self._arrays[name] = np.full(self._capacity, self._optional[name])
        return self[name]

    def extend(self, count, **values):
        """Append `count` elements; each value is a scalar or has `count` entries."""
        start, end = self.size, self.size + count
        if end > self._capacity:
            self._grow(end)
        for name, array in self._arrays.items():
            array[start:end] = values[name] if name in values else self._optional[name]
        if self.ids is not None:
            new_ids = np.arange(self.created, self.created + count, dtype=np.int64)
            self.ids = np.concatenate([self.ids, new_ids])
        self.size = end
        self.created += count

    def append(self, *values):
        """Append one element with the values of the columns that aren't optional, in order."""
        end = self.size
        if end == self._capacity:
            self._grow(end + 1)
        for array, value in zip(self._arrays.values(), values, strict=False):
            array[end] = value
        for name in list(self._arrays)[len(values) :]:
            self._arrays[name][end] = self._optional[name]
        if self.ids is not None:
            self.ids = np.append(self.ids, self.created)
        self.size = end + 1
        self.created += 1

    def _grow(self, needed):
        exact = self._capacity == 0 and needed > _FIRST_CAPACITY
        self._capacity = needed if exact else max(needed, _FIRST_CAPACITY, self._capacity * 3 // 2)
        for name, array in self._arrays.items():
            grown = np.empty(self._capacity, array.dtype)
            grown[: self.size] = array[: self.size]
            self._arrays[name] = grown

    def settle(self, kept):
        """Place what waits. `kept`: None, or the entries that stay, in rising order."""
        if kept is not None:
            if self.ids is None:
                self.ids = np.arange(self.size, dtype=np.int64)
            self.ids = self.ids[kept]
            for name in self._arrays:
                self._arrays[name] = self[name][kept]
            self.size = self._capacity = len(kept)
        self.placed = self.size

    def ids_of(self, positions):
        """Ids of the elements at `positions`, an integer array."""
        return positions if self.ids is None else self.ids[positions]

    def names_of(self, positions):
        """Names of the elements at `positions`, as a list of str."""
        return self.names.get(self.ids_of(np.asarray(positions)).tolist())

    def rename(self, positions, names):
        """Give the elements at `positions` new names."""
        self.names.set(zip(self.ids_of(np.asarray(positions)).tolist(), names, strict=True))


class Names:
    """Names by element id. A block keeps its base name and its shape, never a string an element."""

    def __init__(self, prefix):
        self._prefix = prefix
        self._own = {}  # id: name, for elements named one by one
        self._starts = []  # first ids of the named blocks, rising
        self._blocks = []  # (first id, end id, base name, shape)

    def add_one(self, element_id, name):
        """Name one element."""
        self._own[element_id] = name

    def add_block(self, first_id, shape, base):
        """Name a block of elements: "base[0,1]" for entry (0, 1)."""
        count = 1
        for length in shape:
            count *= length
        self._starts.append(first_id)
        self._blocks.append((first_id, first_id + count, base, tuple(shape)))

    def set(self, pairs):
        """Rename elements: pairs of id and name."""
        self._own.update(pairs)

    def get(self, ids):
        """The names of the elements with these ids, as a list of str."""
        own, prefix = self._own, self._prefix
        if not self._blocks:
            if not own:
                return [f"{prefix}{k}" for k in ids]
            return [own.get(k, f"{prefix}{k}") for k in ids]
        return [own[k] if k in own else self._block_name(k) for k in ids]

    def _block_name(self, element_id):
        at = bisect_right(self._starts, element_id) - 1
        if at >= 0:
            first, end, base, shape = self._blocks[at]
            if element_id < end:
                if not shape:
                    return base
                index = []
                rest = element_id - first
                for length in reversed(shape):
                    rest, entry = divmod(rest, length)
                    index.append(str(entry))
                return f"{base}[{','.join(reversed(index))}]"
        return f"{self._prefix}{element_id}"
