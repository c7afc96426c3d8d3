"""Statements about a model as text, each with what it means in plain arrays."""

from typing import NamedTuple

import numpy as np
from shadow import DOOMED, PLACED, WAITING, as_quadratic, onehot, product

INF = float("inf")
LOWER = (0.0, 0.0, 0.0, -2.0, -2.75, 1.0, -3.5, -INF)
UPPER = (1.0, 1.5, 2.0, 4.0, 4.25, 7.5, INF, INF)
# Of variables some of which are semi-continuous: an engine doesn't take all of them.
LOWER_SEMI = (0.0, 0.0, 0.25, 1.0, 1.0, 2.0, 2.75, 0.0, -2.0, -INF)
UPPER_SEMI = (0.75, 1.0, 1.5, 2.0, 3.0, 4.25, 5.0, 7.5, 7.5, INF, -1.0, 2e5)
BOUNDS = {"semi": (LOWER_SEMI, UPPER_SEMI), "curves": (LOWER[:-1], UPPER[:-2])}  # by world

TYPES = {
    "lp": "C",
    "qp": "C",
    "mip": "CIB",
    "miqp": "CCIB",
    "indicators": "CCBI",
    "all": "CCIBSN",
    "semi": "SNSNCIB",
    "curves": "CCCI",
}
CHANGES = {
    "variables": {"LB": LOWER, "UB": UPPER, "Obj": (-2.0, 0.0, 1.0, 1.5), "Start": (0.0, 1.0, np.nan)},
    "linear": {"RHS": (-2.0, -1.0, 0.0, 1.5, 4.0), "Sense": ("<", ">", "=")},
    "quadratic": {"QRHS": (0.0, 1.5, 4.0)},
}  # fmt: skip
OPTIONS = (
    ("seed", 3), ("threads", 1), ("presolve", "off"), ("presolve", "on"), ("timeLimit", 20.0),
    ("solver", "simplex"), ("separating/maxrounds", 0), ("separating/maxrounds", -1),
)  # fmt: skip
REFUSED = (
    "m.setObjective(nan)", "m.addVar(lb=nan)", "m.addMVar(2, vtype=['C', 'X'])",
    "m.addConstr({x} <= nan)", "m.addConstr({x} <= 1, name=3)", "m.setOption('gap', -1.0)",
    "{x}.Obj = inf", "m.setObjective({x} * 1.0, 'most')", "m.ObjSense = 'most'",
    "m.remove([{x}, 3])", "{x}.LB = nan", "{x}.VType = 'X'", "m.NumVars = 3",
    "m.addConstr(tv.Model().addVar() <= 1)", "m.addGenConstrIndicator({x}, 2, {x} <= 1)",
)  # fmt: skip


class Affine(NamedTuple):
    """An affine expression: its text, its array, and whether it is a matrix expression."""

    text: str
    array: np.ndarray
    is_matrix: bool

    @property
    def shape(self):
        """The shape of the expression."""
        return self.array.shape[:-1]


class Block(NamedTuple):
    """A handle, or a matrix of them, by its name among the statements, and the elements' numbers."""

    text: str
    numbers: np.ndarray
    is_matrix: bool


def numbers(values):
    """An array, or a number, as text."""
    values = np.asarray(values)
    return f"np.array({values.tolist()})" if values.ndim else repr(values.item())


