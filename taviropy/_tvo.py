"""Constants of the package."""

from typing import Final


class _Code(int):
    """An integer constant that prints as its name, and equals it: ``m.Status == "OPTIMAL"``,
    in small letters too.

    It hashes as the integer, so that texts don't find it in a dictionary.
    """

    _name: str

    def __new__(cls, value: int, name: str) -> "_Code":
        self = super().__new__(cls, value)
        self._name = name
        return self

    def __eq__(self, other: object) -> bool:
        if isinstance(other, str):
            return str(self) == other.upper()
        return int.__eq__(self, other)

    def __ne__(self, other: object) -> bool:
        return not self == other

    __hash__ = int.__hash__

    def __repr__(self) -> str:
        return "TVO." + self._name

    def __str__(self) -> str:
        return self._name.rpartition(".")[2]

    def __format__(self, spec: str) -> str:
        return format(str(self), spec) if not spec or spec[-1] == "s" else format(int(self), spec)

    def __reduce__(self) -> tuple[type, tuple[int, str]]:
        return _Code, (int(self), self._name)


class TVO:
    """Constants: senses of constraints and of the objective, error codes and statuses."""

    LESS_EQUAL: Final = "<"
    EQUAL: Final = "="
    GREATER_EQUAL: Final = ">"

    MINIMIZE: Final = 1
    MAXIMIZE: Final = -1
    INFINITY = float("inf")

    class Error:
        """Codes of ``TaviroError``."""

        NOT_IN_MODEL = _Code(1, "Error.NOT_IN_MODEL")
        ERROR_INVALID_ARGUMENT = _Code(2, "Error.ERROR_INVALID_ARGUMENT")
        NO_SOLUTION = _Code(3, "Error.NO_SOLUTION")
        NOT_SUPPORTED = _Code(4, "Error.NOT_SUPPORTED")
        ENGINE_FAILED = _Code(5, "Error.ENGINE_FAILED")
        MODEL_CLOSED = _Code(6, "Error.MODEL_CLOSED")
        FILE = _Code(7, "Error.FILE")
        MODEL_BUSY = _Code(8, "Error.MODEL_BUSY")

    ERROR_INVALID_ARGUMENT = Error.ERROR_INVALID_ARGUMENT

    class Status:
        """Values of a model's attribute ``Status``.

        A limit other than time (iterations, nodes, solutions) ends a solve as ``INTERRUPTED``.
        The two local ones come from engines that look no farther than the neighbourhood of a point.
        """

        LOADED = _Code(1, "Status.LOADED")
        OPTIMAL = _Code(2, "Status.OPTIMAL")
        INFEASIBLE = _Code(3, "Status.INFEASIBLE")
        UNBOUNDED = _Code(4, "Status.UNBOUNDED")
        INFEASIBLE_OR_UNBOUNDED = _Code(5, "Status.INFEASIBLE_OR_UNBOUNDED")
        TIME_LIMIT = _Code(6, "Status.TIME_LIMIT")
        INTERRUPTED = _Code(7, "Status.INTERRUPTED")
        FAILED = _Code(8, "Status.FAILED")
        LOCALLY_OPTIMAL = _Code(9, "Status.LOCALLY_OPTIMAL")
        LOCALLY_INFEASIBLE = _Code(10, "Status.LOCALLY_INFEASIBLE")

    class GenKind:
        """Values of a general constraint's attribute ``GenKind``."""

        NONLINEAR = _Code(1, "GenKind.NONLINEAR")
        INDICATOR = _Code(2, "GenKind.INDICATOR")
