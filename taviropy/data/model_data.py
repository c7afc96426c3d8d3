"""The data of a model: its elements, rows and objective, and the one place that changes them."""

from __future__ import annotations

from typing import Any

import numpy as np
from numpy.typing import NDArray

from .._exception import TaviroError
from .._matrixapi import MConstr, MLinExpr, MVar
from .._scalars import Constr, ModelCore, RowBuffer, TempConstr, Var, data_of
from .._tvo import TVO
from .attributes import (
    ATTRIBUTES,
    CHAR,
    CHARACTERS,
    COUNTS,
    GENERAL,
    KIND_NAMES,
    LINEAR,
    OF_SOLUTION,
    ON_DEMAND,
    QUADRATIC,
    STRING,
    VARIABLE,
)
from .changes import ChangeLog, Changes
from .elements import Elements
from .entries import Entries, patched
from .handles import handles_in
from .locks import CHANGING, CLOSED, changing
from .objective import Objective, ParsedObjective, objective_sense, parse_objective
from .rows import Rows, Store
from .solution import Solution
from .trees import Trees
from .values import (
    Floats,
    Ids,
    Shape,
    check_columns,
    checked_names,
    checked_shape,
    column_data,
    convert,
    cut_binaries,
    invalid,
    rising,
    scalar_column,
    type_codes,
)

_DECODED = {name: np.array(list(text), "U1") for name, text in CHARACTERS.items()}
_REMOVED = -2  # the number of an element that was removed


