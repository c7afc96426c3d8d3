"""A model kept a second time, in plain arrays: what the module's own must agree with.

Nothing of the package is used here. An affine expression is an array whose last axis holds the
constant first and then a coefficient for each variable ever made, by number of creation; NumPy
does its arithmetic. A quadratic expression is a symmetric matrix over the same entries.
"""

from dataclasses import dataclass, field

import numpy as np

WAITING, PLACED, DOOMED, GONE = range(4)  # DOOMED: removed, and in place until the next update
INF = float("inf")
# Functions of a nonlinear objective by name, with their derivatives.
CURVES = {
    "exp": (np.exp, np.exp),
    "sin": (np.sin, np.cos),
    "cos": (np.cos, lambda values: -np.sin(values)),
    "linear": (np.positive, np.ones_like),
}


class Table:
    """The elements of a kind: their states, and a list of values for each of their attributes."""

    def __init__(self, prefix, name, *attributes):
        self.prefix, self.name_attribute = prefix, name
        self.states = []
        self.values = {attribute: [] for attribute in (*attributes, name)}

    def __len__(self):
        return len(self.states)

    def add(self, shape, name, **values):
        """New elements that wait; their numbers in an array of the shape."""
        first, count = len(self), int(np.prod(shape or ()))
        for attribute, value in values.items():
            self.values[attribute] += list(spread(value, shape))
        for number, index in enumerate(np.ndindex(shape or ()), first):
            text = f"{name}[{','.join(map(str, index))}]" if shape else name
            self.values[self.name_attribute].append(text if name else f"{self.prefix}{number}")
        self.states += [WAITING] * count
        return np.arange(first, first + count).reshape(shape or ())

    def at(self, attribute, numbers):
        """The values of some elements, in the shape of the numbers."""
        values = np.array(self.values[attribute], object)
        return values[np.asarray(numbers, int)]

    def set(self, attribute, numbers, values):
        """Give some elements new values."""
        for number, value in zip(np.ravel(numbers), spread(values, np.shape(numbers)), strict=True):
            self.values[attribute][number] = value

    def remove(self, numbers):
        """Mark elements; those that wait are gone at once."""
        for number in np.ravel(numbers):
            state = self.states[number]
            self.states[number] = {WAITING: GONE, PLACED: DOOMED}.get(state, state)

    def update(self):
        """Let additions and removals take effect."""
        after = {WAITING: PLACED, DOOMED: GONE}
        self.states = [after.get(state, state) for state in self.states]

    def placed(self):
        """The numbers of the elements in place, in order."""
        found = [n for n, state in enumerate(self.states) if state in (PLACED, DOOMED)]
        return np.array(found, int)

    def are(self, numbers, *states):
        """Whether each of the elements is in one of the states."""
        return all(self.states[number] in states for number in np.ravel(numbers).tolist())


def spread(values, shape):
    """The values as a flat array of plain objects, broadcast to a shape."""
    return np.broadcast_to(np.asarray(values, object), shape or ()).ravel()


def onehot(numbers, count):
    """Variables as affine expressions."""
    numbers = np.asarray(numbers)
    found = np.zeros((*numbers.shape, 1 + count))
    np.put_along_axis(found, numbers[..., None] + 1, 1.0, -1)
    return found


def product(first, second):
    """The sum of the products of two stacks of affine expressions, a quadratic expression."""
    first, second = (each.reshape(-1, each.shape[-1]) for each in (first, second))
    square = first.T @ second
    return (square + square.T) / 2


def as_quadratic(affine):
    """An affine expression without a shape as a quadratic one."""
    found = np.zeros((len(affine), len(affine)))
    found[0], found[:, 0] = affine / 2, affine / 2
    found[0, 0] = affine[0]
    return found