class Writer:
    """Draws statements at random. `blocks` are those of the variables."""

    def __init__(self, shadow, blocks):
        self.shadow, self.blocks = shadow, blocks
        self.begin(0)

    def begin(self, seed):
        """Start a statement; few of them use variables that are to be removed."""
        self.rng = np.random.default_rng(seed)
        self.usable = (WAITING, PLACED, DOOMED) if self.chance(0.1) else (WAITING, PLACED)
        return self

    def chance(self, probability):
        """True so often."""
        return self.rng.random() < probability

    def pick(self, values):
        """One of a sequence."""
        return values[self.rng.integers(len(values))]

    def data(self, shape, zeros=0.3):
        """Halves from -3 to 3, some of them zero."""
        found = self.rng.integers(-6, 7, shape) / 2.0
        return np.where(self.rng.random(shape) < zeros, 0.0, found)

    def some(self, values, shape):
        """An array of some of the values, or one of them, that broadcasts to the shape."""
        if self.chance(0.4) or shape is None:
            return self.pick(values)
        return np.array(list(values))[self.rng.integers(len(values), size=shape)]

    def columns(self, shape, types, lower=LOWER, upper=UPPER):
        """Bounds, costs and types of new variables."""
        vtype = self.some(types, shape)
        lb, ub = self.some(lower, shape), self.some(upper, shape)
        if self.chance(0.95):  # else they may cross
            ub = np.maximum(lb, ub)
        return lb, ub, self.data(shape or ()), vtype

    # Parts of blocks

    def selection(self, table, blocks, *states, repeated=False):
        """A block, or a part of one, whose elements are all in one of the states; None if none."""
        for at in self.rng.permutation(len(blocks)):
            block = blocks[at]
            fits = np.array([table.are(n, *states) for n in block.numbers.ravel()], bool)
            if fits.any():
                return self._part(block, fits.reshape(block.numbers.shape), repeated)
        return None

    def _part(self, block, fits, repeated):
        text, ids, is_matrix = block
        if not is_matrix or not ids.ndim or (fits.all() and self.chance(0.4)):
            return block
        if ids.ndim != 1:
            if not fits.all():
                index = tuple(int(k) for k in self.pick(np.argwhere(fits)))
                return Block(f"{text}[{', '.join(map(str, index))}]", ids[index], True)
            what = self.pick(
                ("[0]", "[:, -1]", "[::-1]", *(("[:, [0, 0]]", ".T") if repeated else ()))
            )
            return Block(text + what, eval("ids" + what, {"ids": ids}), True)
        if fits.all() and len(ids) > 1 and self.chance(0.4):
            what = self.pick(("[::-1]", "[1:]", "[:-1]", "[::2]", "[0]"))
            return Block(text + what, eval("ids" + what, {"ids": ids}), True)
        at = np.flatnonzero(fits)
        size = self.rng.integers(1, len(at) + 2) if repeated else self.rng.integers(1, len(at) + 1)
        at = self.rng.choice(at, size, replace=repeated)
        return Block(f"{text}[{at.tolist()}]", ids[at], True)

    # Affine expressions

    def leaf(self):
        """Variables."""
        found = self.selection(self.shadow.variables, self.blocks, *self.usable, repeated=True)
        if found is None:
            return None
        array = onehot(found.numbers, len(self.shadow.variables))
        return Affine(found.text, array, found.is_matrix)

    def affine(self, depth=3):
        """An affine expression; None where there is no variable."""
        found = self.leaf()
        for _ in range(self.rng.integers(depth + 1)):
            if found is not None:
                found = self._more(found)
        return found

    def _more(self, of):
        text, array, is_matrix = of
        kind = self.pick(("scale", "constant", "matmul", "add", "sum", "part", "stack", "each"))
        if kind == "scale":
            factor = self.pick((-1.0, 2.0, 0.5, -1.5))
            return Affine(
                self.pick((f"{factor} * ({text})", f"({text}) * {factor}")),
                factor * array,
                is_matrix,
            )
        if kind in ("add", "stack"):
            other = self.leaf()
            if (
                kind == "stack"
                and of.is_matrix
                and other.is_matrix
                and array.ndim == other.array.ndim == 2
            ):
                return Affine(
                    f"tv.hstack([{text}, {other.text}])", np.concatenate([array, other.array]), True
                )
            sign, apply = self.pick((("+", np.add), ("-", np.subtract)))
            try:
                total = apply(array, other.array)
            except ValueError:  # the shapes don't broadcast
                return of
            return Affine(f"({text}) {sign} ({other.text})", total, is_matrix or other.is_matrix)
        constant = self.data(of.shape)
        if kind == "constant" or not is_matrix:
            total = array.copy()
            total[..., 0] += constant
            return Affine(f"({text}) + {numbers(constant)}", total, is_matrix)
        if kind == "sum":
            return Affine(f"({text}).sum()", array.reshape(-1, array.shape[-1]).sum(0), True)
        if kind == "each":
            return Affine(f"{numbers(constant)} * ({text})", constant[..., None] * array, True)
        if array.ndim != 2 or not len(array):
            return of
        if kind == "part":
            return Affine(f"({text})[::-1]", array[::-1], True)
        matrix = self.data((self.rng.integers(1, 4), len(array)))
        words = numbers(matrix)
        if self.chance(0.4):
            words = f"sp.{self.pick(('csr_array', 'coo_array', 'csc_matrix'))}({words})"
        return Affine(f"{words} @ ({text})", matrix @ array, True)

    def comparison(self):
        """A linear comparison: its text, left minus right, its sense, whether it is a matrix."""
        left = self.affine()
        if left is None:
            return None
        sense = self.pick(("<", "<", ">", ">", "="))
        word = {"<": "<=", ">": ">=", "=": "=="}[sense]
        if self.chance(0.25):
            right = self.affine(1)
            try:
                difference = left.array - right.array
            except ValueError:
                return None
            text = f"({left.text}) {word} ({right.text})"
            if right.is_matrix and not left.is_matrix:  # the matrix expression compares
                difference, sense = -difference, {"<": ">", ">": "<", "=": "="}[sense]
            return text, difference, sense, left.is_matrix or right.is_matrix
        shape = left.shape if self.chance(0.6) else ()
        rhs = self.data(shape, 0.1) * self.pick((1.0, 2.0))
        if self.chance(0.7):  # rather one that the origin satisfies
            rhs = np.abs(rhs) * {"<": 1.0, ">": -1.0, "=": 0.5}[sense]
        difference = left.array.copy()
        difference[..., 0] -= rhs
        turned = {"<": ">=", ">": "<=", "=": "=="}[sense]
        text = f"({left.text}) {word} {numbers(rhs)}"
        if self.chance(0.2):
            text = f"{numbers(rhs)} {turned} ({left.text})"
        return text, difference, sense, left.is_matrix

    # Quadratic expressions

    def quadratic(self, sense, convex):
        """A quadratic expression without a shape: its text, its matrix, whether it is a matrix
        expression; None where there is no variable. Where it is to be convex, times `sense`."""
        first, line = self.affine(1), self.affine(2)
        if first is None:
            return None
        weight = sense * self.pick((0.5, 1.0, 2.0)) * (1 if convex or self.chance(0.5) else -1)
        second = first if convex or self.chance(0.4) else self.affine(1)
        if second.array.shape != first.array.shape:
            second = first
        one, two = f"({first.text})", f"({second.text})"
        forms = (
            [f"{one} * {two}"]
            if not first.is_matrix or not first.shape
            else [f"({one} * {two}).sum()"]
        )
        is_vector = len(first.shape) == 1 and first.is_matrix and second.is_matrix
        if is_vector:
            forms.append(f"{one} @ {two}")
        if first is second:
            forms.append(f"({one} ** 2)" + (".sum()" if first.is_matrix and first.shape else ""))
        square = weight * product(first.array, second.array)
        text = f"{weight} * ({self.pick(forms)})"
        if is_vector and self.chance(0.4):
            root = self.data((2, len(first.array)), 0.2)
            middle = weight * root.T @ root if convex else self.data((len(first.array),) * 2)
            square = product(middle.T @ first.array, second.array)
            text = f"{one} @ {numbers(middle)} @ {two}"
        if line.is_matrix and line.shape:
            line = Affine(
                f"({line.text}).sum()", line.array.reshape(-1, line.array.shape[-1]).sum(0), True
            )
        is_matrix = first.is_matrix or second.is_matrix or line.is_matrix
        return f"{text} + ({line.text})", square + as_quadratic(line.array), is_matrix

    # Nonlinear objectives

    def curved(self):
        """A function's sum, and variables: the text, and curves; None where there is no variable."""
        inner, outer = self.leaf(), self.leaf()
        if inner is None:
            return None
        name, by, at = self.pick(("exp", "sin", "cos")), self.pick((-1.0, 0.5, 2.0)), self.data(())
        text = f"tv.{name}(0.5 * {inner.text} + {at})" + ".sum()" * inner.is_matrix
        curves = []
        for row in inner.array.reshape(-1, inner.array.shape[-1]):
            row = 0.5 * row
            row[0] = at
            curves.append((name, by, row))
        total = outer.array.reshape(-1, outer.array.shape[-1]).sum(0)
        text = f"{by} * {text} + {outer.text}" + ".sum()" * outer.is_matrix
        return text, [*curves, ("linear", 1.0, total)]
