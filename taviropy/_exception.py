"""The package's error type."""


class TaviroError(Exception):
    """A modelling rule was broken, or an engine could not do what was asked.

    ``TaviroError(code, message)``: ``args[0]`` is an integer, in most cases a member of
    ``TVO.Error``; ``args[1]`` says what went wrong with which values, and how to mend it.
    """

    @property
    def code(self) -> int:
        """The error's code, a member of ``TVO.Error`` in most cases."""
        return self.args[0] if self.args else 0

    @property
    def message(self) -> str:
        """The text that tells what went wrong and how to mend it."""
        return str(self.args[1]) if len(self.args) > 1 else ""

    def __str__(self) -> str:
        return self.message or super().__str__()


class NumericsWarning(UserWarning):
    """Data that an engine can't take as they are: it leaves them out or takes them for infinite.

    The text names the constraint and the variable. ``warnings.simplefilter("error",
    taviropy.NumericsWarning)`` makes an error of it.
    """
