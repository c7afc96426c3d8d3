"""The public model: its methods and what they promise. The work is done by the model's data and by
the session with its engine.

Nothing of the package stands among the attributes of a Model's own: those belong to the user.
"""

from __future__ import annotations

from collections.abc import Iterator
from sys import getrefcount, version_info
from typing import TYPE_CHECKING, overload

from . import _attrutil
from ._scalars import ModelShell, TempConstr, attach, data_of
from .data.attributes import COUNTS, LINEAR, MODEL, VARIABLE

if TYPE_CHECKING:
    from collections.abc import Callable, Sequence
    from os import PathLike
    from typing import Any, Literal, NoReturn, Self

    from matplotlib.axes import Axes

    from . import typing as types
    from ._matrixapi import MConstr, MGenConstr, MLinExpr, MNLExpr, MQConstr, MQuadExpr, MVar
    from ._scalars import (
        Constr,
        GenConstr,
        LinExpr,
        NLExpr,
        QConstr,
        QuadExpr,
        Var,
        _ReadOnly,
        _Settable,
    )
    from ._tvo import _Code
    from .conflict import Conflict
    from .data.basis import Basis
    from .data.check import Check
    from .data.coefficients import Coefficients, ObjectiveCoefficients
    from .data.model_data import ModelData
    from .progress import Point, Progress
    from .relaxation import Relaxation
    from .showing.summary import Summary
    from .typing import Array, Names, Number, Numbers, Sparse

    type _Objective = (
        Number | Var | LinExpr | QuadExpr | NLExpr | MVar | MLinExpr | MQuadExpr | MNLExpr
    )
    type _Scalar = Number | Var | LinExpr | QuadExpr | NLExpr
    type _Matrix = Array | MVar | MLinExpr | MQuadExpr | MNLExpr
    type _Element = Var | Constr | QConstr | GenConstr | MVar | MConstr | MQConstr | MGenConstr

_INF = float("inf")
# What getrefcount says of an argument that the caller doesn't hold: this frame's reference and
# the call's own. Later versions of Python don't count all references.
_REFERENCES_TO_LONE = 2 if version_info < (3, 14) else 0


