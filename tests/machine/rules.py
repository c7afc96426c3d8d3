"""The machine: one model, changed and solved in every way, in step with its shadow."""

import copy
import os
import pickle
from contextlib import suppress
from tempfile import TemporaryDirectory

import numpy as np
import scipy.sparse as sp
from agreement import Agreement
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, initialize, invariant, precondition, rule
from judge import complaint, is_tame
from shadow import DOOMED, GONE, PLACED, WAITING, Shadow, as_quadratic
from writing import BOUNDS, CHANGES, OPTIONS, REFUSED, TYPES, Block, Writer, numbers

import taviropy as tv

SEEDS = st.integers(0, 2**20)
WORLDS = (*TYPES, "lp", "mip")
MANY = 16  # elements of a kind that are enough
LIMIT = 20.0  # seconds of a solve


class Machine(RuleBasedStateMachine, Agreement):
    """A model and its shadow. The statements that made the model are kept: they are a program."""

    last = None  # the machine that ran last: after a failure, the smallest one
    count = 0
    unfinished = 0  # solves that came to the time limit
    trace = None  # path of a file that always holds the program so far, for crashes

    @initialize(
        engine=st.sampled_from(("auto", "scip")),
        world=st.sampled_from(WORLDS),
        seed=SEEDS,
        more=st.integers(0, 5),
    )
    def begin(self, engine, world, seed, more):
        Machine.last, Machine.count = self, Machine.count + 1
        self.engine, self.world, self.lines = engine, world, []
        self.shadow = Shadow()
        self.blocks = {name: [] for name in ("variables", "linear", "quadratic", "general")}
        self.writer = Writer(self.shadow, self.blocks["variables"])
        self.space = {
            "tv": tv,
            "np": np,
            "sp": sp,
            "inf": np.inf,
            "nan": np.nan,
            "suppress": suppress,
            "copy": copy,
            "pickle": pickle,
        }
        self.answer = None  # of the last solve: X by number of the variable
        self.do(f"m = tv.Model(engine={engine!r})")
        self.set_option("log", False)
        self.set_option("gap", 0.0)
        self.set_option("timeLimit", LIMIT)
        self.add_variables(seed)
        steps = {
            "qp": (self.set_objective, self.add_rows, self.add_quadratic_row),
            "miqp": (self.set_objective, self.add_rows, self.add_quadratic_row),
            "indicators": (self.add_indicator, self.add_rows, self.add_variables),
        }.get(world, (self.add_rows, self.set_objective, self.add_variables))
        for k in range(more):
            steps[k % 3](seed=seed + k + 1)

    # Statements

    def do(self, text):
        """Run a statement and keep it."""
        self.keep(text)
        exec(text, self.space)

    def keep(self, text):
        """Make a statement part of the program."""
        self.lines.append(text)
        if self.trace:
            self.trace.write_text(self.script())

    def add(self, kind, text, numbers, is_matrix):
        """Run a statement that gives new handles."""
        name = f"{kind[0]}{len(self.blocks[kind])}"
        self.do(f"{name} = {text}")
        self.blocks[kind].append(Block(name, numbers, is_matrix))

    def script(self):
        """The statements as a program."""
        lines = [
            "import numpy as np, scipy.sparse as sp, taviropy as tv",
            "import copy, pickle; from contextlib import suppress",
        ]
        return "\n".join([*lines, "inf, nan = np.inf, np.nan", *self.lines])

    def name(self):
        """The argument for a name, and the name."""
        name = self.writer.pick(("", "", "", "a", "b c"))
        return (f", name={name!r}" if name else ""), name

    # Additions

    @precondition(lambda self: len(self.shadow.variables) < MANY)
    @rule(seed=SEEDS)
    def add_variables(self, seed):
        w = self.draw(seed)
        shape = w.pick((None, (2,), (3,), (3,), (4,), (2, 2), ()))
        types = "B" if self.world in ("indicators", "all") and w.chance(0.4) else TYPES[self.world]
        lb, ub, obj, vtype = w.columns(shape, types, *BOUNDS.get(self.world, ()))
        words, name = self.name()
        call = "addVar(" if shape is None else f"addMVar({shape}, "
        arguments = (
            f"lb={numbers(lb)}, ub={numbers(ub)}, obj={numbers(obj)}, vtype={numbers(vtype)}"
        )
        made = self.shadow.add_variables(shape, lb, ub, obj, vtype, name)
        self.add("variables", f"m.{call}{arguments}{words})", made, shape is not None)

    @precondition(lambda self: len(self.shadow.linear) < MANY)
    @rule(seed=SEEDS)
    def add_rows(self, seed):
        w = self.draw(seed)
        form, drawn = w.chance(0.5), w.comparison()
        if drawn is None:
            return
        text, difference, sense, is_matrix = drawn
        words, name = self.name()
        self.do(f"tv.MLinExpr._keep_compact = {int(form)}")
        made = self.shadow.add_rows(difference, sense, name, is_matrix)
        self.add("linear", f"m.addConstr({text}{words})", made, is_matrix)
        self.do("tv.MLinExpr._keep_compact = 1")

    @precondition(
        lambda self: self.world in ("all", "qp", "miqp") and len(self.shadow.quadratic) < 3
    )
    @rule(seed=SEEDS)
    def add_quadratic_row(self, seed):
        w = self.draw(seed)
        convex = w.chance(0.8)
        drawn = w.quadratic(1, convex)
        if drawn is None or w.chance(0.4):
            return
        text, square, is_matrix = drawn
        rhs = abs(w.data(())) + 1.0
        sense = "<" if convex else w.pick(("<", ">"))
        square[0, 0] -= rhs
        words, name = self.name()
        made = self.shadow.add_squares([square], () if is_matrix else None, sense, name)
        text = f"m.addConstr({text} {sense}= {rhs}{words})"
        self.do(f"tv.MQuadExpr._keep_compact = {int(w.chance(0.5))}")
        self.add("quadratic", text, made, is_matrix)
        self.do("tv.MQuadExpr._keep_compact = 1")

    @precondition(lambda self: self.world in ("all", "indicators") and len(self.shadow.general) < 8)
    @rule(seed=SEEDS)
    def add_indicator(self, seed):
        w = self.draw(seed)
        value = bool(w.chance(0.5))
        table = self.shadow.variables
        binaries = [
            n
            for n, kind in enumerate(table.values["VType"])
            if kind == "B" and table.are(n, WAITING, PLACED)
        ]
        lone = [
            block for block in self.blocks["variables"] if np.isin(block.numbers, binaries).all()
        ]
        drawn = w.comparison()
        if not lone or drawn is None:
            return
        binary, (text, difference, sense, is_matrix) = w.pick(lone), drawn
        try:
            shape = np.broadcast_shapes(binary.numbers.shape, difference.shape[:-1])
        except ValueError:
            return
        is_matrix = is_matrix or binary.is_matrix or shape != ()
        words, name = self.name()
        made = self.shadow.add_implications(
            binary.numbers, value, difference, sense, name, is_matrix
        )
        text = f"m.addGenConstrIndicator({binary.text}, {value}, {text}{words})"
        self.add("general", text, made, is_matrix)

    # Changes

    @rule(seed=SEEDS)
    def set_objective(self, seed):
        w = self.draw(seed)
        words, sense = w.pick((("", 0), ("", 0), (", 'min'", 1), (", 'max'", -1), (", -1", -1)))
        text, square, curves = "3.5", as_quadratic(np.array([3.5])), []
        if self.world == "curves" and w.chance(0.8):
            drawn = w.curved()
            if drawn:
                (text, curves), square = drawn, np.zeros((1, 1))
        elif self.world in ("all", "qp", "miqp") and w.chance(0.7):
            drawn = w.quadratic(sense or self.shadow.sense, w.chance(0.8))
            text, square = drawn[:2] if drawn else (text, square)
        elif w.chance(0.95):
            line = w.affine()
            if line is not None:
                text = f"({line.text}).sum()" if line.is_matrix else line.text
                square = as_quadratic(line.array.reshape(-1, line.array.shape[-1]).sum(0))
        self.do(f"m.setObjective({text}{words})")
        self.shadow.set_objective(square, sense, curves)

    @rule(seed=SEEDS)
    def change(self, seed):
        w = self.draw(seed)
        kind = w.pick(("variables", "variables", "linear", "linear", "quadratic", "model"))
        if kind == "model":
            if w.chance(0.5):
                self.shadow.sense = w.pick((1, -1))
                self.do(f"m.ObjSense = {self.shadow.sense}")
            else:
                self.shadow.offset = float(w.data(()))
                self.do(f"m.ObjOffset = {self.shadow.offset}")
            return
        table = getattr(self.shadow, kind)
        found = w.selection(table, self.blocks[kind], PLACED, DOOMED)
        if found is None:
            return
        choices = dict(CHANGES[kind])
        if kind == "variables" and self.world in ("mip", "miqp"):
            choices["VType"] = ("C", "I", "B")
        if kind == "variables" and self.world in BOUNDS:
            choices |= {"VType": TYPES[self.world]}
            choices["LB"], choices["UB"] = BOUNDS[self.world]
        if w.chance(0.15):
            choices = {table.name_attribute: ("n", "x y")}
        attribute = w.pick(list(choices))
        shape = found.numbers.shape if found.is_matrix else None
        values = np.asarray(w.some(choices[attribute], shape))
        self.do(f"{found.text}.{attribute} = {numbers(values)}")
        table.set(attribute, found.numbers, values)

    @rule(seed=SEEDS)
    def set_coefficients(self, seed):
        w = self.draw(seed)
        rows = w.selection(self.shadow.linear, self.blocks["linear"], WAITING, PLACED)
        columns = w.selection(self.shadow.variables, self.blocks["variables"], *w.usable)
        if rows is None or columns is None:
            return
        values = w.data((rows.numbers.size, columns.numbers.size))
        self.do(f"m.setCoefficients({rows.text}, {columns.text}, {numbers(values)})")
        self.shadow.set_coefficients(rows.numbers, columns.numbers, values)

    @rule(seed=SEEDS)
    def remove(self, seed):
        w = self.draw(seed)
        kind = w.pick(("variables", "linear", "linear", "quadratic", "general"))
        found = w.selection(
            getattr(self.shadow, kind), self.blocks[kind], WAITING, PLACED, DOOMED, GONE
        )
        if found is not None:
            self.do(f"m.remove({w.pick((found.text, f'[{found.text}]'))})")
            getattr(self.shadow, kind).remove(found.numbers)

    @rule()
    def update(self):
        self.do("m.update()")
        self.shadow.update()

    @rule(option=st.sampled_from(OPTIONS))
    def option(self, option):
        name = option[0]
        if self.engine == "scip" and name in ("presolve", "solver"):
            return
        self.set_option(*option)

    def set_option(self, name, value):
        self.do(f"m.setOption({name!r}, {value!r})")
        self.shadow.options[name] = value

    @rule(text=st.sampled_from(REFUSED), seed=SEEDS)
    def refused(self, text, seed):
        found = self.draw(seed).selection(
            self.shadow.variables, self.blocks["variables"], WAITING, PLACED, DOOMED
        )
        if found is None:
            return
        text = text.format(x=found.text)
        self.keep(f"with suppress(Exception): {text}")
        try:
            exec(text, self.space)
        except (tv.TaviroError, TypeError, ValueError, AttributeError):
            return
        raise AssertionError(f"{text} is accepted")

    def draw(self, seed):
        return self.writer.begin(seed)

    # Journeys

    @rule(way=st.sampled_from(("copy.deepcopy(({}))", "pickle.loads(pickle.dumps(({})))")))
    def travel(self, way):
        """Go on with a copy of the model and of all handles."""
        blocks = (block.text for each in self.blocks.values() for block in each)
        # Blocks without elements belong to no model, and copy.deepcopy doesn't take them.
        filled = [text for text in blocks if getattr(eval(text, self.space), "size", 1)]
        names = ", ".join(["m", *filled])
        self.do(f"({names},) = {way.format(names + ',')}")

    @rule(form=st.sampled_from((".mps", ".lp")))
    def write_and_read(self, form):
        """Go on with what a file gives back."""
        shadow = self.shadow
        shadow.update()
        if shadow.is_broken() or shadow.curves or not len(shadow.variables.placed()):
            self.do("m.update()")
            return
        memory = "/dev/shm" if os.path.isdir("/dev/shm") else None  # files are flushed to the disk
        with TemporaryDirectory(dir=memory) as folder:
            path = f"{folder}/model{form}"
            self.do(f"import os; os.makedirs({folder!r}, exist_ok=True); m.write({path!r})")
            self.do(f"m = tv.read({path!r})")
        self.engine, self.answer, self.shadow = "auto", None, shadow.reread()
        for name in ("quadratic", "general", "linear", "variables"):
            self.blocks[name].clear()
        self.writer.shadow = self.shadow
        for kind, call in (("variables", "getVars"), ("linear", "getConstrs")):
            everything = getattr(self.shadow, kind).placed()
            self.add(kind, f"m.{call}()", everything, True)
        self.do("from taviropy._scalars import data_of")  # no public way leads to the others
        for place, number in enumerate(self.shadow.quadratic.placed()):
            self.add("quadratic", f"data_of(m).in_place(4)[{place}]", number, False)
        self.set_option("log", False)
        self.set_option("gap", 0.0)
        self.set_option("timeLimit", LIMIT)

    # Solves

    @rule(text=st.sampled_from(("m.load()", "m.update()")))
    def load_and_optimize(self, text):
        self.shadow.update()  # removals may break the model
        if not self.shadow.is_broken():
            self.do(text)
        self.optimize()

    @rule()
    def optimize(self):
        shadow = self.shadow
        shadow.update()
        if shadow.is_broken():
            self.keep("with suppress(tv.TaviroError): m.optimize()")
            assert isinstance(self.get("m.optimize()"), tv.TaviroError), "a broken model is solved"
            return
        problem = shadow.problem()
        self.check_coefficients(problem)
        if not is_tame(problem):
            self.do("m.update()")
            return
        self.do("m.optimize()")
        answer = self.answer_now()
        if answer.status == "TIME_LIMIT" and self.engine == "scip":
            Machine.unfinished += 1  # convex, but not bounded: its branching need not end
            self.answer = None
            return
        wrong = complaint(problem, answer)
        assert not wrong, f"{wrong} ({self.get('m.Engine')})"
        self.answer = answer, shadow.variables.placed()
        if answer.status == "OPTIMAL":
            assert self.space["m"].check(1e-4), "check() finds something"
            self.check_slacks(problem, answer)

    # What must hold after each statement

    @invariant()
    def all_agrees(self):
        if Machine.last is self:
            self.check_counts()
            self.check_attributes()
            self.check_last_solution()
