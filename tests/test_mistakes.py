"""Plausible mistakes: each gives an error of the right class that names the cure, or the right answer.

A line of the table is a statement, the class of its error behind "->", and words that the error's
text must have, separated by "|"; or what the statement gives, behind "=>".
"""

import json
import math

import numpy as np
import pandas as pd
import pytest
import scipy.sparse as sp

import taviropy as tv

MISTAKES = """
# Shapes
A @ X -> ValueError: (2, 3) and (2, 3) | last extent
m.addConstr(A @ x <= np.ones(3)) -> ValueError: (2,) and (3,) | reshape one
m.addConstr(x + X <= np.ones((3, 2))) -> ValueError: (2, 3) and (3, 2) | reshape one
x + np.ones(4) -> ValueError: (3,) and (4,) | must be equal
A.T @ x -> ValueError: (3, 2) and (3,) | last extent
x @ A -> ValueError: (3,) and (2, 3) | last extent
x[5] -> IndexError: 5 is out of bounds | size 3
x["a"] -> IndexError: only integers, slices
x[0.5] -> IndexError: only integers, slices
m.addMVar(-1) -> ValueError: (-1,) | negative
m.addMVar(2.5) -> ValueError: an int or a tuple of ints | 2.5
m.addMVar("3") -> ValueError: an int or a tuple of ints | '3'
m.addMVar("x") -> ValueError: an int or a tuple of ints | 'x'
m.addMVar(range(3)) -> ValueError: range(0, 3) | give its length
m.addMVar(["a", "b"]) -> ValueError: an int or a tuple of ints
m.addMVar(3, ub=[1, 2]) -> ValueError: 'ub' of shape (2,) | give a scalar or an array
m.addMVar((2, 3), lb=np.zeros((3, 2))) -> ValueError: 'lb' of shape (3, 2) | (2, 3)
m.addMVar(3, vtype=["C", "B"]) -> ValueError: 'vtype' of shape (2,) | (3,)
m.addMVar(3, name=["a", "b"]) -> ValueError: 'name' of shape (2,) | (3,)
m.setObjective(x) -> ValueError: (3,) | take its sum()
m.setObjective(A @ x) -> ValueError: (2,) | take its sum()
m.setObjective([1, 2, 3]) -> ValueError: (3,) | take its sum()
x.UB = [1, 2] -> AttributeError: (2,) | array of shape (3,)
x.UB = np.ones((3, 1)) -> AttributeError: (3, 1) | array of shape (3,)
c.RHS = [1, 2, 3] -> AttributeError: (3,) | array of shape (2,)
m.setCoefficients(c, x, np.ones((3, 2))) -> ValueError: (3, 2) | give them the shape (2, 3)
m.addMVar(2, columns=(c, np.ones((3, 2)))) -> ValueError: (3, 2) | give them the shape (2, 2)
m.relax(c, weights=[1, 2, 3]) -> ValueError: (3,) | (2,)
m.addGenConstrIndicator(b, True, x <= 1) -> ValueError: (2,) and (3,) | reshape one
tv.solveAll(m, {"RHS": (c, np.ones((2, 3)))}) -> ValueError: (2, 3) | (scenarios, *(2,))

# Comparisons
x < 5 -> TypeError: Use <= or >=
m.addConstr(A @ x > 1) -> TypeError: Use <= or >=
m.addConstr(x < X[0]) -> TypeError: Use <= or >=
m.addConstr(v < 5) -> TypeError: write '<='
m.addConstr(x != 5) -> TaviroError: not supported
m.addConstr(v != 5) -> TaviroError: use <=, >= or ==
m.addConstr(0 <= x <= 1) -> TypeError: Write each constraint on its own
m.addConstr(0 <= v <= 1) -> TypeError: Write each constraint on its own
bool(x == 3) -> TypeError: no truth value | hand each to addConstr
x <= 3 and x >= 1 -> TypeError: no truth value | hand each to addConstr
np.all(x <= 3) -> TypeError: no truth value | hand each to addConstr
max(x) -> TypeError: add a variable t with t >= each
max(x[0], x[1]) -> TypeError: add a variable t with t >= each
sorted(x) -> TypeError: Use <= or >=
m.addConstr(x) -> TypeError: needs a comparison | MVar
m.addConstr(True) -> TypeError: bool | Python decided the comparison
m.addConstr("x <= 3") -> TypeError: 'A @ x <= b' | str
m.addConstr(None) -> TypeError: 'A @ x <= b' | NoneType
m.addConstr([x <= 3]) -> TypeError: list | add each by a call of its own
m.addConstr(x[i] <= 3 for i in range(3)) -> TypeError: generator | one comparison of blocks
m.addConstr(x <= 3, 5) -> TaviroError: 'name' takes text | 5
m.addConstr(x <= None) -> TypeError: None | give real numbers
m.addConstr(x == "a") -> TypeError: 'a' | give real numbers
m.addConstr(tv.exp(x) <= 1) -> TypeError: y == expression
m.addConstr(tv.exp(x) == 1) -> TypeError: write 'y == x ** 3'
m.addConstr([1, 2, 3] <= x) => <MConstr (3,) *awaiting model update*>
m.addConstr(np.ones(3) <= x) => <MConstr (3,) *awaiting model update*>
m.addConstr(x <= [v, v, v]) => <MConstr (3,) *awaiting model update*>

# Objectives and their senses
m.setObjective(x.sum(), "maximise") -> ValueError: 'maximise' | use 'max'
m.setObjective(x.sum(), "minimize") -> ValueError: 'minimize' | use 'min'
m.setObjective(x.sum(), 2) -> ValueError: 'min' or 'max' | 2
m.setObjective(x.sum(), "up") -> ValueError: 'min' or 'max' | 'up'
m.setObjective("x") -> TypeError: 'x' | give real numbers, expressions
m.setObjective(None) -> TypeError: None | give real numbers, expressions
m.setObjective(x.sum() <= 3) -> TypeError: TempConstr | give real numbers, expressions
m.setObjective(tv.exp(x[0])) => None
m.ObjSense = "maximum" -> TaviroError: 'maximum' | use 'max'
m.setObjective(x.sum(), "MAX"); m.ObjSense => -1
c.Sense = "<=" -> TaviroError: '<', '=', '>' | '<='

# Types of variables, and their arguments
m.addVar(vtype="integer") -> TaviroError: 'integer' | did you mean 'I'?
m.addVar(vtype="binary") -> TaviroError: 'binary' | did you mean 'B'?
m.addVar(vtype="i") -> TaviroError: did you mean 'I'?
m.addVar(vtype=int) -> TaviroError: use 'C' (continuous), 'B' (binary)
m.addMVar((3, 3), vtype=sp.eye_array(3)) -> TaviroError: variable type | 'C'
m.addMVar(3, vtype="bin") -> TaviroError: did you mean 'B'?
m.addMVar(2, vtype=["C", "X"]) -> TaviroError: 'X' | use 'C'
x.VType = "integer" -> TaviroError: 'C', 'B', 'I' | 'integer'
m.addVar("x") -> TaviroError: lb='x' | name='x'
m.addMVar(3, "x") -> TaviroError: 'x' | name='x'
m.addVar(name=3) -> TaviroError: 'name' takes text | 3
m.addVar(lb="0") -> TaviroError: real numbers | lb='0'
m.addVar(ub=None) -> TaviroError: ub=None | float('inf')
m.addMVar(3, ub=None) -> TaviroError: None | float('inf')
m.addMVar(3, lb=[None, 0, 0]) -> TaviroError: None | float('inf')
m.addMVar(3, ub=x) -> TaviroError: 'ub' takes real numbers
m.addMVar(3, lb=1j) -> TaviroError: real numbers | 1j
m.addMVar(3, ub={"a": 1}) -> TaviroError: 'ub' takes real numbers | 'a'
m.addMVar(2, columns=c) -> TypeError: columns=(constrs, coefficients)
x.LB = "0" -> TaviroError: 'LB' takes real numbers
x.LB = None -> AttributeError: Use scalar or ndarray
x.VarName = 3 -> TaviroError: 'VarName' takes text
m.ObjOffset = "a" -> TaviroError: 'ObjOffset' takes real numbers

# What isn't a number
m.addVar(lb=math.nan) -> TaviroError: 'lb' is nan | a number or infinite
m.addMVar(3, ub=[1, np.nan, 2]) -> TaviroError: element 1 is nan
m.addMVar(3, obj=np.inf) -> TaviroError: 'obj' is inf | finite
m.addConstr(A @ x <= [1, np.nan]) -> TaviroError: Row 1 | check the data
m.addConstr(np.array([[1, np.nan, 0]]) @ x <= 1) -> TaviroError: nan | 'x[1]' | finite
m.addConstr(np.array([[1, np.inf, 0]]) @ x <= 1) -> TaviroError: inf | 'x[1]' | finite
m.setObjective(np.array([1, np.nan, 2]) @ x) -> TaviroError: nan | 'x[1]' | finite
m.addConstr((A * 1j) @ x <= 1) -> TypeError: real numbers | complex128
c.RHS = np.nan -> TaviroError: 'RHS' can't be NaN | check the data
x.LB = [0, np.nan, 0] -> TaviroError: position 1 | check the data
x.Obj = np.inf -> TaviroError: 'Obj' can't be inf | finite
m.setCoefficients(c, x, np.nan) -> TaviroError: nan | finite
sp.csr_array((np.ones(2), [0, 7], [0, 1, 2]), shape=(2, 3)) @ x -> ValueError: indices[1] = 7 | rebuild

# NumPy
np.sum(x).shape => ()
np.dot(np.ones(3), x).shape => ()
np.sqrt(x).shape => (3,)
np.power(x, 2).shape => (3,)
np.max(x) -> TypeError: add a variable t
np.maximum(x, 0) -> TypeError: t >= x and t >= y
np.cumsum(x) -> TypeError: np.tri(x.size) @ x
np.where([True, False, True], x, 0) -> TypeError: mask * x
np.clip(x, 0, 1) -> TypeError: set the bounds LB and UB
np.linalg.norm(x) -> TypeError: bound the square
np.einsum("i,i->", x, x) -> TypeError: use *, @ and sum(axis)
np.sort(x) -> TypeError: use operators, indexing
np.isnan(x) -> TypeError: use operators, indexing
np.log10(x) -> TypeError: tv.log(x) / np.log(10)
np.kron(x, x) -> TypeError: use tv.concatenate
tv.log("x") -> TypeError: str | it takes numbers
tv.max(x) -> AttributeError: add a variable t
tv.sum(x) -> AttributeError: use x.sum()
tv.inf -> AttributeError: float('inf')
tv.minimize(x) -> AttributeError: m.setObjective(expression, 'min')
tv.Problem() -> AttributeError: use tv.Model()
tv.Variable(3) -> AttributeError: use m.addMVar(shape)
tv.load("m.mps") -> AttributeError: use tv.read(path)
tv.mvar(3) -> AttributeError: did you mean 'MVar'?

# pandas
df["cost"] @ x -> TypeError: to_numpy()
x * df["cost"] -> TypeError: to_numpy()
df @ x -> TypeError: to_numpy()
m.addConstr(x <= df["cost"]) -> TypeError: Series | to_numpy()
df.apply(lambda row: row * x) -> TypeError: to_numpy()
m.addMVar(3, ub=df["cost"]).shape => (3,)
x.UB = df["cost"]; x.UB.tolist() => [1.0, 2.0, 3.0]

# Other models, removed elements, closed models
m.addConstr(x <= z) -> TaviroError: Var 'z[0]' | belongs to another model
m.setObjective(z.sum()) -> TaviroError: Var 'z[0]' | belongs to another model
m.remove(z) -> TaviroError: Var 'z[0]' | belongs to another model
m.setCoefficients(c, z, 1.0) -> TaviroError: Var 'z[0]' | belongs to another model
m.copy().addConstr(x <= 1) -> TaviroError: Var 'x[0]' | belongs to another model
gone.LB -> TaviroError: Var 'gone[0]' was removed | leave it out
gone.LB = 1 -> TaviroError: Var 'gone[0]' was removed | leave it out
r.addConstr(gone <= 1) -> TaviroError: Var 'gone[0]' | removed | leave it out
r.getVarByName("gone[0]") => None
m.remove("x") -> TypeError: variables, constraints, or lists | str
m.remove(x + 1) -> TypeError: variables, constraints, or lists | MLinExpr
q.addVar() -> TaviroError: closed | taviropy.Model()
u.LB -> TaviroError: closed | taviropy.Model()
q.NumVars -> TaviroError: closed | taviropy.Model()
q.summary() -> TaviroError: closed | taviropy.Model()

# What waits for an update
y.LB -> TaviroError: 'y[0]' waits | m.update()
y.LB = 1 -> TaviroError: 'y[0]' waits | m.update()
y.Start = [0, 1] -> TaviroError: 'y[0]' waits | m.update()
d.RHS = 3 -> TaviroError: 'd' waits | m.update()
d.Dual -> TaviroError: 'd' waits | m.update()
w.NumVars -> UserWarning: NumVars is 0 | 2 more wait | m.update()
w.NumConstrs -> UserWarning: NumConstrs is 0 | m.update()
w.getVarByName("y[0]") -> TaviroError: 'y[0]' waits | m.update()
w.getConstrByName("d") -> TaviroError: 'd' waits | m.update()
w.getVarByName("nope") => None
m.getVarByName(3) -> TypeError: 3 | such as 'x[0]'
w.getCoefficients(d) -> TaviroError: 'd' awaits update()
y.frame() -> TaviroError: 'y[0]' waits | m.update()
str(w.summary()).count("m.update() first") => 1

# Attributes and methods
x.lb -> AttributeError: did you mean 'LB'?
x.ub = 3 -> AttributeError: did you mean 'UB'?
v.lb = 3 -> AttributeError: did you mean 'LB'?
v.name -> AttributeError: did you mean 'VarName'?
x.value -> AttributeError: did you mean 'X'?
v.value -> AttributeError: did you mean 'X'?
x.rhs -> AttributeError: RHS belongs to linear constraints
x.RHS -> AttributeError: RHS belongs to linear constraints
x.foo -> AttributeError: its attributes are LB, UB
c.X -> AttributeError: X belongs to variables
c.dual -> AttributeError: did you mean 'Dual'?
c.shadow_price -> AttributeError: did you mean 'Dual'?
k.Dual -> AttributeError: use QDual
k.rhs -> AttributeError: did you mean 'QRHS'?
m.status -> AttributeError: did you mean 'Status'?
m.solve() -> AttributeError: did you mean 'optimize'?
m.optimise() -> AttributeError: did you mean 'optimize'?
m.addVars(3) -> AttributeError: did you mean 'addVar'?
m.add_variables() -> AttributeError: did you mean 'addMVar'?
m.addCons(x <= 1) -> AttributeError: did you mean 'addConstr'?
m.addConstraint(x <= 1) -> AttributeError: did you mean 'addConstr'?
m.maximize(x.sum()) -> AttributeError: setObjective(expression, 'max')
m.hideOutput() -> AttributeError: setOption('log', False)
m.timeLimit = 3 -> AttributeError: setOption('timeLimit', ...)
m.read("m.mps") -> AttributeError: tv.read(path)
m.foo = 3 -> AttributeError: its attributes are ModelName
m._foo = 3; m._foo => 3
x.X = 1 -> AttributeError: what can be set are LB, UB
v.X = 1 -> AttributeError: what can be set are LB, UB
m.Status = 2 -> AttributeError: what can be set are ModelName
m.getAttr("numvars") -> AttributeError: did you mean 'NumVars'?

# Before and after a solve
x.X -> TaviroError: not been solved yet | call optimize()
c.Dual -> TaviroError: not been solved yet | call optimize()
m.Objective -> TaviroError: not been solved yet | call optimize()
m.check() -> TaviroError: not been solved yet | call optimize()
(x + 1).getValue() -> TaviroError: not been solved yet | call optimize()
s.Status == "OPTIMAL", s.Status == "optimal", s.Status == tv.TVO.Status.OPTIMAL => (True, True, True)
json.dumps([float(t[0].X), t[1].X.item(), *t.X.tolist(), s.Objective]) => '[1.0, 0.5, 1.0, 0.5, -1.5]'
{float(t[0].X): 1} => {1.0: 1}
s.addVar(name="n"); s.update(); s.getVarByName("n").X -> TaviroError: 'n' | after the last solve | call optimize()
t.VType = "I"; s.optimize(); f.Dual -> TaviroError: integer variables has no dual
t.LB = 2.0; s.optimize(); t.X -> TaviroError: infeasible | relax its bounds
t.UB = np.inf; s.remove(f); s.optimize(); t.X -> TaviroError: unbounded | give its variables bounds
s.conflict() -> TaviroError: no conflict | can hold together
m.relax(k) -> TypeError: MConstr | MQConstr
m.relax(c, weights=-1) -> TaviroError: positive | -1.0

# Options and engines
m.setOption("timelimit", 3) -> TaviroError: did you mean 'timeLimit'?
m.setOption("verbose", False) -> TaviroError: did you mean 'log'?
m.setOption("presolv", "on") -> TaviroError: did you mean 'presolve'?
m.getOption("tmelimit") -> TaviroError: did you mean 'timeLimit'?
m.setOption("time", 3) -> TaviroError: 'time' | use 'timeLimit'
m.setOption("presolve", "yes") -> TaviroError: "off", "choose" or "on"
m.setOption("timeLimit", "3") -> TaviroError: number of seconds | '3'
m.setOption("timeLimit", -3) -> TaviroError: at least 0 | -3
m.setOption("gap", "1%") -> TaviroError: relative gap | '1%'
m.setOption("threads", 1.5) -> TaviroError: number of threads | 1.5
m.setOption("log", "off") -> TaviroError: True or False | 'off'
m.setOption("logFile", "/no/such/log.txt") -> TaviroError: path of a file | No such file
m.setOption(3, 4) -> TaviroError: 3 | use 'timeLimit'
tv.Model(engine="HiGHS") -> ValueError: did you mean 'highs'?
tv.Model(engine="fast") -> ValueError: 'fast' | use 'auto' or one of 'highs'
tv.Model(engine=None) -> ValueError: None | use 'auto'
h.addConstr(e @ e <= 1); h.optimize() -> TaviroError: 'QC0' is a quadratic constraint | engine='auto'
h.addConstr(e == tv.exp(e)); h.optimize() -> TaviroError: 'GC0' is a general constraint | engine='scip'

# Files
tv.read("nope.mps") -> FileNotFoundError: nope.mps | check the path
tv.read(3) -> TypeError: str | int
m.write("model.txt") -> TaviroError: 'model.txt' | use .mps or .lp
m.write("model") -> TaviroError: 'model' | use .mps or .lp
m.write("no/such/folder.mps") -> TaviroError: 'no/such/folder.mps' | No such file
tv.read(file("a.lp", "Minimize\\n obj: x\\nSubject To\\n c: x >= \\nEnd")) -> TaviroError: line 4 | no number on its right
tv.read(file("a.mps", "NAME bad\\nROWS\\n N obj\\n Q c\\nENDATA\\n")) -> TaviroError: line 4 | N, L, G or E
tv.read(file("empty.mps", "")) -> TaviroError: line 1 | ENDATA
tv.read(file("empty.lp", "")) -> TaviroError: line 1 | 'Minimize' or 'Maximize'
m.addConstr(x == tv.exp(X[0])); m.write("n.mps") -> TaviroError: 'GC0' is nonlinear | without it

# Calls with more to them
m.addGenConstrIndicator(v, True, x <= 1) -> TaviroError: 'v' is not binary | set its VType to 'B'
m.addGenConstrIndicator(b, 2, x[:2] <= 1) -> TaviroError: 0 or 1 | 2
m.addGenConstrIndicator(b, True, x @ x <= 1) -> TaviroError: linear | set a new variable
m.addGenConstrIndicator(True, b, x[:2] <= 1) -> TypeError: binary Var or MVar | bool
m.addGenConstrIndicator(b, True, x[:2]) -> TypeError: comparison of expressions | MVar
m.addGenConstrNL(3, tv.exp(x)) -> TypeError: int | add one
m.setCoefficients(k, x, 1.0) -> TypeError: MConstr | MQConstr
m.setCoefficients(x, c, 1.0) -> TypeError: MConstr | MVar
m.setCoefficients(c[[0, 0]], x, 1.0) -> TaviroError: comes twice
m.optimize(callback=3) -> TypeError: takes a function | int
s.optimize(lazy=lambda p: t @ t <= 1) -> TypeError: linear comparison is needed
tv.solveAll([m, 3]) -> TypeError: takes models | number 1 | int
tv.solveAll(m, {"LB": (c, np.ones((2, 2)))}) -> TypeError: attribute of a Var or MVar | MConstr
tv.solveAll(m, {"nope": (c, np.ones((2, 2)))}) -> ValueError: 'nope' | known are LB
"""