class ModelData(ModelCore):
    """What a model consists of. Handles hold it, and it knows nothing of the public Model.

    Elements are numbered by the core, which is the only one to know their ids, their indices and
    their number. Additions and removals are entered at once and take effect at `update`; all that
    stands in arrays stands in the order of the ids.
    """

    def __init__(self, name: str) -> None:
        double, code = np.float64, np.uint8
        columns = {"LB": double, "UB": double, "Obj": double, "VType": code}
        self.name = name
        self.lock = ""  # why nothing may be changed, or empty
        self.variables = Elements(
            self.numbering(VARIABLE), VARIABLE, "C", columns, {"Start": np.nan}
        )
        self._linear = Elements(
            self.numbering(LINEAR), LINEAR, "R", {"RHS": double, "Sense": code}, {"Low": -np.inf}
        )
        self.quadratic = Elements(
            self.numbering(QUADRATIC), QUADRATIC, "QC", {"QRHS": double, "QSense": code}
        )
        general = {"GenKind": np.int32, "variable": np.int32, "value": code, "rhs": double}
        self.general = Elements(self.numbering(GENERAL), GENERAL, "GC", {**general, "sense": code})
        self.objective = Objective()
        self._row_buffer = RowBuffer(MLinExpr)
        self._linear_rows = Store(Rows)
        self._patches: list[Entries] = []  # coefficients set since, by ids
        self.quadratic_rows, self.quadratic_pairs = Store(Rows), Store(Rows)
        self.trees, self.indicator_rows = Store(Trees), Store(Rows)
        self.changes = ChangeLog()
        self.solution = Solution(TVO.Status.LOADED)
        self.memory: dict[str, tuple[object, Any]] = {}  # what engines found out about the data
        self.session: Any = None  # what solves the model, kept here for whoever holds the data

    def __reduce__(self) -> tuple[Any, ...]:
        """Handles hold the data, and take their public Model along where they are pickled."""
        return data_of, (self.shell,)

    # Locks

    def refuse_locked(self) -> None:
        """Raise where the model is closed, or being solved."""
        code = TVO.Error.MODEL_CLOSED if self.lock is CLOSED else TVO.Error.MODEL_BUSY
        raise TaviroError(code, self.lock)

    def check_open(self) -> None:
        """Refuse to look into a closed model."""
        if self.lock is CLOSED:
            self.refuse_locked()

    def close(self) -> None:
        """Give up all data and the engine; nothing can be read or changed from then on."""
        if self.lock is CLOSED:
            return
        if self.lock:
            self.refuse_locked()
        self.session.close(self)
        self.lock = CLOSED
        for name in list(self.__dict__):
            if name != "lock":
                del self.__dict__[name]

    # Elements

    @property
    def linear(self) -> Elements:
        """The linear constraints, those of the row buffer among them."""
        while len(self._row_buffer):
            self._take_buffered_rows()
        return self._linear

    @property
    def linear_rows(self) -> Store[Rows]:
        """The coefficients of the linear constraints, those of the row buffer among them."""
        while len(self._row_buffer):
            self._take_buffered_rows()
        if self._patches:
            self._apply_patches()
        return self._linear_rows

    def _apply_patches(self) -> None:
        """Enter the coefficients that were set, once for all, when the rows are looked at."""
        merged = Entries.merged(self._patches)
        merged = merged.take(self._linear.numbering.numbers(merged.rows) != _REMOVED)
        places = self._linear.positions(merged.rows)
        rows = self._linear_rows.select().without_repeats(self.variables.numbering.next_id())
        self._linear_rows.replace(patched(rows, merged._replace(rows=places)))
        self._patches = []

    def _take_buffered_rows(self) -> None:
        """Move what waits in the row buffer to the other data.

        Its constraints exist already. What was moved is dropped last, so that an interrupt before
        that does no harm.
        """
        before, self.lock = self.lock, CHANGING
        try:
            self._move_buffered_rows()
        finally:
            self.lock = before

    def _move_buffered_rows(self) -> None:
        indptr, ids, coefficients, rhs, senses = self._row_buffer.arrays()
        start = self._linear.size - len(self._row_buffer)
        self._linear.prepare(start, len(rhs), {"RHS": rhs, "Sense": senses})
        self._linear_rows.add(start, Rows(indptr, ids, coefficients, finite=True))
        self._row_buffer.drop(len(rhs))

    def elements_of(self, kind: int) -> Elements:
        """The elements of a kind."""
        if kind == VARIABLE:
            return self.variables
        if kind == LINEAR:
            return self.linear
        return self.quadratic if kind == QUADRATIC else self.general

    def element_name(self, kind: int, element_id: int) -> str:
        """The name of an element, for its text: also while it waits."""
        return self.elements_of(kind).names.get([element_id])[0]

    def in_place(self, kind: int) -> NDArray[np.object_]:
        """Handles on all elements of a kind that are in place, in order."""
        elements = self.elements_of(kind)
        return self.elements(kind, elements.ids()[: elements.placed])

    # Additions

    def add_var(self, lb: Any, ub: Any, obj: Any, vtype: Any, name: Any) -> Var:
        """Add one variable."""
        if self.lock:
            self.refuse_locked()
        lb, ub, obj, code = scalar_column(lb, ub, obj, vtype)
        if code:
            lb, ub = cut_binaries(lb, ub, code)
        names = checked_names(name, ()) if name else ""
        if isinstance(names, list):
            names = names[0]
        self.lock = CHANGING
        try:
            made: Var = self.variables.make_one(self, names, (lb, ub, obj, code))
        finally:
            self.lock = ""
        return made

    def add_mvar(self, shape: Any, lb: Any, ub: Any, obj: Any, vtype: Any, name: Any) -> MVar:
        """Add a block of variables."""
        if self.lock:
            self.refuse_locked()
        shape = checked_shape(shape)
        lb = column_data("lb", lb, shape)
        ub = column_data("ub", ub, shape)
        obj = column_data("obj", obj, shape)
        codes = type_codes(vtype, shape)
        check_columns(lb, ub, obj)
        lb, ub = cut_binaries(lb, ub, codes)
        values = {"LB": lb, "UB": ub, "Obj": obj, "VType": codes}
        return MVar(self._make_variables(shape, checked_names(name, shape), values))

    @changing
    def _make_variables(
        self, shape: Shape, names: str | list[str], values: dict[str, Any]
    ) -> NDArray[np.object_]:
        return self.variables.make(self, shape, names, values)

    def buffer_rows(self, constr: TempConstr, name: str) -> Any:
        """Add a small linear comparison by the quick way: its handles, or None where it can't."""
        if self.lock:
            self.refuse_locked()
        names = checked_names(name, ()) if name else ""
        made = self._row_buffer.append(self, constr)
        if name and made is not None:
            is_one = type(made) is Constr
            first_id = self._linear.numbering.next_id() - (1 if is_one else made.size)
            self._linear.names.add(first_id, None if is_one else made.shape, names)
        return made if made is None or type(made) is Constr else MConstr(made)

    # The makers below take finished data. A `shape` of None stands for a lone element.

    def _make(
        self, elements: Elements, shape: Shape | None, names: Any, values: dict[str, Any]
    ) -> Any:
        made = elements.make(self, () if shape is None else shape, names, values)
        return made[()] if shape is None else made

    @changing
    def make_linear(
        self, shape: Shape | None, names: Any, rows: Rows, rhs: Floats, sense: Any
    ) -> Any:
        """New linear constraints."""
        elements = self.linear
        self._linear_rows.add(elements.size, rows)
        return self._make(elements, shape, names, {"RHS": rhs, "Sense": sense})

    @changing
    def make_quadratic(
        self, shape: Shape | None, names: Any, rows: Rows, pairs: Rows, rhs: Floats, sense: Any
    ) -> Any:
        """New quadratic constraints; `pairs` are their terms, two ids in each."""
        place = self.quadratic.size
        self.quadratic_rows.add(place, rows)
        self.quadratic_pairs.add(place, pairs)
        self.changes.higher = True
        return self._make(self.quadratic, shape, names, {"QRHS": rhs, "QSense": sense})

    def make_nonlinear(
        self, shape: Shape | None, names: Any, variable: Any, trees: Trees, rhs: Floats, sense: int
    ) -> Any:
        """New constraints ``tree - variable <sense> rhs``; a variable of -1 is none."""
        rows = Rows.empty(trees.count)
        kind = int(TVO.GenKind.NONLINEAR)
        return self._make_general(shape, names, kind, trees, rows, (variable, 0, rhs, sense))

    def make_indicator(
        self,
        shape: Shape | None,
        names: Any,
        binary: Ids,
        value: NDArray[Any],
        rows: Rows,
        rhs: Floats,
        sense: Any,
    ) -> Any:
        """New constraints ``binary == value`` implies ``row <sense> rhs``."""
        trees = Trees.empty(rows.count)
        kind = int(TVO.GenKind.INDICATOR)
        return self._make_general(shape, names, kind, trees, rows, (binary, value, rhs, sense))

    @changing
    def _make_general(
        self,
        shape: Shape | None,
        names: Any,
        kind: int,
        trees: Trees,
        rows: Rows,
        values: tuple[Any, ...],
    ) -> Any:
        place = self.general.size
        self.trees.add(place, trees)
        self.indicator_rows.add(place, rows)
        self.changes.higher = True
        columns = dict(zip(("variable", "value", "rhs", "sense"), values, strict=True))
        return self._make(self.general, shape, names, {"GenKind": kind, **columns})

    # Coefficients

    @changing
    def set_coefficients(self, entries: Entries) -> None:
        """Set coefficients of linear constraints, by ids."""
        self._patches.append(entries)
        self.changes.note_entries(entries)

    # Objective

    def set_objective(self, expr: Any, sense: object) -> None:
        """Replace the objective; `sense` None keeps the sense."""
        if self.lock:
            self.refuse_locked()
        wanted = self.objective.sense if sense is None else objective_sense(sense)
        parsed = parse_objective(self, expr)
        self._replace_objective(wanted, parsed)

    @changing
    def _replace_objective(self, wanted: int, parsed: ParsedObjective) -> None:
        costs = self._costs(parsed.ids, parsed.costs)
        changed = np.flatnonzero(self.variables["Obj"] != costs)
        self.variables["Obj"][:] = costs
        self.objective.replace(wanted, parsed.offset, parsed.quadratic, parsed.nonlinear)
        self.changes.note("Obj", changed[changed < self.variables.placed])

    def _costs(self, ids: Ids, coefficients: Floats) -> Floats:
        """The costs of all variables, waiting ones included; equal variables are added up."""
        size = self.variables.size
        if not len(ids):
            return np.zeros(size)
        at = self.variables.positions(ids)
        if len(at) == size and np.array_equal(at, np.arange(size)):
            return coefficients
        return np.bincount(at, coefficients, minlength=size)

    # Removal and update

    def remove(self, obj: Any) -> None:
        """Mark elements for removal; nothing is marked where one of them can't be removed."""
        if self.lock:
            self.refuse_locked()
        found: dict[int, list[Ids]] = {}
        for kind, handles in handles_in(obj):
            found.setdefault(kind, []).append(self.ids(kind, handles, True))
        for kind, arrays in found.items():
            self.numbering(kind).discard(rising(arrays))

    @changing
    def update(self) -> None:
        """Place what waits and take out what was removed."""
        for kind in KIND_NAMES:
            elements = self.elements_of(kind)
            kept = elements.numbering.settle()
            if kept is None:
                continue
            elements.keep(kept)
            for store in self._stores(kind):
                store.keep(kept)
            self.changes.note_removal(kind, kept)
            self.solution.keep(kind, kept)

    def _stores(self, kind: int) -> tuple[Store[Any], ...]:
        if kind == LINEAR:
            return (self._linear_rows,)
        if kind == QUADRATIC:
            return (self.quadratic_rows, self.quadratic_pairs)
        return (self.trees, self.indicator_rows) if kind == GENERAL else ()

    # Attributes

    def read(self, attrname: str, positions: NDArray[Any]) -> Any:
        """Values of an elements' attribute at some indices: an array, or a list."""
        self.check_open()
        datatype, kind, _ = ATTRIBUTES[attrname]
        if attrname in OF_SOLUTION:
            if attrname in ON_DEMAND and attrname not in self.solution.values and not self.lock:
                self.session.find(self, attrname)
            return self.solution.read(attrname, positions, self.elements_of(kind))
        elements = self.elements_of(kind)
        if datatype == STRING:
            return elements.names_of(positions)
        values = elements.read(attrname, positions)
        if datatype == CHAR:
            return _DECODED[attrname][values]
        return values.tolist() if len(positions) == 1 else values

    @changing
    def write(self, attrname: str, positions: NDArray[Any], values: Any) -> None:
        """Set an elements' attribute at some indices; nothing changes where a value doesn't fit."""
        datatype, kind, _ = ATTRIBUTES[attrname]
        elements = self.elements_of(kind)
        converted = convert(attrname, values)
        if datatype == STRING:
            elements.rename(positions, converted)
            return
        elements.need(attrname)[positions] = converted
        if attrname == "Sense" and elements.has("Low"):
            elements["Low"][positions] = -np.inf
        self.changes.note(attrname, positions)

    def read_own(self, attrname: str) -> Any:
        """An attribute of the model itself."""
        self.check_open()
        if attrname in COUNTS:
            return self.numbering(COUNTS[attrname]).count()
        if attrname == "NumNonzeros":
            return self.linear_matrix().nnz
        if attrname == "ModelName":
            return self.name
        if attrname == "ObjSense":
            return self.objective.sense
        if attrname == "ObjOffset":
            return self.objective.offset
        return self.solution.result(attrname)

    def write_own(self, attrname: str, value: Any) -> None:
        """Set an attribute of the model itself."""
        if self.lock:
            self.refuse_locked()
        if attrname == "ModelName":
            self.name = convert(attrname, (value,))[0]
        elif attrname == "ObjOffset":
            self.objective.offset = float(convert(attrname, [value])[0])
        else:
            try:
                self.objective.sense = objective_sense(value)
            except ValueError as error:
                raise invalid(str(error)) from None

    def changes_since_load(self) -> Changes:
        """What an engine has to catch up with."""
        changes = self.changes.changes()
        entries = changes.entries
        if not len(entries.values):
            return changes
        linear, variables = self.linear.numbering, self.variables.numbering
        rows, columns = linear.numbers(entries.rows), variables.numbers(entries.variables)
        entries = Entries(rows, columns, entries.values).take((rows >= 0) & (columns >= 0))
        return changes._replace(entries=entries)

    # What views are made of

    def column_numbers(self, ids: Ids) -> Ids:
        """Numbers of columns by variable id; -1 or -2 where a variable isn't in place."""
        numbering = self.variables.numbering
        return ids if numbering.all_in_place() else numbering.numbers(ids)

    def by_column_number(self, rows: Rows) -> Rows:
        """Rows of ids as rows of column numbers, each once a row, without removed variables."""
        numbering = self.variables.numbering
        if not numbering.all_in_place():
            rows = rows.renumbered(numbering.numbers(rows.ids))
        return rows.without_repeats(numbering.count())

    def linear_matrix(self, first: int = 0) -> Rows:
        """The linear constraints in place from number `first` on, by column numbers."""
        return self.by_column_number(self.linear_rows.select(first, self.linear.placed))
