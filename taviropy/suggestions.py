"""What people may have meant: the nearest of the names that there are, or what other libraries call
the same thing."""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from functools import lru_cache

from .data.attributes import ATTRIBUTES, GENERAL, LINEAR, MODEL, QUADRATIC, VARIABLE

_KINDS = {
    "Model": MODEL,
    "Var": VARIABLE,
    "MVar": VARIABLE,
    "Constr": LINEAR,
    "MConstr": LINEAR,
    "QConstr": QUADRATIC,
    "MQConstr": QUADRATIC,
    "GenConstr": GENERAL,
    "MGenConstr": GENERAL,
}
_OWNERS = {
    MODEL: "models",
    VARIABLE: "variables",
    LINEAR: "linear constraints",
    QUADRATIC: "quadratic constraints",
    GENERAL: "general constraints",
}
# Words for the same thing elsewhere, in small letters without underscores.
_OF_VARIABLES = {
    "cost": "Obj",
    "domain": "VType",
    "fix": "LB and UB",
    "hint": "Start",
    "initial": "Start",
    "initialvalue": "Start",
    "lower": "LB",
    "lowerbound": "LB",
    "marginal": "ReducedCost",
    "setlb": "LB",
    "setub": "UB",
    "setvalue": "Start",
    "solution": "X",
    "type": "VType",
    "upper": "UB",
    "upperbound": "UB",
    "val": "X",
    "value": "X",
    "warmstart": "Start",
}
_OF_CONSTRAINTS = {
    "constant": "RHS",
    "dual": "Dual",
    "dualvalue": "Dual",
    "marginal": "Dual",
    "multiplier": "Dual",
    "right": "RHS",
    "shadowprice": "Dual",
    "sign": "Sense",
    "type": "Sense",
    "upper": "RHS",
}
_OF_MODELS = {
    "addcol": "addMVar",
    "addcols": "addMVar",
    "addcons": "addConstr",
    "addconss": "addConstr",
    "addconstraint": "addConstr",
    "addconstraints": "addConstr",
    "addobjective": "setObjective",
    "addrow": "addConstr",
    "addrows": "addConstr",
    "addvariable": "addVar",
    "addvariables": "addMVar",
    "bestbound": "Bound",
    "constraints": "getConstrs",
    "delete": "remove",
    "dualbound": "Bound",
    "export": "write",
    "free": "close",
    "getdual": "Dual of the constraints",
    "getobjval": "Objective",
    "getsolvingtime": "SolveTime",
    "getstatus": "Status",
    "getval": "X of the variables",
    "hideoutput": "setOption('log', False)",
    "infeasibilities": "conflict",
    "maximize": "setObjective(expression, 'max')",
    "minimize": "setObjective(expression, 'min')",
    "log": "setOption('log', ...)",
    "logfile": "setOption('logFile', ...)",
    "nodecount": "Nodes",
    "objectivevalue": "Objective",
    "optimise": "optimize",
    "read": "tv.read(path)",
    "run": "optimize",
    "save": "write",
    "seed": "setOption('seed', ...)",
    "setmaximize": "setObjective(expression, 'max')",
    "setminimize": "setObjective(expression, 'min')",
    "solve": "optimize",
    "terminationcondition": "Status",
    "time": "SolveTime",
    "threads": "setOption('threads', ...)",
    "timelimit": "setOption('timeLimit', ...)",
    "tofile": "write",
    "value": "Objective",
    "variables": "getVars",
}
_WORDS = {MODEL: _OF_MODELS, VARIABLE: _OF_VARIABLES, LINEAR: _OF_CONSTRAINTS}
_OF_MODULE = {
    "dot": "use the operator @",
    "inf": "use float('inf')",
    "infinity": "use float('inf')",
    "load": "use tv.read(path)",
    "log10": "use tv.log(x) / np.log(10)",
    "max": "add a variable t to the model with t >= x",
    "maximize": "use m.setObjective(expression, 'max')",
    "maximum": "add a variable t to the model with t >= x",
    "min": "add a variable t to the model with t <= x",
    "minimize": "use m.setObjective(expression, 'min')",
    "minimum": "add a variable t to the model with t <= x",
    "norm": "use tv.sqrt((x * x).sum()), or bound the square (x * x).sum()",
    "power": "use the operator **",
    "problem": "use tv.Model()",
    "quicksum": "use x.sum()",
    "square": "use x * x",
    "stack": "use np.stack, or tv.vstack",
    "status": "use m.Status, and tv.TVO.Status",
    "sum": "use x.sum()",
    "sumsquares": "use (x * x).sum()",
    "variable": "use m.addMVar(shape)",
}
_NEAR = 0.7  # how alike two names must be, of 1