class Model(ModelShell):
    """
    PURPOSE:
      An optimization model: variables with bounds, constraints, an objective.

    ARGUMENTS:
      name (str): name of the model, the attribute ModelName.
      engine (str): "highs" for linear, mixed-integer and convex quadratic models, "clarabel" for
        linear models and convex quadratic objectives and constraints, "scip" for all others,
        "ipopt" for local answers to large smooth models without integers, or "auto", which takes
        what proves its answer: the first of these that can.

    EXAMPLE:
      with tv.Model("diet") as m:
          x = m.addMVar(3, obj=[1.0, 2.0, 3.0])
          m.addConstr(A @ x >= b)
          m.optimize()
          print(x.X, m.Objective)

    NOTES:
      Additions and removals take effect at update(), which load(), optimize() and write() call
      first. Attributes of the model (NumVars, Status, Objective ...) read as m.NumVars; names
      that begin with an underscore are free for your own data; a program with types declares them
      in a subclass.
    """

    if TYPE_CHECKING:  # The attributes, which __getattr__ and __setattr__ reach.
        ModelName: str
        ObjSense: _Settable[int, types.ObjSense]
        ObjOffset: _Settable[float, Number]
        NumVars: _ReadOnly[int]
        NumConstrs: _ReadOnly[int]
        NumQConstrs: _ReadOnly[int]
        NumGenConstrs: _ReadOnly[int]
        NumNonzeros: _ReadOnly[int]
        Status: _ReadOnly[_Code]
        Engine: _ReadOnly[str]
        Objective: _ReadOnly[float]
        Bound: _ReadOnly[float]
        Gap: _ReadOnly[float]
        Nodes: _ReadOnly[int]
        Iterations: _ReadOnly[int]
        NumSolutions: _ReadOnly[int]
        SolveTime: _ReadOnly[float]

    def __init__(self, name: str = "", engine: types.EngineName = "auto") -> None:
        from .data.model_data import ModelData
        from .data.values import checked_texts
        from .session import Session

        data = ModelData("" if name is None else checked_texts("name", (str(name),))[0])
        data.session = Session(engine)
        data.new_shell = around
        attach(self, data)

    def __repr__(self) -> str:
        from .showing.summary import short_text

        return short_text(data_of(self))

    def _repr_html_(self) -> str:
        from .showing.html import model_html

        return model_html(data_of(self))

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *exc_info: object) -> None:
        self.close()

    # Variables

    def addVar(
        self,
        lb: Number = 0.0,
        ub: Number = _INF,
        obj: Number = 0.0,
        vtype: types.VType = "C",
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
          vtype (str): "C" continuous, "B" binary, "I" integer, "S" semi-continuous (zero, or
            between the bounds), "N" semi-integer (the same, and whole).
          name (str): name; unnamed variables are "C0", "C1", ... by order of creation.

        RETURN VALUE:
          The Var. It may be used at once; its index is -1 until update().

        EXAMPLE:
          y = m.addVar(ub=10, vtype="I", name="y")

        NOTES:
          Where lb is above ub the model is infeasible, zero isn't left to semi-continuous variables
          either. A semi-integer one is zero where no whole number lies between its bounds.

          TaviroError for NaN, an infinite cost or an unknown type: nothing is added then.
        """
        return data_of(self).add_var(lb, ub, obj, vtype, name)

    def addMVar(
        self,
        shape: int | tuple[int, ...],
        lb: Numbers = 0.0,
        ub: Numbers = _INF,
        obj: Numbers = 0.0,
        vtype: types.VTypes = "C",
        name: Names = "",
        columns: tuple[Constr | MConstr, Numbers | Sparse] | None = None,
    ) -> MVar:
        """
        ROUTINE:
          addMVar(shape, lb=0.0, ub=inf, obj=0.0, vtype="C", name="", columns=None)

        PURPOSE:
          Add an array of variables.

        ARGUMENTS:
          shape (int or tuple of ints): shape of the array.
          lb, ub, obj, vtype, name: as for addVar; each a scalar, or an array that broadcasts to
            the shape. One name "x" names the elements "x[0,1]".
          columns (tuple of an MConstr and an array or sparse matrix): linear constraints that the
            new variables enter, and their coefficients there, as setCoefficients takes them.

        RETURN VALUE:
          An MVar of the shape.

        EXAMPLE:
          x = m.addMVar((2, 3), ub=np.arange(3), vtype="B", name="x")

        NOTES:
          ValueError for a bad shape or data that don't broadcast, TaviroError as for addVar;
          nothing is added then.
        """
        made = data_of(self).add_mvar(shape, lb, ub, obj, vtype, name)
        if columns is not None:
            try:
                if not isinstance(columns, tuple | list) or len(columns) != 2:
                    raise TypeError(
                        f"'columns' takes a pair of constraints and coefficients, not "
                        f"{type(columns).__name__}: columns=(constrs, coefficients)"
                    )
                constrs, coefficients = columns
                self.setCoefficients(constrs, made, coefficients)
            except BaseException:
                self.remove(made)
                raise
        return made

    # Constraints

    def addConstr[Made](self, constr: TempConstr[Made], name: Names = "") -> Made:
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
        data = data_of(self)
        if type(constr) is not TempConstr:
            _refuse_constr(constr)
        if type(name) is str:
            made: Made | None = data.buffer_rows(constr, name)
            if made is not None:
                return made
        from .data.constraints import add_constr

        is_lone = getrefcount(constr) == _REFERENCES_TO_LONE
        added: Made = add_constr(data, constr, name, is_lone)
        return added

    @overload
    def addGenConstrNL(self, resvar: Var, expr: _Scalar, name: Names = "") -> GenConstr: ...
    @overload
    def addGenConstrNL(
        self, resvar: MVar, expr: _Scalar | _Matrix, name: Names = ""
    ) -> MGenConstr: ...
    @overload
    def addGenConstrNL(self, resvar: Var, expr: _Matrix, name: Names = "") -> MGenConstr: ...
    def addGenConstrNL(self, resvar: Var | MVar, expr: object, name: Names = "") -> Any:
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
        from .data.constraints import add_nonlinear

        return add_nonlinear(data_of(self), resvar, expr, name)

    @overload
    def addGenConstrIndicator(
        self, binvar: Var, binval: bool, constr: TempConstr[Constr], name: Names = ""
    ) -> GenConstr: ...
    @overload
    def addGenConstrIndicator(
        self,
        binvar: MVar,
        binval: Numbers,
        constr: TempConstr[Constr | MConstr],
        name: Names = "",
    ) -> MGenConstr: ...
    @overload
    def addGenConstrIndicator(
        self, binvar: Var, binval: Numbers, constr: TempConstr[MConstr], name: Names = ""
    ) -> MGenConstr: ...
    @overload
    def addGenConstrIndicator(
        self, binvar: Var, binval: Numbers, constr: TempConstr[Constr], name: Names = ""
    ) -> GenConstr | MGenConstr: ...
    def addGenConstrIndicator(
        self,
        binvar: Var | MVar,
        binval: Numbers,
        constr: TempConstr[Any],
        name: Names = "",
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
        from .data.constraints import add_indicator

        return add_indicator(data_of(self), binvar, binval, constr, name)

    def setObjective(self, expr: _Objective, sense: types.ObjSense | None = None) -> None:
        """
        ROUTINE:
          setObjective(expr, sense=None)

        PURPOSE:
          Set the objective; it replaces the costs of all variables, also those that obj= of
          addVar and addMVar gave, and the offset.

        ARGUMENTS:
          expr: a number, or an expression of any kind, scalar or matrix with one element.
          sense (str): "min" or "max"; TVO.MINIMIZE and TVO.MAXIMIZE are accepted as well. None
            keeps the model's sense, which is "min" at first.

        EXAMPLE:
          m.setObjective(c @ x + 10, "max")
          m.setObjective(x @ Q @ x)
          m.setObjective(tv.exp(x).sum() - y)

        NOTES:
          A nonlinear objective needs no variable of yours: engines add what they need. Obj of
          variables holds the costs of a linear or quadratic one; what is set there afterwards is
          added to a nonlinear one.

          ValueError for an array of several elements or an unknown sense, TaviroError as for
          addConstr; the objective stays as it was then.
        """
        data_of(self).set_objective(expr, sense)

    # Coefficients

    def setCoefficients(
        self, constrs: Constr | MConstr, variables: Var | MVar, coefficients: Numbers | Sparse
    ) -> None:
        """
        ROUTINE:
          setCoefficients(constrs, variables, coefficients)

        PURPOSE:
          Set coefficients of variables in linear constraints that exist already.

        ARGUMENTS:
          constrs (Constr or MConstr): p constraints, of any shape.
          variables (Var or MVar): q variables, of any shape.
          coefficients: an array of shape (p, q), a number for all, or a sparse matrix, of which
            only the stored entries are set. Zero takes a variable out of a constraint.

        EXAMPLE:
          m.setCoefficients(demand, x[3], np.array([[2.0], [0.0], [1.0]]))
          y = m.addMVar(2, obj=1.0, columns=(demand, patterns))  # new variables in old rows

        NOTES:
          Takes effect at once in the model, and with the next solve in the engine; HiGHS keeps
          its basis. A right-hand side stays as it is. ValueError for shapes that don't fit or a
          malformed matrix, TypeError for constraints that aren't linear, TaviroError for
          coefficients that aren't finite, elements that come twice or of another model: nothing
          is changed then.
        """
        from .data.entries import read_entries

        data = data_of(self)
        data.set_coefficients(read_entries(data, constrs, variables, coefficients))

    def getCoefficients(self, constrs: Constr | MConstr | None = None) -> Coefficients:
        """
        ROUTINE:
          getCoefficients(constrs=None)

        PURPOSE:
          The linear constraints as arrays.

        ARGUMENTS:
          constrs (Constr or MConstr): which ones, in place; None for all.

        RETURN VALUE:
          A named tuple: matrix (csr_array of shape (constraints, NumVars), columns in the order of
          getVars), senses (array of "<", "=", ">"), rhs (float64 array). Copies.

        EXAMPLE:
          A, senses, rhs = m.getCoefficients()

        NOTES:
          What waits for update() isn't there yet. TaviroError for constraints that wait.
        """
        from .data.coefficients import read_coefficients

        data = data_of(self)
        data.check_open()
        return read_coefficients(data, constrs)

    def getObjective(self) -> ObjectiveCoefficients:
        """
        ROUTINE:
          getObjective()

        PURPOSE:
          The objective as arrays: x @ quadratic @ x + costs @ x + offset.

        RETURN VALUE:
          A named tuple: costs (float64 array of shape (NumVars,)), quadratic (csr_array of shape
          (NumVars, NumVars), an upper triangle, or None), offset (float). Copies.

        NOTES:
          TaviroError for a nonlinear objective.
        """
        from .data.coefficients import read_objective

        data = data_of(self)
        data.check_open()
        return read_objective(data)

    # To look at

    def summary(self) -> Summary:
        """
        ROUTINE:
          summary()

        PURPOSE:
          The model at a glance: how many elements of each kind, the ranges of its coefficients,
          costs, bounds and right-hand sides, what may give trouble, engine and status.

        RETURN VALUE:
          A Summary: printed as a table; counts and ranges (dictionaries), nonzeros, engine, status
          and warnings (texts that name elements and say what helps).

        EXAMPLE:
          print(m.summary())

        NOTES:
          As of the last update(); a warning tells of what waits.
        """
        from .showing.summary import summary_of

        data = data_of(self)
        data.check_open()
        return summary_of(data)

    def spy(self, ax: Axes | None = None) -> Axes:
        """
        ROUTINE:
          spy(ax=None)

        PURPOSE:
          Draw where the linear constraints have coefficients: the pattern of the matrix.

        ARGUMENTS:
          ax (matplotlib Axes): where to draw; None for a new figure.

        RETURN VALUE:
          The Axes. Above 100,000 nonzeros the colour of an area tells how many there are.

        EXAMPLE:
          m.spy().figure.savefig("matrix.png")

        NOTES:
          As of the last update(). ImportError without matplotlib
          (pip install 'taviropy[notebook]').
        """
        from .showing.drawing import draw_matrix

        data = data_of(self)
        data.check_open()
        return draw_matrix(data, ax)

    # Removal

    def remove(self, obj: _Element | Sequence[_Element]) -> None:
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
        data_of(self).remove(obj)

    # Elements

    def getVars(self) -> MVar:
        """
        ROUTINE:
          getVars()

        PURPOSE:
          All variables in the model, for instance of one that was read from a file.

        RETURN VALUE:
          An MVar of shape (NumVars,), in order of the columns.
        """
        from ._matrixapi import MVar

        return MVar(data_of(self).in_place(VARIABLE))

    def getConstrs(self) -> MConstr:
        """
        ROUTINE:
          getConstrs()

        PURPOSE:
          All linear constraints in the model.

        RETURN VALUE:
          An MConstr of shape (NumConstrs,), in order of the rows.
        """
        from ._matrixapi import MConstr

        return MConstr(data_of(self).in_place(LINEAR))

    def getVarByName(self, name: str) -> Var | None:
        """
        ROUTINE:
          getVarByName(name)

        PURPOSE:
          Find a variable by its name.

        RETURN VALUE:
          The first Var in the model with this VarName, or None.

        NOTES:
          Looks through all names; to find many, build a dictionary over getVars(). TaviroError
          for one that waits for update().
        """
        from .data.waiting import find

        found: Var | None = find(data_of(self), VARIABLE, name)
        return found

    def getConstrByName(self, name: str) -> Constr | None:
        """
        ROUTINE:
          getConstrByName(name)

        PURPOSE:
          Find a linear constraint by its name.

        RETURN VALUE:
          The first Constr in the model with this ConstrName, or None.

        NOTES:
          TaviroError for one that waits for update().
        """
        from .data.waiting import find

        found: Constr | None = find(data_of(self), LINEAR, name)
        return found

    # Attributes

    def getAttr(self, attrname: str) -> Any:
        """
        ROUTINE:
          getAttr(attrname)

        PURPOSE:
          Read an attribute of the model: ModelName, ObjSense (1 for min, -1 for max), ObjOffset,
          NumVars, NumConstrs, NumQConstrs, NumGenConstrs, NumNonzeros, Status, Objective, Bound,
          Gap (|Objective - Bound| / |Objective|), Nodes (of the search tree), Iterations (of the
          engine's algorithm), SolveTime (seconds), Engine (who answered), NumSolutions (how many
          points x.Pool has).

        NOTES:
          AttributeError for another name; TaviroError for Objective, Bound and Gap where there
          is none. Counts are as of the last update(), with a warning where something waits.
        """
        if _attrutil._getattrinfo(self, attrname)[1] != MODEL:
            _attrutil._refuse(self, attrname)
        data = data_of(self)
        value = data.read_own(attrname)
        if attrname in COUNTS:
            from .data.waiting import warn_of_count

            warn_of_count(data, attrname)
        return value

    def setAttr(self, attrname: str, value: object) -> None:
        """
        ROUTINE:
          setAttr(attrname, value)

        PURPOSE:
          Set ModelName, ObjSense ("min", "max", 1 or -1) or ObjOffset.

        NOTES:
          AttributeError for another name, TaviroError for a value that doesn't fit.
        """
        from .suggestions import for_read_only

        kind, settable = _attrutil._getattrinfo(self, attrname)[1:]
        if kind != MODEL:
            _attrutil._refuse(self, attrname)
        if not settable:
            error = AttributeError(f"Attribute '{attrname}' cannot be set")
            error.add_note(for_read_only(MODEL, attrname))
            raise error
        data_of(self).write_own(attrname, value)

    if not TYPE_CHECKING:  # A checker refuses names that are not declared.

        def __getattr__(self, name: str) -> Any:
            if name[:1] == "_":
                raise AttributeError(f"'taviropy.Model' object has no attribute '{name}'")
            return self.getAttr(name)

        def __setattr__(self, name: str, value: object) -> None:
            if name[:1] == "_":
                super().__setattr__(name, value)
            else:
                self.setAttr(name, value)

    def __dir__(self) -> list[str]:
        return sorted({*super().__dir__(), *_attrutil._attrlist(self, MODEL)})

    # Solving

    def update(self) -> None:
        """
        ROUTINE:
          update()

        PURPOSE:
          Let waiting additions and removals take effect.
        """
        data_of(self).update()

    def load(self) -> None:
        """
        ROUTINE:
          load()

        PURPOSE:
          Hand the model to the engine without solving it. The status becomes LOADED.

        NOTES:
          After a solve only what changed is handed over, and the engine goes on from the basis
          that it has. TaviroError where the engine can't take the model or fails, MemoryError.
        """
        data = data_of(self)
        data.check_open()
        data.session.load(data)

    def optimize(
        self,
        callback: Callable[[Progress], object] | None = None,
        lazy: Callable[[Point], Any] | None = None,
        progress: bool | None = None,
    ) -> None:
        """
        ROUTINE:
          optimize(callback=None, lazy=None, progress=None)

        PURPOSE:
          Solve the model. The outcome is the attribute Status, one of TVO.Status.

        ARGUMENTS:
          callback (function): called with a Progress now and then, and whenever a better point
            was found: seconds, incumbent, bound, gap, nodes, iterations, is_new; p.value(x) gives
            the values of variables and linear expressions, p.stop() ends the solve.
          lazy (function): called with each point that could be an answer; it returns linear
            comparisons that must hold, or a list of them, or None. Those that the point breaks
            are rows from then on, of this solve alone. SCIP's, in a thread of its own.
          progress (bool): a line on stderr with the incumbent, the bound and the gap. None: after
            two seconds, in a terminal or notebook with the option "log" off.

        EXAMPLE:
          m.optimize(callback=lambda p: p.stop() if p.gap is not None and p.gap < 0.01 else None)
          m.optimize(lazy=lambda p: [x[cut].sum() >= 2 for cut in broken_cuts(p.value(x))])

        NOTES:
          An exception in one of the functions ends the solve and is raised; the model can't be
          changed in them.
          The solver's log goes to stdout while it solves, unless the option "log" is off. Ctrl-C
          ends the solve: no exception, Status is INTERRUPTED and the best solution so far can be
          read. Pressed twice, or with the option "raiseInterrupt", it is a KeyboardInterrupt once
          the solve has ended, so that a loop of solves ends too. TaviroError where the engine can't
          take the model or fails, OSError where the log file can't be opened any more, MemoryError.
        """
        data = data_of(self)
        data.check_open()
        data.session.solve(data, callback, lazy, progress)

    def basis(self) -> Basis:
        """
        ROUTINE:
          basis()

        PURPOSE:
          The basis that the simplex method of HiGHS ended with, to begin a later solve from.

        RETURN VALUE:
          A named tuple: variables (array of shape (NumVars,)) and constrs (of shape
          (NumConstrs,)), of characters: "B" basic, "L" at the lower bound or side, "U" at the upper
          one, "F" free and at zero. basis.of(x) gives the part of variables or constraints in
          their shape.

        EXAMPLE:
          before = m.basis()
          m.setBasis(before)

        NOTES:
          That of the last solve, also where the model changed since; a pickle holds it where it
          was read before. TaviroError where there is none: before a solve, for models with integers
          or quadratic parts, and of other engines.
        """
        data = data_of(self)
        data.check_open()
        found: Basis = data.session.basis(data)
        return found

    def setBasis(self, basis: Basis | tuple[types.Names, types.Names]) -> None:
        """
        ROUTINE:
          setBasis(basis)

        PURPOSE:
          Let the next solve begin from a basis, as that of a model with other data.

        ARGUMENTS:
          basis (Basis or pair of arrays): what basis() gave, here or for another model of as many
            variables and linear constraints, or the two arrays of its characters.

        EXAMPLE:
          second.setBasis(first.basis())

        NOTES:
          Takes effect in the engine at once, which is HiGHS; what is added to the model afterwards
          is nonbasic (variables) or basic (constraints). A singular basis is mended. Solves of one
          model begin from its last basis without this. ValueError or TaviroError for arrays that
          don't fit, TaviroError for models with integers or a quadratic objective and where
          another engine is asked for.
        """
        data = data_of(self)
        data.check_open()
        data.session.set_basis(data, basis)

    def check(self, tolerance: float = 1e-5) -> Check:
        """
        ROUTINE:
          check(tolerance=1e-5)

        PURPOSE:
          How far the last solution is from answering the model, computed from the model's own data
          as they are now, whatever the engine said.

        ARGUMENTS:
          tolerance (float): the largest violation that passes, relative to the side that is missed
            where that is above one.

        RETURN VALUE:
          A Check: true where all holds, printed as a table of the largest violation of each kind
          and its place. check["rows"].size and .name give one of them, check.worst the largest.

        EXAMPLE:
          m.optimize()
          print(m.check())

        NOTES:
          Bounds, integrality, linear, quadratic, nonlinear and indicator constraints; where there
          are dual values, complementarity and the duality gap as well. TaviroError where there is
          no solution, or variables that it doesn't hold.
        """
        from .data.check import check_solution

        data = data_of(self)
        data.check_open()
        return check_solution(data, tolerance)

    def conflict(self) -> Conflict:
        """
        ROUTINE:
          conflict()

        PURPOSE:
          Find out why the model is infeasible: constraints and bounds that can't hold together,
          such that without any one of them the rest can.

        RETURN VALUE:
          A Conflict: constrs (a list of Constr, QConstr and GenConstr), bounds (a list of pairs of
          a Var and "LB" or "UB"), is_minimal (bool), write(path), and a text to print.

        EXAMPLE:
          m.optimize()
          if m.Status == "INFEASIBLE":
              print(m.conflict())

        NOTES:
          The model needn't be solved before. There may be more conflicts than the one that is
          found. The integrality of variables counts as given, as do the bounds 0 and 1 of binary
          ones. The option "timeLimit" holds for the whole search;
          where it ends the search, and after Ctrl-C, the members that are left can't hold together
          but some may be idle, and is_minimal is False. TaviroError where the model is feasible.
          Each step is a solve of a part of the model without an objective: U. Junker, QuickXplain,
          AAAI 2004.
        """
        from .conflict import find_conflict

        data = data_of(self)
        data.check_open()
        return find_conflict(data, data.session.wanted, data.session.options)

    def relax(
        self,
        constrs: MConstr | None = None,
        weights: Numbers = 1.0,
        bounds: MVar | bool = False,
        bound_weights: Numbers = 1.0,
    ) -> Relaxation:
        """
        ROUTINE:
          relax(constrs=None, weights=1.0, bounds=False, bound_weights=1.0)

        PURPOSE:
          Find out by how much constraints, and bounds, must give for the model to be feasible, so
          that the sum of what they give is least. The model stays as it is.

        ARGUMENTS:
          constrs (MConstr): linear constraints that may give; None for all of them.
          weights (array-like): what a unit of each costs, positive; it broadcasts to constrs.
          bounds (bool or MVar): variables whose bounds may give; True for all, False for none.
          bound_weights (array-like): what a unit of each bound costs; it broadcasts to bounds.

        RETURN VALUE:
          A Relaxation: total (float), constrs (array of the shape of the constraints), lower and
          upper (arrays of the shape of the variables, or None), is_optimal, and a text to print.

        EXAMPLE:
          r = m.relax(demand, weights=[1.0, 10.0])
          print(r)
          demand.RHS -= r.constrs

        NOTES:
          Quadratic and general constraints, integrality and what isn't named hold as they are.
          TaviroError where even so nothing holds together, or the time limit came first.
        """
        from .relaxation import find_relaxation

        data = data_of(self)
        data.check_open()
        session = data.session
        return find_relaxation(
            data, constrs, weights, bounds, bound_weights, session.wanted, session.options
        )

    def write(self, path: str | PathLike[str]) -> None:
        """
        ROUTINE:
          write(path)

        PURPOSE:
          Write the model to a file; the ending tells the format.

        ARGUMENTS:
          path (str or path): a name that ends in ".mps" or ".lp"; with ".gz" or ".bz2" behind that
            the file is packed.

        NOTES:
          taviropy.read gives the same model back, names included: for those that the format can't
          hold others stand in the file, and comments tell which. Bounds of integers are written
          rounded inwards, as they hold.

          TaviroError where the file can't be written, or the model has nonlinear constraints; a
          file that was there stays then as it was. TypeError where the path isn't one.
        """
        data = data_of(self)
        data.check_open()
        data.session.write(data, path)

    @overload
    def setOption(self, name: Literal["timeLimit", "gap"], value: Number | None) -> None: ...
    @overload
    def setOption(self, name: Literal["threads", "seed"], value: int | None) -> None: ...
    @overload
    def setOption(self, name: Literal["log", "raiseInterrupt"], value: bool) -> None: ...
    @overload
    def setOption(self, name: Literal["logFile"], value: str | PathLike[str] | None) -> None: ...
    @overload
    def setOption(self, name: str, value: object) -> None: ...
    def setOption(self, name: str, value: object) -> None:
        """
        ROUTINE:
          setOption(name, value)

        PURPOSE:
          Set an option of the solver.

        ARGUMENTS:
          name (str): "timeLimit" (seconds a solve), "gap" (relative gap of mixed-integer models),
            "threads" (no more than there are cores), "seed", "log" (whether the solver's log goes
            to stdout), "logFile" (a file that it is added to), "raiseInterrupt" (whether Ctrl-C in
            a solve is a KeyboardInterrupt in the end), or an option by the engine's own name, such
            as "presolve" of HiGHS or "limits/nodes" of SCIP.
          value: a value of the option's type. None stands for no limit, no file, or the engine's
            own default.

        EXAMPLE:
          m.setOption("timeLimit", 60)

        NOTES:
          TaviroError for an unknown name or a value that doesn't fit: its type, its range or its
          choices, as far as the engine tells them; the option stays as it was then.
        """
        data = data_of(self)
        data.check_open()
        data.session.set_option(data, name, value)

    @overload
    def getOption(self, name: Literal["timeLimit"]) -> float: ...
    @overload
    def getOption(self, name: Literal["gap"]) -> float | None: ...
    @overload
    def getOption(self, name: Literal["threads", "seed"]) -> int | None: ...
    @overload
    def getOption(self, name: Literal["log", "raiseInterrupt"]) -> bool: ...
    @overload
    def getOption(self, name: Literal["logFile"]) -> str | None: ...
    @overload
    def getOption(self, name: str) -> Any: ...
    def getOption(self, name: str) -> Any:
        """
        ROUTINE:
          getOption(name)

        PURPOSE:
          The value of an option, as setOption takes it.

        RETURN VALUE:
          What was set; otherwise the default of the package's own options, and None for those of
          an engine, which keeps its own default then.

        NOTES:
          TaviroError for an unknown name.
        """
        data = data_of(self)
        data.check_open()
        return data.session.options.get(name)

    def copy(self) -> Self:
        """
        ROUTINE:
          copy()

        PURPOSE:
          Make a second model, which has nothing in common with this one.

        RETURN VALUE:
          A Model with the same elements, names, options, start and last solution. It gets an engine
          of its own at its first solve.

        EXAMPLE:
          relaxed = m.copy()
          relaxed.getVars().VType = "C"

        NOTES:
          getVars(), getConstrs() and getVarByName() of the copy give its elements. To copy what you
          hold along with the model, put the model first: m2, x2 = copy.deepcopy((m, x)). Your own
          attributes of the model are copied as copy.deepcopy does it, so that m2._x is the copy's
          variable. copy.copy(m) is the same as m.copy(). TaviroError for a closed model, and where
          copy.deepcopy meets an element of the model before the model itself.
        """
        from copy import deepcopy

        return deepcopy(self)

    def __copy__(self) -> Self:
        return self.copy()

    def __deepcopy__(self, memo: dict[int, Any]) -> Self:
        from ._pickling import deep_copy_of_model

        return deep_copy_of_model(self, memo)

    def __reduce__(self) -> tuple[Any, ...]:
        from ._pickling import reduced_model

        return reduced_model(self)

    def close(self) -> None:
        """
        ROUTINE:
          close()

        PURPOSE:
          Release the engine and the model's data. Closing twice does no harm; any other use of a
          closed model is a TaviroError.
        """
        data_of(self).close()


def around(data: ModelData) -> Model:
    """A new Model round the data of one that the user has dropped, while handles hold them."""
    model = Model.__new__(Model)
    attach(model, data)
    return model


def _refuse_constr(constr: object) -> NoReturn:
    raise TypeError(
        f"addConstr needs a comparison of expressions such as 'A @ x <= b', not "
        f"{type(constr).__name__}"
        + (
            ": add each by a call of its own, or all in one comparison of blocks"
            if isinstance(constr, list | tuple | Iterator)
            else ""
        )
        + (
            ": Python decided the comparison itself, as it does between plain values, and for '==' "
            "between an MNLExpr and a number; write 'y == x ** 3' with an MVar or Var y"
            if isinstance(constr, bool)
            else ""
        )
    )