SETUP = """
m = tv.Model("plan")
x = m.addMVar(3, ub=4.0, obj=[-1.0, -2.0, -3.0], name="x")
X, v, b = m.addMVar((2, 3), name="X"), m.addVar(ub=10, name="v"), m.addMVar(2, vtype="B", name="b")
A = sp.csr_array([[1.0, 2.0, 0.0], [0.0, 1.0, 1.0]])
c, k = m.addConstr(A @ x <= [4.0, 5.0], name="c"), m.addConstr(x @ x <= 40, name="k")
m.update()
w = tv.Model("waiting")
y = w.addMVar(2, name="y")
d = w.addConstr(y.sum() <= 1, name="d")
other = tv.Model("other")
z = other.addMVar(3, name="z")
s = tv.Model("solved")
s.setOption("log", False)
t = s.addMVar(2, lb=[1.0, 0.0], ub=1.0, obj=-1.0, name="t")
f = s.addConstr(t.sum() <= 1.5, name="f")
s.optimize()
r = m.copy()
gone = r.addMVar(2, name="gone")
r.update()
r.remove(gone)
r.update()
q = tv.Model("closed")
u = q.addMVar(2)
q.close()
h = tv.Model(engine="highs")
e = h.addMVar(2, lb=1.0)
df = pd.DataFrame({"cost": [1.0, 2.0, 3.0]}, index=list("abc"))
"""