def _bare(name: str) -> str:
    return name.replace("_", "").lower()


def meant(name: object, known: Iterable[str], words: Mapping[str, str] | None = None) -> str:
    """The name that was probably meant, empty where none is near. `words` are what others say."""
    if not isinstance(name, str) or not name:
        return ""
    bare, names = _bare(name), dict[str, str]()
    for each in known:
        names.setdefault(_bare(each), each)
    if bare in names:
        return names[bare]
    if words and bare in words:
        return words[bare]
    from difflib import get_close_matches

    near = get_close_matches(bare, list(names), 1, _NEAR)
    return names[near[0]] if near else ""


def did_you_mean(name: object, known: Iterable[str], words: Mapping[str, str] | None = None) -> str:
    """The end of an error's text, empty where nothing is near."""
    found = meant(name, known, words)
    return f"did you mean {found!r}?" if found else ""


@lru_cache(1024)  # libraries ask objects for names that they don't have, again and again
def for_attribute(cls: type, name: str) -> str:
    """What to use in place of an attribute that a class of the package doesn't have."""
    kind = _KINDS.get(cls.__name__)
    if name[:1] == "_" or kind is None:
        return ""
    attributes = [each for each, attribute in ATTRIBUTES.items() if attribute.kind == kind]
    methods = [each for each in dir(cls) if each[:1] != "_"]
    words = _WORDS.get(kind, _OF_CONSTRAINTS)
    if kind == QUADRATIC:
        words = {word: f"Q{meaning}" for word, meaning in words.items()}
    near = did_you_mean(name, [*methods, *attributes], words)
    if near:
        return near
    foreign = {_bare(each): each for each in ATTRIBUTES}.get(_bare(name))
    if foreign:
        return for_foreign(kind, foreign)
    return f"its attributes are {', '.join(attributes)}"


def for_foreign(kind: int, name: str) -> str:
    """What to use in place of an attribute that elements of another kind have."""
    own = [each for each, attribute in ATTRIBUTES.items() if attribute.kind == kind]
    twin = next((each for each in own if each[-len(name) :] == name), "")
    instead = f"use {twin}" if twin else f"those of {_OWNERS[kind]} are {', '.join(own)}"
    return f"{name} belongs to {_OWNERS[ATTRIBUTES[name].kind]}: {instead}"


def for_read_only(kind: int, name: str) -> str:
    """What can be set in place of an attribute that can only be read."""
    settable = [each for each, (_, of, is_set) in ATTRIBUTES.items() if of == kind and is_set]
    return f"The model or its solve gives {name}: what can be set are {', '.join(settable)}"


def for_shape(shape: tuple[int, ...], given: tuple[int, ...]) -> str:
    """How to mend values that don't fit the elements."""
    return f"The values have shape {given}: give a scalar, or an array of shape {shape}"


def for_module(name: str, names: Iterable[str]) -> str:
    """What to use in place of a name that the package doesn't have. It costs little, since modules
    are asked for too."""
    bare = _bare(name)
    same = [each for each in names if _bare(each) == bare]
    if name[:1] == "_":
        return ""
    return f"did you mean {same[0]!r}?" if same else _OF_MODULE.get(bare, "")
