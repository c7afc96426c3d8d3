"""What people see of a model: tables in notebooks and of pandas, the summary, the picture.

The methods of the matrix classes are defined here and given to them when the package is loaded;
what does the work is imported when it is first needed.
"""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

from .._matrixapi import MConstr, MGenConstr, MLinExpr, MNLExpr, MQConstr, MQuadExpr, MVar

if TYPE_CHECKING:
    import pandas as pd  # type: ignore[import-not-found, import-untyped, unused-ignore]

__all__ = ["attach"]


def _variables_frame(self: Any) -> pd.DataFrame:
    """
    ROUTINE:
      frame()

    PURPOSE:
      The variables as a pandas DataFrame, to look at, sort and export.

    RETURN VALUE:
      A DataFrame with a row a variable, in C order, by VarName: LB, UB, Obj, VType, Start where
      there is one, and after a solve X and ReducedCost as far as the answer has them. A copy.

    EXAMPLE:
      x.frame().query("X > 0.5")

    NOTES:
      m.getVars().frame() shows all variables. TaviroError for variables that wait for update();
      ImportError without pandas (pip install 'taviropy[notebook]').
    """
    from .frames import frame_of

    return frame_of(self)


def _constraints_frame(self: Any, rows: bool = False) -> pd.DataFrame:
    """
    ROUTINE:
      frame(rows=False)

    PURPOSE:
      The constraints as a pandas DataFrame, to look at, sort and export.

    ARGUMENTS:
      rows (bool): whether a column "Row" has each constraint written out, as in
        "x[0] + 2 x[1] <= 4"; long ones are cut.

    RETURN VALUE:
      A DataFrame with a row a constraint, in C order, by name: the attributes of its kind, those
      of the answer as far as there are any. A copy.

    EXAMPLE:
      print(c.frame(rows=True))

    NOTES:
      m.getConstrs().frame() shows all linear constraints. TaviroError for constraints that wait
      for update(); ImportError without pandas (pip install 'taviropy[notebook]').
    """
    from .frames import frame_of

    return frame_of(self, rows)


def _elements_html(self: Any) -> str:
    """What a notebook shows: a table of the first elements."""
    from .html import elements_html

    return elements_html(self)


def _expression_html(self: Any) -> str:
    """What a notebook shows: the text of the expression."""
    from .html import expression_html

    return expression_html(self)


_GIVEN = (
    ("frame", _variables_frame, (MVar,)),
    ("frame", _constraints_frame, (MConstr, MQConstr, MGenConstr)),
    ("_repr_html_", _elements_html, (MVar, MConstr, MQConstr, MGenConstr)),
    ("_repr_html_", _expression_html, (MLinExpr, MQuadExpr, MNLExpr)),
)


def attach() -> None:
    """Gives the matrix classes their methods."""
    for name, method, classes in _GIVEN:
        for cls in classes:
            setattr(cls, name, method)
