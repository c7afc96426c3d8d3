"""How models, their elements and expressions are pickled and copied.

One pickle or one call of copy.deepcopy holds a model once, however many elements and expressions
come along, and all of them are the new model's. In a pickle elements always take their model
along. copy.deepcopy leaves elements and expressions with their model unless it has copied that
before, in the same call.

The functions that pickles name stand at the end; they keep their names and arguments for as long
as pickles are to be read.
"""

from __future__ import annotations

import copyreg

from ._exception import TaviroError
from ._matrixapi import MConstr, MGenConstr, MQConstr, MVar
from ._scalars import (
    Constr,
    GenConstr,
    LinExpr,
    ModelCore,
    ModelShell,
    NLExpr,
    QConstr,
    QuadExpr,
    TempConstr,
    Var,
    _ExprTree,
    attach,
    data_of,
)
from ._tvo import TVO

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any

    from ._model import Model
    from .data.model_data import ModelData

    Reduced = tuple[Any, ...]

_KINDS: dict[Any, int] = {Var: 1, Constr: 2, QConstr: 4, GenConstr: 5}
_FIELDS: dict[type, str] = {
    MVar: "_vararr",
    MConstr: "_constrarr",
    MQConstr: "_qconstrarr",
    MGenConstr: "_constrarr",
}


# Models


def reduced_model(model: Model) -> Reduced:
    """A model for a pickle; the user's own attributes come as its state."""
    from .travel import packed

    return model_from, (type(model), packed(data_of(model))), model.__getstate__()


def deep_copy_of_model[M: Model](model: M, memo: dict[int, Any]) -> M:
    """A second model for copy.deepcopy, with a deep copy of the user's own attributes."""
    from copy import deepcopy

    from .travel import copied

    data = data_of(model)
    if memo.get(id(data)) is data:
        raise TaviroError(
            TVO.Error.ERROR_INVALID_ARGUMENT,
            f"copy.deepcopy met elements of {model!r} before the model itself, and left them as "
            f"they are: put the model first, as in copy.deepcopy((m, x))",
        )
    second = type(model).__new__(type(model))
    new_data = copied(data)
    new_data.new_shell = data.new_shell
    attach(second, new_data)
    memo[id(model)], memo[id(data)] = second, new_data
    state = model.__getstate__()
    if state is not None:
        _set_state(second, deepcopy(state, memo))
    return second


def _set_state(model: Model, state: Any) -> None:
    """What copy and pickle do with a state."""
    if hasattr(model, "__setstate__"):
        model.__setstate__(state)
        return
    attributes, slots = state if isinstance(state, tuple) else (state, {})
    model.__dict__.update(attributes or {})
    for name, value in slots.items():
        setattr(model, name, value)


# Elements


def _reduced_element(element: Any) -> Reduced:
    data, kind = data_of(element), _KINDS[type(element)]
    return element_from, (data, kind, int(data.ids(kind, element, True)[0]))


class _Handles:
    """The array of a matrix handle, which copies may share: it never changes."""

    __slots__ = ("array",)

    def __init__(self, array: Any) -> None:
        self.array = array

    def __deepcopy__(self, memo: dict[int, Any]) -> _Handles:
        from copy import deepcopy

        bundle = _bundle(self.array)
        if bundle is None:
            return _Handles(deepcopy(self.array, memo))
        data, kind, ids = bundle
        copy = memo.setdefault(id(data), data)
        return self if copy is data else handles_from(copy, kind, ids, self.array.shape)

    def __reduce__(self) -> Reduced:
        bundle = _bundle(self.array)
        if bundle is None:
            return _Handles, (self.array,)
        return handles_from, (*bundle, self.array.shape)


def _bundle(elements: Any) -> tuple[Any, int, Any] | None:
    """Data, kind and ids of an array or list of handles; None where they aren't of one model."""
    first = next(iter(elements if isinstance(elements, list) else elements.flat), None)
    if type(first) not in _KINDS:
        return None
    data, kind = data_of(first), _KINDS[type(first)]
    try:
        return data, kind, data.ids(kind, elements, True)
    except (TypeError, TaviroError):
        return None


def _reduced_matrix(matrix: Any) -> Reduced:
    """Of a matrix handle: its array, and what the user has put in."""
    state = dict(matrix.__dict__)
    array = state.pop(_FIELDS[type(matrix)], None)
    if array is None:
        return copyreg.__newobj__, (type(matrix),), state or None  # type: ignore[attr-defined]
    state.pop("_cmodel", None)
    return matrix_from, (type(matrix), _Handles(array)), state or None


def _deep_copy_of_matrix(self: Any, memo: dict[int, Any]) -> Any:
    """A deep copy, for copy.deepcopy."""
    from copy import deepcopy

    make, arguments, state = _reduced_matrix(self)
    copy = memo[id(self)] = make(*deepcopy(arguments, memo))
    if state is not None:
        copy.__setstate__(deepcopy(state, memo))
    return copy


def _set_state_of_matrix(self: Any, state: dict[str, Any]) -> None:
    """Take in what the user has put into another one."""
    self.__dict__.update(state)


# Expressions


def _vars_state(variables: list[Var]) -> tuple[Any, Any]:
    bundle = _bundle(variables)
    return (None, list(variables)) if bundle is None else (bundle[0], bundle[2].tolist())


