"""Whether what a model says of itself is what its shadow says."""

import numpy as np
from judge import Answer, wrong_slacks
from shadow import DOOMED, PLACED

import taviropy as tv


class Agreement:
    """Comparisons of the model `m` in ``space`` with ``shadow``; ``blocks`` hold its handles by
    kind, ``lines`` the statements so far, ``answer`` what the last solve said, and the numbers of
    the variables that it had."""

    def get(self, text):
        """The value of an expression, or the TaviroError that it raises."""
        try:
            return eval(text, self.space)
        except tv.TaviroError as error:
            return error

    def check_counts(self):
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

    def check_attributes(self):
        """All that can be read of all variables and rows, and of one block of each kind."""
        for kind, blocks in self.blocks.items():
            table = getattr(self.shadow, kind)
            if not blocks:
                continue
            block = blocks[len(self.lines) % len(blocks)]
            if table.are(block.numbers, PLACED, DOOMED):
                for attribute in table.values:
                    self.agree(f"{block.text}.{attribute}", table.at(attribute, block.numbers))
            elif block.numbers.size:
                found = self.get(f"{block.text}.{table.name_attribute}")
                assert isinstance(found, tv.TaviroError), f"{block.text} is read: {found}"
        for call, table in (("getVars", self.shadow.variables), ("getConstrs", self.shadow.linear)):
            for attribute in table.values:
                self.agree(f"m.{call}().{attribute}", table.at(attribute, table.placed()))

    def check_coefficients(self, problem):
        self.do("m.update()")
        self.agree("m.getCoefficients().matrix.toarray()", problem.rows)
        if problem.curves:
            assert isinstance(self.get("m.getObjective()"), tv.TaviroError)
            return
        quadratic = 2.0 * np.triu(problem.square) - np.diag(np.diag(problem.square))
        text = "m.getObjective().quadratic"
        if self.get(text) is None:
            assert not quadratic.any(), "the quadratic objective is lost"
        else:
            self.agree(f"{text}.toarray()", quadratic)
        self.agree("m.getObjective().costs", problem.costs)

    def check_last_solution(self):
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
        if type(found) is type(right) is not np.ndarray and found == right:
            return
        assert np.shape(found) == np.shape(right), f"{text} is {found!r}, right is {right!r}"
        same = (found == right) | ((found != found) & (right != right))
        assert np.all(same), f"{text} is {found!r}, right is {right!r}"

    # The last solve

    def answer_now(self):
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

    def check_slacks(self, problem, answer):
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
