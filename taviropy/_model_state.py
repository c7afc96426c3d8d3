"""What a model consists of, its elements and its attributes."""

from __future__ import annotations

from . import _attrutil
from ._attrutil import GENERAL, LINEAR, MODEL, QUADRATIC, VARIABLE
from ._exception import TaviroError
from ._scalars import ModelBase
from ._tvo import TVO

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any, NoReturn, Self

    from ._matrixapi import MConstr, MVar
    from ._scalars import Constr, Var

COUNTS = {
    "NumVars": VARIABLE,
    "NumConstrs": LINEAR,
    "NumQConstrs": QUADRATIC,
    "NumGenConstrs": GENERAL,
}


class ModelState(ModelBase):
    """The fields of a model, and the methods that look into it."""

    _closed: bool
    _name: str
    _build: Any  # the module of that name
    _tables: Any  # by kind, the elements' data
    _row_buffer: Any
    _linear_rows: Any
    _quadratic_rows: Any
    _general: Any
    _objective: Any
    _session: Any

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

        return MVar(self._elements_in_place(VARIABLE))

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

        return MConstr(self._elements_in_place(LINEAR))

    def getVarByName(self, name: str) -> Var | None:
        """
        ROUTINE:
          getVarByName(name)

        PURPOSE:
          Find a variable by its name.

        RETURN VALUE:
          The first Var in the model with this VarName, or None.

        NOTES:
          Looks through all names; to find many, build a dictionary over getVars().
        """
        return self._element_by_name(VARIABLE, name)

    def getConstrByName(self, name: str) -> Constr | None:
        """
        ROUTINE:
          getConstrByName(name)

        PURPOSE:
          Find a linear constraint by its name.

        RETURN VALUE:
          The first Constr in the model with this ConstrName, or None.
        """
        return self._element_by_name(LINEAR, name)

    # Attributes

    def getAttr(self, attrname: str) -> Any:
        """
        ROUTINE:
          getAttr(attrname)

        PURPOSE:
          Read an attribute of the model: ModelName, ObjSense (1 for min, -1 for max), ObjOffset,
          NumVars, NumConstrs, NumQConstrs, NumGenConstrs, NumNonzeros, Status, Objective, Bound,
          SolveTime.

        NOTES:
          AttributeError for another name; TaviroError for Objective and Bound without a solution.
        """
        if _attrutil._getattrinfo(self, attrname)[1] != MODEL:
            raise AttributeError(f"'taviropy.Model' object has no attribute '{attrname}'")
        if self._closed:
            self._refuse_closed()
        if attrname in COUNTS:
            return self._tables[COUNTS[attrname]].placed
        if attrname == "NumNonzeros":
            return self._build.count_nonzeros(self)
        if attrname == "ModelName":
            return self._name
        if attrname == "ObjSense":
            return self._objective.sense
        if attrname == "ObjOffset":
            return self._objective.offset
        return self._session.result(attrname)

    def setAttr(self, attrname: str, value: object) -> None:
        """
        ROUTINE:
          setAttr(attrname, value)

        PURPOSE:
          Set ModelName, ObjSense ("min", "max", 1 or -1) or ObjOffset.

        NOTES:
          AttributeError for another name, TaviroError for a value that doesn't fit.
        """
        kind, settable = _attrutil._getattrinfo(self, attrname)[1:]
        if kind != MODEL:
            raise AttributeError(f"'taviropy.Model' object has no attribute '{attrname}'")
        if not settable:
            raise AttributeError(f"Attribute '{attrname}' cannot be set")
        if self._closed:
            self._refuse_closed()
        self._build.set_model_attribute(self, attrname, value)

    def __getattr__(self, name: str) -> Any:
        if name[:1] == "_":
            raise AttributeError(f"'taviropy.Model' object has no attribute '{name}'")
        return self.getAttr(name)

    def __setattr__(self, name: str, value: object) -> None:
        if name[:1] == "_":
            self.__dict__[name] = value
        else:
            self.setAttr(name, value)

    def __dir__(self) -> list[str]:
        return sorted({*super().__dir__(), *_attrutil._attrlist(self, MODEL)})

    # What the package's other modules call

    @property
    def _cmodel(self) -> Self:
        return self

    def _read_attribute(self, kind: int, attrname: str, positions: Any) -> Any:
        if self._closed:
            self._refuse_closed()
        return self._session.read(self, kind, attrname, positions)

    def _write_attribute(self, kind: int, attrname: str, positions: Any, values: Any) -> None:
        if self._closed:
            self._refuse_closed()
        self._session.write_attribute(self, kind, attrname, positions, values)

    def _element_name(self, kind: int, element_id: int) -> str:
        """The name of an element, for its text: also while it waits and after its removal."""
        return str(self._tables[kind].names.get([element_id])[0])

    def _elements_in_place(self, kind: int) -> Any:
        import numpy as np

        if self._closed:
            self._refuse_closed()
        table = self._tables[kind]
        return self._elements(kind, table.ids_of(np.arange(table.placed)))

    def _element_by_name(self, kind: int, name: str) -> Any:
        import numpy as np

        if self._closed:
            self._refuse_closed()
        table = self._tables[kind]
        names = table.names_of(np.arange(table.placed))
        if name not in names:
            return None
        return self._elements(kind, table.ids_of(np.array([names.index(name)])))[0]

    def _refuse_closed(self) -> NoReturn:
        raise TaviroError(
            TVO.Error.MODEL_CLOSED, "The model is closed: create a new one with taviropy.Model()"
        )