def _vars_of(data: Any, variables: Any) -> list[Var]:
    if data is not None:
        variables = _checked_data(data).elements(1, variables).tolist()
    if any(type(var) is not Var for var in variables):
        raise TypeError("an expression holds what is no Var: the pickle is damaged")
    return list(variables)


def _reduced_linexpr(expr: LinExpr) -> Reduced:
    expr._flatten()
    return linexpr_from, (expr.constant, list(expr.coeffs), *_vars_state(expr.vars))


def _reduced_quadexpr(expr: QuadExpr) -> Reduced:
    expr._flatten()
    pairs = _vars_state(expr.vars1 + expr.vars2)
    return quadexpr_from, (expr.linear, list(expr.coeffs), *pairs)


def _reduced_tree(root: _ExprTree) -> Reduced:
    """The distinct nodes of a tree, children before parents; no call nests with its depth."""
    places: dict[int, int] = {}
    nodes: list[tuple[str, Any]] = []
    waiting = [root]
    while waiting:
        node = waiting[-1]
        missing = [child for child in node.children if id(child) not in places]
        if missing and id(node) not in places:
            waiting.extend(reversed(missing))
            continue
        waiting.pop()
        if id(node) not in places:
            places[id(node)] = len(nodes)
            children = [places[id(child)] for child in node.children]
            nodes.append((node.op, node.data if node.data is not None else children))
    return tree_from, (nodes,)


def _reduced_nlexpr(expr: NLExpr) -> Reduced:
    return NLExpr, (expr._root,)


def _reduced_tempconstr(constr: TempConstr) -> Reduced:
    return TempConstr, (constr.lhs, constr.sense, constr.rhs)


_new_shell: Callable[[ModelData], Model] | None = None


def register(new_shell: Callable[[ModelData], Model]) -> None:
    """Tell pickle and copy of all these; `new_shell` makes models round unpickled data."""
    global _new_shell
    _new_shell = new_shell
    for scalar in _KINDS:
        copyreg.pickle(scalar, _reduced_element)
    for matrix in _FIELDS:
        copyreg.pickle(matrix, _reduced_matrix)
        # Methods that copy and pickle ask for: an empty handle has an empty array under any name.
        matrix.__deepcopy__ = _deep_copy_of_matrix  # type: ignore[attr-defined]
        matrix.__setstate__ = _set_state_of_matrix  # type: ignore[attr-defined]
    copyreg.pickle(LinExpr, _reduced_linexpr)
    copyreg.pickle(QuadExpr, _reduced_quadexpr)
    copyreg.pickle(_ExprTree, _reduced_tree)
    copyreg.pickle(NLExpr, _reduced_nlexpr)
    copyreg.pickle(TempConstr, _reduced_tempconstr)


# What pickles name


def model_from(cls: type[Model], state: object) -> Model:
    """The model of `reduced_model`; UnpicklingError for another format and for damaged data."""
    from .travel import unpacked

    if not (isinstance(cls, type) and issubclass(cls, ModelShell)):
        raise TypeError(f"{cls!r} is no class of models: the pickle is damaged")
    data = unpacked(state)
    data.new_shell = _new_shell
    model = cls.__new__(cls)
    attach(model, data)
    return model


def _checked_data(data: Any) -> Any:
    if not isinstance(data, ModelCore):
        raise TypeError(f"a {type(data).__name__} where a model is needed: the pickle is damaged")
    return data


def element_from(data: Any, kind: int, element_id: int) -> Any:
    """The handle on an element."""
    return _checked_data(data).elements(kind, [element_id])[0]


def handles_from(data: Any, kind: int, ids: Any, shape: tuple[int, ...]) -> _Handles:
    """Handles on elements as an array of a shape."""
    return _Handles(_checked_data(data).elements(kind, ids).reshape(shape))


def matrix_from(cls: type, handles: _Handles) -> Any:
    """The matrix handle of an array."""
    return cls(handles.array)


def linexpr_from(constant: float, coeffs: list[float], data: Any, variables: Any) -> LinExpr:
    """A LinExpr with these terms, in this order."""
    expr = LinExpr([float(c) for c in coeffs], _vars_of(data, variables))
    expr += float(constant)
    return expr


def quadexpr_from(linear: LinExpr, coeffs: list[float], data: Any, variables: Any) -> QuadExpr:
    """A QuadExpr with these terms; `variables` are the first ones and then the second ones."""
    found = _vars_of(data, variables)
    if len(found) != 2 * len(coeffs):
        raise ValueError(f"{len(coeffs)} terms, {len(found)} variables: the pickle is damaged")
    expr = QuadExpr(linear)
    expr.coeffs.extend(float(c) for c in coeffs)
    expr.vars1.extend(found[: len(coeffs)])
    expr.vars2.extend(found[len(coeffs) :])
    return expr


def tree_from(nodes: list[tuple[str, Any]]) -> _ExprTree:
    """The last of the nodes; each is an operation and its number, Var or children's places."""
    made: list[_ExprTree] = []
    for operation, content in nodes:
        if operation == "constant":
            made.append(_ExprTree._from_constant(content))
        elif operation == "var":
            made.append(_ExprTree._from_var(content))
        else:
            children = [made[place] for place in content]
            if operation in ("plus", "minus", "multiply", "divide", "pow", "square", "uminus"):
                made.append(getattr(_ExprTree, f"_from_{operation}")(*children))
            else:
                made.append(_ExprTree._from_function(operation, *children))
    return made[-1]
