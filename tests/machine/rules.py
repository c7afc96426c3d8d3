"""The machine: one model, changed and solved in every way, in step with its shadow."""

from contextlib import suppress

import numpy as np
import scipy.sparse as sp
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, initialize, invariant, precondition, rule
from judge import Answer, complaint, is_tame, wrong_slacks
from shadow import DOOMED, GONE, PLACED, WAITING, Shadow, as_quadratic
from writing import CHANGES, OPTIONS, REFUSED, TYPES, Block, Writer, numbers

import taviropy as tv

SEEDS = st.integers(0, 2**20)
WORLDS = (*TYPES, "lp", "mip")
MANY = 16  # elements of a kind that are enough


class Machine(RuleBasedStateMachine):
    """A model and its shadow. The statements that made the model are kept: they are a program."""

    last = None  # the machine that ran last: after a failure, the smallest one
    count = 0

    @initialize(engine=st.sampled_from(("auto", "scip")), world=st.sampled_from(WORLDS), seed=SEEDS)
    def begin(self, engine, world, seed):
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
        }
        self.answer = None  # of the last solve: X by number of the variable
        self.is_changed = True
        self.do(f"m = tv.Model(engine={engine!r})")
        self.set_option("log", False)
        self.set_option("gap", 0.0)
        self.add_variables(seed)

    # Statements

    def do(self, text):
        """Run a statement and keep it."""
        self.lines.append(text)
        exec(text, self.space)

    def get(self, text):
        """The value of an expression, or the TaviroError that it raises."""
        try:
            return eval(text, self.space)
        except tv.TaviroError as error:
            return error

    def add(self, kind, text, numbers, is_matrix):
        """Run a statement that gives new handles."""
        name = f"{kind[0]}{len(self.blocks[kind])}"
        self.do(f"{name} = {text}")
        self.blocks[kind].append(Block(name, numbers, is_matrix))

    def script(self):
        """The statements as a program."""
        lines = [
            "import numpy as np, scipy.sparse as sp, taviropy as tv",
            "from contextlib import suppress",
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
        lb, ub, obj, vtype = w.columns(shape, TYPES[self.world])
        words, name = self.name()
        call = "addVar(" if shape is None else f"addMVar({shape}, "
        arguments = (
            f"lb={numbers(lb)}, ub={numbers(ub)}, obj={numbers(obj)}, vtype={numbers(vtype)}"
        )
        made = self.shadow.add_variables(shape, lb, ub, obj, vtype, name)
        self.add("variables", f"m.{call}{arguments}{words})", made, shape is not None)

    @precondition(lambda self: len(self.shadow.linear) < MANY)
    @rule(seed=SEEDS, form=st.booleans())
    def add_rows(self, seed, form):
        drawn = self.draw(seed).comparison()
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
        self.add("quadratic", text, made, is_matrix)

    @precondition(lambda self: self.world in ("all", "indicators") and len(self.shadow.general) < 8)
    @rule(seed=SEEDS, value=st.booleans())
    def add_indicator(self, seed, value):
        w = self.draw(seed)
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
        text, square = "3.5", as_quadratic(np.array([3.5]))
        if self.world in ("all", "qp", "miqp") and w.chance(0.7):
            drawn = w.quadratic(sense or self.shadow.sense, w.chance(0.8))
            text, square = drawn[:2] if drawn else (text, square)
        elif w.chance(0.95):
            line = w.affine()
            if line is not None:
                text = f"({line.text}).sum()" if line.is_matrix else line.text
                square = as_quadratic(line.array.reshape(-1, line.array.shape[-1]).sum(0))
        self.do(f"m.setObjective({text}{words})")
        self.shadow.set_objective(square, sense)

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
        if w.chance(0.15):
            choices = {table.name_attribute: ("n", "x y")}
        attribute = w.pick(list(choices))
        shape = found.numbers.shape if found.is_matrix else None
        values = np.asarray(w.some(choices[attribute], shape))
        self.do(f"{found.text}.{attribute} = {numbers(values)}")
        table.set(attribute, found.numbers, values)

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
        self.lines.append(f"with suppress(Exception): {text}")
        try:
            exec(text, self.space)
        except (tv.TaviroError, TypeError, ValueError, AttributeError):
            return
        raise AssertionError(f"{text} is accepted")

    def draw(self, seed):
        return self.writer.begin(seed)

    # Solves

    @rule(text=st.sampled_from(("m.load()", "m.update()")), seed=SEEDS)
    def optimize(self, text, seed):
        shadow = self.shadow
        shadow.update()
        if shadow.is_broken():
            self.lines.append("with suppress(tv.TaviroError): m.optimize()")
            assert isinstance(self.get("m.optimize()"), tv.TaviroError), "a broken model is solved"
            return
        problem = shadow.problem()
        if not is_tame(problem):
            self.do("m.update()")
            return
        if self.draw(seed).chance(0.2):
            self.do(text)
        self.do("m.optimize()")
        answer = self._answer()
        wrong = complaint(problem, answer)
        assert not wrong, f"{wrong} ({self.get('m.Engine')})"
        self.answer = answer, shadow.variables.placed()
        if answer.x is not None:
            self._check_slacks(problem, answer)

    def _answer(self):
        def read(text):
            found = self.get(text)
            return None if isinstance(found, tv.TaviroError) else found

        quadratic = self.shadow.quadratic
        duals = dict.fromkeys(quadratic.placed().tolist(), 0.0)
        for text, number, _ in self.blocks["quadratic"]:
            if quadratic.are(number, PLACED):
                duals[int(number)] = read(f"float({text}.QDual)")
        return Answer(
            status=str(self.get("m.Status")),
            objective=read("m.Objective"),
            bound=read("m.Bound"),
            x=read("m.getVars().X"),
            slack=read("m.getConstrs().Slack"),
            dual=read("m.getConstrs().Dual"),
            reduced_costs=read("m.getVars().ReducedCost"),
            quadratic_dual=np.array(list(duals.values())),
        )

    def _check_slacks(self, problem, answer):
        linear, quadratic = self.shadow.linear, self.shadow.quadratic
        wrong = wrong_slacks(
            problem.rows @ answer.x, linear.at("RHS", linear.placed()).astype(float), answer.slack
        )
        assert not wrong, wrong
        x = answer.x
        values = [x @ square @ x + row @ x for square, row, *_ in problem.quadratics]
        values = dict(zip(quadratic.placed().tolist(), values, strict=True))
        for text, number, _ in self.blocks["quadratic"]:
            if quadratic.are(number, PLACED):
                right = quadratic.at("QRHS", number) - values[int(number)]
                self.agree(f"round({text}.QSlack - {right!r}, 8)", 0.0)

    # What must hold after each statement

    @invariant()
    def all_agrees(self):
        if Machine.last is self:
            self._check_counts()
            self._check_attributes()
            self._check_last_solution()

    def _check_counts(self):
        shadow = self.shadow
        for name, table in (
            ("NumVars", shadow.variables), ("NumConstrs", shadow.linear),
            ("NumQConstrs", shadow.quadratic), ("NumGenConstrs", shadow.general),
        ):  # fmt: skip
            self.agree(f"m.{name}", len(table.placed()))
        self.agree("m.ObjSense", shadow.sense)
        self.agree("m.ObjOffset", shadow.offset)
        for name, value in shadow.options.items():
            self.agree(f"m.getOption({name!r})", value)

    def _check_attributes(self):
        for kind, blocks in self.blocks.items():
            table = getattr(self.shadow, kind)
            for block in blocks:
                if table.are(block.numbers, PLACED, DOOMED):
                    for attribute in table.values:
                        self.agree(f"{block.text}.{attribute}", table.at(attribute, block.numbers))
                elif block.numbers.size:
                    found = self.get(f"{block.text}.{table.name_attribute}")
                    assert isinstance(found, tv.TaviroError), f"{block.text} is read: {found}"
        for call, table in (("getVars", self.shadow.variables), ("getConstrs", self.shadow.linear)):
            for attribute in table.values:
                self.agree(f"m.{call}().{attribute}", table.at(attribute, table.placed()))

    def _check_last_solution(self):
        if self.answer is None or self.answer[0].x is None:
            return
        answer, solved = self.answer
        known = dict(zip(solved.tolist(), answer.x, strict=True))
        for block in self.blocks["variables"]:
            if self.shadow.variables.are(block.numbers, PLACED, DOOMED):
                flat = block.numbers.ravel().tolist()
                found = self.get(f"{block.text}.X")
                if all(number in known for number in flat):
                    right = np.array([known[n] for n in flat]).reshape(block.numbers.shape)
                    assert np.array_equal(found, right), f"{block.text}.X is {found}, was {right}"
                else:
                    assert isinstance(found, tv.TaviroError), f"{block.text}.X is {found}"

    def agree(self, text, right):
        found = self.get(text)
        assert np.shape(found) == np.shape(right), f"{text} is {found!r}, right is {right!r}"
        same = (found == right) | ((found != found) & (right != right))
        assert np.all(same), f"{text} is {found!r}, right is {right!r}"