def run(statement, names):
    """The value of a statement; of several, separated by semicolons, that of the last one."""
    *first, last = statement.split("; ")
    for each in first:
        exec(each, names)
    try:
        code = compile(last, "mistake", "eval")
    except SyntaxError:
        return exec(last, names)
    return eval(code, names)


def file(name, text):
    with open(name, "w") as opened:
        opened.write(text)
    return name


@pytest.fixture
def names(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    names = {"tv": tv, "np": np, "sp": sp, "pd": pd, "json": json, "math": math, "file": file}
    exec(SETUP, names)
    return names


LINES = [line for line in MISTAKES.splitlines() if line and not line.startswith("# ")]


@pytest.mark.parametrize("line", LINES)
def test_a_mistake_is_told_how_to_be_mended(line, names):
    if " => " in line:
        statement, expected = line.split(" => ")
        value = run(statement, names)
        assert repr(value) == expected or value == eval(expected)
        return
    statement, outcome = line.split(" -> ")
    kind, words = outcome.split(": ", 1)
    classes = {**vars(__import__("builtins")), "TaviroError": tv.TaviroError}
    with pytest.raises(classes[kind]) as error:
        run(statement, names)
    assert type(error.value) is classes[kind]
    text = "\n".join([str(error.value), *getattr(error.value, "__notes__", ())])
    for each in words.split(" | "):
        assert each.strip() in text
