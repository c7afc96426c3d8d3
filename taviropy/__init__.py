"""Optimization models written in blocks of NumPy and SciPy data.

    import taviropy as tv

    m = tv.Model()
    x = m.addMVar(A.shape[1], obj=c)
    m.addConstr(A @ x <= b)
    m.optimize()
    print(x.X)

Importing the package loads neither NumPy nor SciPy nor a solver: they come in with the first call
that needs them.
"""

from . import _pickling
from ._core import (
    Constr,
    GenConstr,
    GenExpr,
    LinExpr,
    Model,
    NLExpr,
    QConstr,
    QuadExpr,
    TempConstr,
    Var,
)
from ._exception import NumericsWarning, TaviroError
from ._functions import abs, cos, exp, log, sin, sqrt, tan
from ._matrixapi import (
    MConstr,
    MGenConstr,
    MLinExpr,
    MNLExpr,
    MQConstr,
    MQuadExpr,
    MVar,
    concatenate,
    hstack,
    vstack,
)
from ._model import around as _around
from ._tvo import TVO
from .numpy_functions import attach as _attach
from .showing import attach as _attach_showing
from .solve_all import solveAll

TYPE_CHECKING = False
if TYPE_CHECKING:
    from os import PathLike

__version__ = "0.2.0"

__all__ = [
    "TVO",
    "Constr",
    "GenConstr",
    "GenExpr",
    "LinExpr",
    "MConstr",
    "MGenConstr",
    "MLinExpr",
    "MNLExpr",
    "MQConstr",
    "MQuadExpr",
    "MVar",
    "Model",
    "NLExpr",
    "NumericsWarning",
    "QConstr",
    "QuadExpr",
    "TaviroError",
    "TempConstr",
    "Var",
    "abs",
    "concatenate",
    "cos",
    "exp",
    "hstack",
    "log",
    "read",
    "sin",
    "solveAll",
    "sqrt",
    "tan",
    "vstack",
]

_attach((MVar, MLinExpr, MQuadExpr, MNLExpr))
_attach_showing()

_pickling.register(_around)


def read(path: "str | PathLike[str]") -> Model:
    """
    ROUTINE:
      read(path)

    PURPOSE:
      Read a model from a file.

    ARGUMENTS:
      path (str or path): an MPS or LP file, by its ending ".mps" or ".lp", also packed (".gz" or
        ".bz2" behind that).

    RETURN VALUE:
      A Model; getVars() and getConstrs() give its elements, getVarByName() a single one.

    EXAMPLE:
      m = tv.read("diet.mps")

    NOTES:
      A row with two sides (a range) becomes a constraint of the sense "<" with the upper side as
      its RHS; the lower side is kept until Sense of the row is set. A quadratic row or one behind
      an indicator becomes two constraints instead. Bounds and sides from 1e20 on are infinite.
      Names are those that the model had when write() made the file.

      FileNotFoundError for a missing file, another OSError for one that can't be opened, and
      TaviroError, with the number and the text of the line, for what can't be understood or what
      a model can't hold: special ordered sets. Texts are UTF-8, or
      Latin-1 where they aren't.
    """
    from ._scalars import data_of
    from .files import read_contents

    contents = read_contents(path)
    model = Model(contents.name)
    contents.enter(data_of(model))
    model.update()
    return model


if not TYPE_CHECKING:  # A checker knows the names that there are.

    def __getattr__(name: str) -> object:
        from .suggestions import for_module

        cure = for_module(name, __all__)
        text = f"module 'taviropy' has no attribute '{name}'"
        raise AttributeError(f"{text}: {cure}" if cure else text)
