"""The model: variables, constraints and an objective, handed to a solver as arrays.

What is added to a model and removed from it stands here, what it is asked for in `_model_state`,
update(), load(), optimize() and the like in `_model_solving`.
"""

from __future__ import annotations

from sys import getrefcount, version_info

from ._attrutil import VARIABLE
from ._model_solving import SolvableModel
from ._model_state import COUNTS
from ._scalars import Constr, TempConstr, holds_left_alone

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any

    from numpy.typing import ArrayLike

    from ._matrixapi import MVar
    from ._scalars import Var

_INF = float("inf")
# What getrefcount says of an argument that the caller doesn't hold: this frame's reference and
# the call's own. Later versions of Python don't count all references.
_REFERENCES_TO_LONE = 2 if version_info < (3, 14) else 0


class Model(SolvableModel):
    """
    PURPOSE:
      An optimization model: variables with bounds, constraints, an objective.

    ARGUMENTS:
      name (str): name of the model, the attribute ModelName.
      engine (str): "highs" for linear, mixed-integer and convex quadratic models, "scip" for all
        others, or "auto", which takes HiGHS where it can and SCIP where it must.

    EXAMPLE:
      with tv.Model("diet") as m:
          x = m.addMVar(3, obj=[1.0, 2.0, 3.0])
          m.addConstr(A @ x >= b)
          m.optimize()
          print(x.X, m.Objective)

    NOTES:
      Additions and removals take effect at update(), which load(), optimize() and write() call
      first. Attributes of the model (NumVars, Status, Objective ...) read as m.NumVars; names
      that begin with an underscore are free for your own data.
    """

    def __init__(self, name: str = "", engine: str = "auto") -> None:
        from . import _build

        super().__init__()
        if engine not in ("auto", "highs", "scip"):
            raise ValueError(f"There is no engine {engine!r}: use 'auto', 'highs' or 'scip'")
        self.__dict__.update(_build.new_state(str(name), engine), _build=_build)

    def __repr__(self) -> str:
        if self._closed:
            return "<taviropy.Model (closed)>"
        counts = ", ".join(f"{self._tables[k].placed} {n[3:]}" for n, k in COUNTS.items())
        waiting = sum(table.size - table.placed for table in self._tables.values())
        waiting += len(self._row_buffer)
        more = f", {waiting} awaiting update" if waiting else ""
        return f"<taviropy.Model {self._name!r}: {counts}{more}>"

    def __enter__(self) -> Model:
        return self

    def __exit__(self, *exc_info: object) -> None:
        self.close()

    # Variables

    def addVar(
        self,
        lb: float = 0.0,
        ub: float = _INF,
        obj: float = 0.0,
        vtype: str = "C",
        name: str = "",
    ) -> Var:
        """
        ROUTINE:
          addVar(lb=0.0, ub=inf, obj=0.0, vtype="C", name="")

        PURPOSE:
          Add one variable.

        ARGUMENTS:
          lb, ub (float): bounds, which may be infinite. Those of a binary variable are cut to
            [0, 1].
          obj (float): cost, its coefficient in the objective.
          vtype (str): "C" continuous, "B" binary, "I" integer.
          name (str): name; unnamed variables are "C0", "C1", ... by order of creation.

        RETURN VALUE:
          The Var. It may be used at once; its index is -1 until update().

        EXAMPLE:
          y = m.addVar(ub=10, vtype="I", name="y")

        NOTES:
          TaviroError for NaN, an infinite cost or an unknown type: nothing is added then.
        """
        if self._closed:
            self._refuse_closed()
        self._build.add_var(self, lb, ub, obj, vtype, name)
        return self._new_element(VARIABLE)

    def addMVar(
        self,
        shape: int | tuple[int, ...],
        lb: ArrayLike = 0.0,
        ub: ArrayLike = _INF,
        obj: ArrayLike = 0.0,
        vtype: str | ArrayLike = "C",
        name: str | ArrayLike = "",
    ) -> MVar:
        """
        ROUTINE:
          addMVar(shape, lb=0.0, ub=inf, obj=0.0, vtype="C", name="")

        PURPOSE:
          Add an array of variables.

        ARGUMENTS:
          shape (int or tuple of ints): shape of the array.
          lb, ub, obj, vtype, name: as for addVar; each a scalar, or an array that broadcasts to
            the shape. One name "x" names the elements "x[0,1]".

        RETURN VALUE:
          An MVar of the shape.

        EXAMPLE:
          x = m.addMVar((2, 3), ub=np.arange(3), vtype="B", name="x")

        NOTES:
          ValueError for a bad shape or data that don't broadcast, TaviroError as for addVar;
          nothing is added then.
        """
        if self._closed:
            self._refuse_closed()
        return self._build.add_mvar(self, shape, lb, ub, obj, vtype, name)

    # Constraints

    def addConstr(self, constr: TempConstr, name: str | ArrayLike = "") -> Any:
        """
        ROUTINE:
          addConstr(constr, name="")

        PURPOSE:
          Add what a comparison of expressions says: one constraint or an array of them.

        ARGUMENTS:
          constr (TempConstr): a comparison such as A @ x <= b. The two sides broadcast against
            each other, also where one has a single element.
          name (str): name; for an array "c" names the elements "c[0]". Unnamed constraints are
            "R0", "QC0", "GC0" ... by order of creation.

        RETURN VALUE:
          Constr, QConstr or GenConstr where both sides are scalar; otherwise MConstr, MQConstr
          or MGenConstr of the broadcast shape.

        EXAMPLE:
          balance = m.addConstr(A @ x + b == 0, name="balance")

        NOTES:
          The constraint is settled here: changing the operands afterwards doesn't change it.
          ValueError where the shapes don't broadcast; TaviroError for NaN, infinite coefficients,
          variables of another model or removed ones. Nothing is added then.
        """
        if self._closed:
            self._refuse_closed()
        if type(name) is str:
            made = self._row_buffer.append(self, constr)
            if made is not None:
                if name:
                    self._build.name_rows(self, made, name)
                return made if type(made) is Constr else self._build.MConstr(made)
        if type(constr) is not TempConstr:
            raise TypeError(
                f"addConstr needs a comparison of expressions such as 'A @ x <= b', not "
                f"{type(constr).__name__}"
                + (
                    ": Python decided the comparison itself, as it does between plain values, and "
                    "for an MNLExpr with anything but an MVar; write 'y == x ** 3' with an MVar y"
                    if isinstance(constr, bool)
                    else ""
                )
            )
        alone = (
            getrefcount(constr) == _REFERENCES_TO_LONE
            and type(constr.lhs) is self._build.MLinExpr
            and holds_left_alone(constr)
        )
        return self._build.add_constr(self, constr, name, alone)

    def addGenConstrNL(self, resvar: Var | MVar, expr: object, name: str | ArrayLike = "") -> Any:
        """
        ROUTINE:
          addGenConstrNL(resvar, expr, name="")

        PURPOSE:
          Add the nonlinear constraint resvar == expr.

        ARGUMENTS:
          resvar (Var or MVar): the variable, or an array of them.
          expr: an NLExpr or MNLExpr, or anything that can be part of one; shapes broadcast.
          name (str): name, as for addConstr.

        RETURN VALUE:
          A GenConstr where both are scalar, otherwise an MGenConstr.

        EXAMPLE:
          m.addGenConstrNL(y, x ** 3)

        NOTES:
          The same as addConstr(y == x ** 3). Errors as for addConstr.
        """
        if self._closed:
            self._refuse_closed()
        from ._general import add_nonlinear

        return add_nonlinear(self, resvar, expr, name)

    def addGenConstrIndicator(
        self,
        binvar: Var | MVar,
        binval: ArrayLike,
        constr: TempConstr,
        name: str | ArrayLike = "",
    ) -> Any:
        """
        ROUTINE:
          addGenConstrIndicator(binvar, binval, constr, name="")

        PURPOSE:
          Add constraints that hold where a binary variable has a certain value.

        ARGUMENTS:
          binvar (Var or MVar): binary variables.
          binval (bool, or array of them): the value that switches the constraint on.
          constr (TempConstr): a linear comparison; the shapes of all three broadcast.
          name (str): name, as for addConstr.

        RETURN VALUE:
          A GenConstr where all are scalar, otherwise an MGenConstr.

        EXAMPLE:
          m.addGenConstrIndicator(is_open, False, x <= 0)

        NOTES:
          TaviroError where a variable isn't binary; otherwise errors as for addConstr.
        """
        if self._closed:
            self._refuse_closed()
        from ._general import add_indicator

        return add_indicator(self, binvar, binval, constr, name)

    def setObjective(self, expr: object, sense: str | int = "min") -> None:
        """
        ROUTINE:
          setObjective(expr, sense="min")

        PURPOSE:
          Set the objective; it replaces the costs of all variables and the offset.

        ARGUMENTS:
          expr: a number, or a linear or quadratic expression, scalar or matrix with one element.
          sense (str): "min" or "max"; TVO.MINIMIZE and TVO.MAXIMIZE are accepted as well.

        EXAMPLE:
          m.setObjective(c @ x + 10, "max")
          m.setObjective(x @ Q @ x)

        NOTES:
          ValueError for an array of several elements or an unknown sense, TaviroError as for
          addConstr; the objective stays as it was then.
        """
        if self._closed:
            self._refuse_closed()
        self._build.set_objective(self, expr, sense)

    # Removal

    def remove(self, obj: object) -> None:
        """
        ROUTINE:
          remove(obj)

        PURPOSE:
          Remove variables or constraints at the next update().

        ARGUMENTS:
          obj: a Var, Constr, QConstr or GenConstr, a matrix object of them, or a list or tuple of
            these.

        EXAMPLE:
          m.remove(x[3:])

        NOTES:
          A removed element's index is -2 from the next update() on; those after it move up. A
          removed variable leaves the linear and quadratic expressions that it stood in.
          Removing an element again does nothing. TaviroError for elements of another model.
        """
        if self._closed:
            self._refuse_closed()
        self._build.remove(self, obj)
