"""From the model to its engine and back: placing what waits, loading, solving, writing."""

from __future__ import annotations

from ._model_state import ModelState

TYPE_CHECKING = False
if TYPE_CHECKING:
    from os import PathLike


class SolvableModel(ModelState):
    """The methods of a model that bring it to its engine."""

    def update(self) -> None:
        """
        ROUTINE:
          update()

        PURPOSE:
          Let waiting additions and removals take effect.
        """
        if self._closed:
            self._refuse_closed()
        self._build.update(self)

    def load(self) -> None:
        """
        ROUTINE:
          load()

        PURPOSE:
          Hand the model to the engine without solving it. The status becomes LOADED.

        NOTES:
          After a solve only what changed is handed over, and the engine goes on from the basis
          that it has. TaviroError where the engine can't take the model.
        """
        self.update()
        self._session.load(self)

    def optimize(self) -> None:
        """
        ROUTINE:
          optimize()

        PURPOSE:
          Solve the model. The outcome is the attribute Status, one of TVO.Status.

        NOTES:
          The solver's log goes to stdout while it solves, unless the option "log" is off. Ctrl-C
          ends the solve: no exception, Status is INTERRUPTED and the best solution so far can be
          read. TaviroError where the engine can't take the model.
        """
        self.update()
        self._session.solve(self)

    def write(self, path: str | PathLike[str]) -> None:
        """
        ROUTINE:
          write(path)

        PURPOSE:
          Write the model to a file; the ending tells the format.

        ARGUMENTS:
          path (str or path): a name that ends in ".mps" or ".lp"; for models of the engine SCIP
            also ".cip".

        NOTES:
          TaviroError where the file can't be written. White space in names becomes "_". The LP
          format has no room for names such as "x[0,1]": there they become "x(0,1)", and a name
          that begins as a number or a keyword does gets "_" in front. A variable without cost,
          constraints and bounds of its own is not written to LP files.
        """
        self.update()
        self._session.write(self, path)

    def setOption(self, name: str, value: object) -> None:
        """
        ROUTINE:
          setOption(name, value)

        PURPOSE:
          Set an option of the solver.

        ARGUMENTS:
          name (str): "timeLimit" (seconds a solve), "gap" (relative gap of mixed-integer models),
            "threads", "seed", "log" (bool), or an option by the engine's own name, such as
            "presolve" of HiGHS or "limits/nodes" of SCIP.
          value: a value of the option's type.

        EXAMPLE:
          m.setOption("timeLimit", 60)

        NOTES:
          TaviroError for an unknown name or a value that doesn't fit.
        """
        if self._closed:
            self._refuse_closed()
        self._session.set_option(name, value)

    def close(self) -> None:
        """
        ROUTINE:
          close()

        PURPOSE:
          Release the engine and the model's data. Closing twice does no harm; any other use of a
          closed model is a TaviroError.
        """
        if not self._closed:
            self._closed = True
            self._session.close()
            self._tables = self._session = self._row_buffer = None
            self._close()
