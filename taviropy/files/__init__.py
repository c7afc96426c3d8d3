"""Model files."""

import os

from .._exception import TaviroError
from .._tvo import TVO


def write_model(view, path):
    """Write a model to a file."""
    from ..engines.highs import HighsEngine
    from .highs_files import write_file

    path = os.fspath(path)
    if not HighsEngine.refuses(view, True) and not path.endswith(".cip"):
        write_file(view, path)
        return
    from ..engines.scip import ScipEngine

    engine = ScipEngine()
    engine.load(view, None)
    try:
        engine._scip.writeProblem(path, verbose=False)
    except Exception as error:
        raise TaviroError(
            TVO.Error.FILE,
            f"SCIP can't write the model to '{path}' ({error}): use .cip, .mps or .lp",
        ) from None