@dataclass
class Problem:
    """What is to be solved, over the variables in place, by index. Sides that are open are infinite.

    Where `semi` is true zero is allowed too, outside the bounds.

    `quadratics` hold triples of a symmetric matrix, its lower and upper side with a row in between;
    `indicators` hold a column, its value, a row and the row's sides; `curves`, which are addends of
    the objective, a function's name, a factor, and the constant and row of its argument.
    """

    sense: int
    offset: float
    costs: np.ndarray
    square: np.ndarray
    lower: np.ndarray
    upper: np.ndarray
    integer: np.ndarray
    rows: np.ndarray
    row_lower: np.ndarray
    row_upper: np.ndarray
    semi: np.ndarray
    quadratics: list = field(default_factory=list)
    indicators: list = field(default_factory=list)
    curves: list = field(default_factory=list)

    def objective(self, x):
        """The objective at a point."""
        curved = sum(by * CURVES[name][0](at + row @ x) for name, by, at, row in self.curves)
        return self.offset + self.costs @ x + x @ self.square @ x + curved

    def gradient(self, x):
        """The objective's gradient at a point."""
        curved = sum(by * CURVES[name][1](at + row @ x) * row for name, by, at, row in self.curves)
        return self.costs + 2.0 * self.square @ x + curved


class Shadow:
    """All that is known of a model."""

    def __init__(self):
        self.variables = Table("C", "VarName", "LB", "UB", "Obj", "VType", "Start")
        self.linear = Table("R", "ConstrName", "RHS", "Sense")
        self.quadratic = Table("QC", "QName", "QRHS", "QSense")
        self.general = Table("GC", "GenName", "GenKind")
        self.tables = (self.variables, self.linear, self.quadratic, self.general)
        self.rows = []  # affine expressions, one a linear constraint
        self.squares = []  # quadratic expressions, one a quadratic constraint
        self.implications = []  # (binary, value, affine expression, sense), one a general one
        self.square = np.zeros((1, 1))  # the objective's quadratic part
        self.curves = []  # (function, factor, affine expression) that are added to it
        self.sense, self.offset, self.model_name = 1, 0.0, ""
        self.options = {}

    def add_variables(self, shape, lb, ub, obj, vtype, name):
        """New variables; the bounds of binary ones are cut. The shape of a lone one is None."""
        binary = np.asarray(vtype, object) == "B"
        return self.variables.add(
            shape,
            name,
            LB=np.where(binary, np.maximum(lb, 0.0), lb).tolist(),
            UB=np.where(binary, np.minimum(ub, 1.0), ub).tolist(),
            Obj=obj,
            VType=vtype,
            Start=np.nan,
        )

    def add_rows(self, difference, sense, name, is_matrix):
        """New constraints: affine expressions and what they are compared with zero by."""
        shape = difference.shape[:-1]
        self.rows += list(difference.reshape(-1, difference.shape[-1]))
        rhs = 0.0 - difference[..., 0]
        return self.linear.add(shape if is_matrix else None, name, RHS=rhs, Sense=sense)

    def set_coefficients(self, rows, columns, coefficients):
        """Set coefficients of constraints: an array by row and column."""
        for row, values in zip(np.ravel(rows), coefficients, strict=True):
            affine = self.rows[row]
            self.rows[row] = np.pad(affine, (0, 1 + len(self.variables) - len(affine)))
            self.rows[row][np.ravel(columns) + 1] = values

    def add_squares(self, squares, shape, sense, name):
        """New quadratic constraints, each compared with zero; the shape of a lone one is None."""
        self.squares += squares
        rhs = np.array([0.0 - square[0, 0] for square in squares]).reshape(shape or ())
        return self.quadratic.add(shape, name, QRHS=rhs, QSense=sense)

    def add_implications(self, binaries, value, difference, sense, name, is_matrix):
        """New constraints that hold where a variable has a value."""
        shape = np.broadcast_shapes(np.shape(binaries), difference.shape[:-1])
        rows = np.broadcast_to(difference, (*shape, difference.shape[-1]))
        rows = rows.reshape(-1, difference.shape[-1])
        for binary, row in zip(np.broadcast_to(binaries, shape).ravel(), rows, strict=True):
            self.implications.append((int(binary), value, row, sense))
        return self.general.add(shape if is_matrix else None, name, GenKind=2)

    def set_objective(self, square, sense, curves=()):
        """Replace the objective by a quadratic expression and curves."""
        self.curves = curves
        self.sense = sense or self.sense
        self.offset = square[0, 0]
        costs = np.zeros(len(self.variables))
        costs[: len(square) - 1] = 2.0 * square[0, 1:]
        self.variables.set("Obj", np.arange(len(costs)), costs)
        self.square = square.copy()
        self.square[0], self.square[:, 0] = 0.0, 0.0

    def update(self):
        """Let additions and removals take effect."""
        for table in self.tables:
            table.update()

    def reread(self):
        """The model as a file gives it back: what is in place, numbered anew, bounds as they hold."""
        self.update()
        found, problem = Shadow(), self.problem()
        found.square = np.pad(problem.square, (1, 0))
        found.sense, found.offset = self.sense, self.offset
        for mine, new in zip(self.tables, found.tables, strict=True):
            placed = mine.placed()
            new.states = [PLACED] * len(placed)
            new.values = {name: mine.at(name, placed).tolist() for name in mine.values}
        variables = found.variables.values
        variables["LB"], variables["UB"] = problem.lower.tolist(), problem.upper.tolist()
        variables["Start"] = [np.nan] * len(problem.costs)
        found.rows = list(np.pad(problem.rows, ((0, 0), (1, 0))))
        for square, row, *_ in problem.quadratics:
            found.squares.append(np.pad(square, (1, 0)) + as_quadratic(np.append(0.0, row)))
        for number, (column, value, row, *_) in zip(
            self.general.placed(), problem.indicators, strict=True
        ):
            _, _, before, sense = self.implications[number]
            found.implications.append((column, value, np.append(before[0], row), sense))
        return found

    def is_broken(self):
        """Whether an indicator constraint or the objective's curves use a variable that is gone."""
        used = []
        for number in self.general.placed():
            binary, _, row, _ = self.implications[number]
            used += [binary, *(np.flatnonzero(row[1:]))]
        for _, _, affine in self.curves:
            used += [*np.flatnonzero(affine[1:])]
        return not self.variables.are(np.array(used, int), PLACED)

    def problem(self):
        """What is to be solved, after an update."""
        columns = self.variables.placed()
        entries = np.concatenate(([0], columns + 1))

        def cut(affine):  # to the variables in place
            affine = np.pad(affine, (0, 1 + len(self.variables) - len(affine)))
            return affine[entries][1:]

        def cut_square(square):
            square = np.pad(square, (0, 1 + len(self.variables) - len(square)))
            return square[np.ix_(entries, entries)]

        lower, upper, costs = (
            self.variables.at(name, columns).astype(float) for name in ("LB", "UB", "Obj")
        )
        types = self.variables.at("VType", columns)
        lower, upper, whole, semi = domains(types, lower, upper)
        rows = self.linear.placed()
        sides = [
            side(*each)
            for each in zip(self.linear.at("RHS", rows), self.linear.at("Sense", rows), strict=True)
        ]
        found = Problem(
            self.sense,
            self.offset,
            costs,
            cut_square(self.square)[1:, 1:],
            lower,
            upper,
            whole,
            np.array([cut(self.rows[row]) for row in rows]).reshape(len(rows), len(columns)),
            np.array([low for low, _ in sides]),
            np.array([high for _, high in sides]),
            semi,
            curves=[(name, by, affine[0], cut(affine)) for name, by, affine in self.curves],
        )
        for number in self.quadratic.placed():
            square = cut_square(self.squares[number])
            rhs, sense = (self.quadratic.values[name][number] for name in ("QRHS", "QSense"))
            found.quadratics.append((square[1:, 1:], 2 * square[0, 1:], *side(rhs, sense)))
        for number in self.general.placed():
            binary, value, row, sense = self.implications[number]
            column = int(np.searchsorted(columns, binary))
            found.indicators.append((column, value, cut(row), *side(-row[0], sense)))
        return found


def domains(types, lower, upper):
    """The bounds as they hold, which variables are integer, and which may be zero outside them."""
    whole, binary, semi = (np.isin(types, list(kinds)) for kinds in ("BIN", "B", "SN"))
    semi &= lower <= upper
    lower = np.where(binary, np.maximum(lower, 0.0), lower)
    upper = np.where(binary, np.minimum(upper, 1.0), upper)
    lower = np.where(whole, np.ceil(lower), lower)
    upper = np.where(whole, np.floor(upper), upper)
    only_zero = semi & (lower > upper)  # no whole number lies between the bounds
    lower[only_zero], upper[only_zero] = 0.0, 0.0
    return lower, upper, whole, semi & ((lower > 0.0) | (upper < 0.0))


def side(rhs, sense):
    """The lower and the upper side of a row."""
    return (-INF if sense == "<" else rhs), (INF if sense == ">" else rhs)
