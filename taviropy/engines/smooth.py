"""A model as smooth functions with sparse derivatives, for CasADi's interfaces to solvers.

Terms of one structure are one function of a few variables, differentiated once and mapped over the
columns and constants of all of them; what is linear stays a matrix.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator
from typing import Any

import casadi as ca
import numpy as np
import scipy.sparse as sp
from numpy.typing import NDArray

from ..data.quadratic import QuadraticTerms, first_ids, second_ids
from ..data.rows import Rows
from ..data.trees import CONSTANT, OPERATIONS, VARIABLE, Trees
from ..data.values import Floats
from ..data.view import NonlinearRows, View
from .structures import Structure, structures

Places = NDArray[np.intp]
_OBJECTIVE = -1  # the number of the row that is the objective
_FUNCTIONS: dict[str, Callable[..., Any]] = {
    "plus": lambda a, b: a + b,
    "minus": lambda a, b: a - b,
    "multiply": lambda a, b: a * b,
    "divide": lambda a, b: a / b,
    "pow": lambda a, b: a**b,
    "square": lambda a: a * a,
    "uminus": lambda a: -a,
    "exp": ca.exp,
    "log": ca.log,
    "sqrt": ca.sqrt,
    "sin": ca.sin,
    "cos": ca.cos,
    "tan": ca.tan,
    "abs": ca.fabs,
}
_BY_CODE = [_FUNCTIONS.get(name) for name in OPERATIONS]


class Terms:
    """Terms of one structure, one of them for each column of ``columns``, of shape (k, terms), and
    of ``constants``, of shape (q, terms). They belong to ``rows``, or all to the objective."""

    def __init__(
        self,
        expression: Callable[[Any, Any], Any],
        columns: Places,
        constants: Floats,
        rows: Places,
    ) -> None:
        self.columns, self.constants, self.rows = columns, constants, rows
        v, p = ca.SX.sym("v", columns.shape[0]), ca.SX.sym("p", constants.shape[0])
        weight = ca.SX.sym("w")
        value = ca.SX(expression(v, p))
        gradient = ca.gradient(value, v)
        hessian = ca.sparsify(ca.triu(ca.hessian(value, v)[0]))
        slopes = gradient.sparsity().row()
        curved, across = (np.array(each, int) for each in hessian.sparsity().get_triplet())
        self.slopes = np.array(slopes, int)  # which of the k variables have a derivative
        self.curved = np.stack([curved, across])  # which pairs have a second one
        self.first = ca.Function("first", [v, p], [value, _stacked(gradient, slopes)])
        self.second = ca.Function("second", [v, p, weight], [_weighted(hessian, weight)])

    @property
    def count(self) -> int:
        """How many terms there are."""
        return len(self.rows)

    @property
    def is_objective(self) -> bool:
        """Whether they belong to the objective."""
        return bool(len(self.rows) and self.rows[0] == _OBJECTIVE)


def _stacked(gradient: Any, places: list[int]) -> Any:
    return ca.vertcat(*[gradient[k] for k in places]) if places else ca.SX(0, 1)


def _weighted(hessian: Any, weight: Any) -> Any:
    entries = hessian.nonzeros()
    return ca.vertcat(*[weight * entry for entry in entries]) if entries else ca.SX(0, 1)


class Smooth:
    """``f(x, costs)`` and ``g(x)`` of a model, to be minimized within sides of g.

    The rows of g are the linear ones, the quadratic ones, then the nonlinear ones that ``kept``
    numbers. The others, ``moved``, only say what a free variable is that stands nowhere else but in
    the objective: their trees are part of f, and the variables, ``results``, of no use to it.
    Costs are a parameter: with other costs, bounds or sides the functions are the same, but for
    the results.
    """

    def __init__(self, view: View) -> None:
        self.columns = view.column_count
        self._terms: list[Terms] = []
        parts = [_matrix(view.rows, self.columns)]
        sign = float(view.sense)
        if view.quadratic_objective is not None:
            terms = view.quadratic_objective
            self._add_pairs(terms, np.full(terms.count, _OBJECTIVE), sign)
        first = view.row_count
        quadratic = view.quadratic_rows
        if quadratic is not None:
            pairs = quadratic.pairs
            terms = QuadraticTerms(first_ids(pairs), second_ids(pairs), pairs.data)
            self._add_pairs(terms, pairs.row_numbers() + first, 1.0)
            parts.append(_matrix(quadratic.rows, self.columns))
            first += quadratic.rows.count
        self.kept = self.moved = self.results = np.empty(0, np.intp)
        nonlinear = view.nonlinear
        if nonlinear is not None:
            is_moved = _defines_a_cost(view, nonlinear)
            self.kept, self.moved = np.flatnonzero(~is_moved), np.flatnonzero(is_moved)
            self.results = nonlinear.columns[self.moved]
            costs = sign * view.columns(self.results).costs
            self._add_to_objective(nonlinear.trees.take(self.moved), costs)
            for structure in structures(nonlinear.trees.take(self.kept)):
                rows = structure.numbers + first
                arrays = structure.columns, structure.constants, rows
                self._terms.append(Terms(_tree(structure), *arrays))
            columns = nonlinear.columns[self.kept]
            has_column = np.flatnonzero(columns >= 0)
            coords = has_column, columns[has_column]
            shape = len(self.kept), self.columns
            parts.append(sp.csr_array((np.full(len(has_column), -1.0), coords), shape=shape))
        if view.nonlinear_objective is not None:
            self._add_to_objective(view.nonlinear_objective, sign)
        self._linear = sp.vstack(parts, format="csr").tocoo()
        self.rows = self._linear.shape[0]
        self._make_functions()

    def _add_to_objective(self, trees: Trees, weights: Floats | float) -> None:
        weights = np.broadcast_to(weights, trees.count)
        for structure in structures(trees):
            columns, constants = structure.columns, structure.constants
            weighted = np.concatenate([constants, weights[structure.numbers][None]])
            rows = np.full(len(structure.numbers), _OBJECTIVE)
            self._terms.append(Terms(_weighted_tree(structure), columns, weighted, rows))

    def _add_pairs(self, terms: QuadraticTerms, rows: Places, sign: float) -> None:
        is_square = terms.ids1 == terms.ids2
        for chosen, count in ((is_square, 1), (~is_square, 2)):
            if chosen.any():
                columns = np.stack([terms.ids1[chosen], terms.ids2[chosen]][:count]).astype(np.intp)
                constants = sign * terms.data[chosen][None]
                self._terms.append(
                    Terms(lambda v, p: p[0] * v[0] * v[-1], columns, constants, rows[chosen])
                )

    def _make_functions(self) -> None:
        n, m = self.columns, self.rows
        x, costs = ca.MX.sym("x", n), ca.MX.sym("p", n)
        weight, multipliers = ca.MX.sym("lam_f"), ca.MX.sym("lam_g", m)
        linear = self._linear
        f, slope = ca.dot(costs, x), costs
        g = ca.mtimes(_dm(linear), x)
        jacobian = _Assembly(m, n, linear.row, linear.col, linear.data)
        hessian = _Assembly(n, n)
        for terms in self._terms:
            at = terms.columns.T.reshape(-1).tolist()
            v = ca.reshape(x[at], terms.columns.shape[0], terms.count)
            constants = ca.DM(terms.constants)
            values, slopes = terms.first.map(terms.count)(v, constants)
            columns = terms.columns[terms.slopes].T.reshape(-1)
            if terms.is_objective:
                f += ca.sum2(values)
                slope += ca.mtimes(_adder(columns, n), ca.vec(slopes))
                weights = ca.repmat(weight, 1, terms.count)
            else:
                g += ca.mtimes(_adder(terms.rows, m), values.T)
                rows = np.repeat(terms.rows, len(terms.slopes))
                jacobian.add(rows, columns, ca.vec(slopes))
                weights = multipliers[terms.rows.tolist()].T
            curved, across = (terms.columns[each].T.reshape(-1) for each in terms.curved)
            second = ca.vec(terms.second.map(terms.count)(v, constants, weights))
            hessian.add(np.minimum(curved, across), np.maximum(curved, across), second)
        at, given = [x, costs], ["x", "p"]
        g = ca.densify(g)  # an entry for rows without a term, too
        self.nlp = ca.Function("nlp", at, [f, g], given, ["f", "g"])
        self.gradient = ca.Function("nlp_grad_f", at, [f, slope], given, ["f", "grad_f_x"])
        self.jacobian = ca.Function(
            "nlp_jac_g", at, [g, jacobian.matrix()], given, ["g", "jac_g_x"]
        )
        self.hessian = ca.Function(
            "nlp_hess_l",
            [*at, weight, multipliers],
            [hessian.matrix()],
            [*given, "lam_f", "lam_g"],
            ["triu_hess_gamma_x_x"],
        )

    def is_finite_at(self, x: Floats, costs: Floats) -> bool:
        """Whether all values and first derivatives are finite at a point."""
        found = (*self.gradient(x, costs), *self.jacobian(x, costs))
        return all(np.isfinite(np.array(each.nonzeros())).all() for each in found)


class _Assembly:
    """A sparse matrix that is a sum of entries, some constant, most functions of a point."""

    def __init__(self, height: int, width: int, *constant: Any) -> None:
        self._shape = height, width
        rows, columns, data = constant if constant else (np.empty(0, int),) * 3
        self._rows, self._columns, self._data = [rows], [columns], data
        self._values: list[Any] = []

    def add(self, rows: Places, columns: Places, values: Any) -> None:
        """Entries whose values are a column of an MX."""
        if len(rows):
            self._rows.append(rows)
            self._columns.append(columns)
            self._values.append(values)

    def matrix(self) -> Any:
        """The matrix as an MX; entries at one place add up."""
        height, width = self._shape
        rows, columns = np.concatenate(self._rows), np.concatenate(self._columns)
        codes = columns.astype(np.int64) * max(height, 1) + rows
        places, where = np.unique(codes, return_inverse=True)
        column, row = np.divmod(places, max(height, 1))
        starts = np.searchsorted(column, np.arange(width + 1))
        pattern = ca.Sparsity(height, width, starts.tolist(), row.tolist())
        end = len(self._data)
        total = ca.MX(ca.DM(np.bincount(where[:end], self._data, len(places))))
        for rows, values in zip(self._rows[1:], self._values, strict=True):
            start, end = end, end + len(rows)
            total += ca.mtimes(_adder(where[start:end], len(places)), values)
        return ca.MX(pattern, total) if len(places) else ca.MX(height, width)


def _defines_a_cost(view: View, nonlinear: NonlinearRows) -> NDArray[np.bool]:
    """Which rows are ``tree == x`` where x is free and stands nowhere else but in the objective."""
    columns, trees = nonlinear.columns, nonlinear.trees
    used = [view.rows.ids, columns[columns >= 0], trees.first[trees.variables()]]
    quadratic = view.quadratic_rows
    if quadratic is not None:
        used += [quadratic.rows.ids, first_ids(quadratic.pairs), second_ids(quadratic.pairs)]
    terms = view.quadratic_objective
    if terms is not None:
        used += [terms.ids1, terms.ids2]
    objective = view.nonlinear_objective
    if objective is not None:
        used.append(objective.first[objective.variables()])
    counts = np.bincount(np.concatenate(used), minlength=view.column_count)
    bounds = view.columns()
    is_free = np.isinf(bounds.lower) & np.isinf(bounds.upper)
    is_equal = (columns >= 0) & (nonlinear.lower == nonlinear.upper)
    found: NDArray[np.bool] = is_equal & is_free[columns] & (counts[columns] == 1)
    return found


def _weighted_tree(structure: Structure) -> Callable[[Any, Any], Any]:
    """The tree of a structure, times one constant more."""
    tree = _tree(structure)
    return lambda v, p: p[p.shape[0] - 1] * tree(v, p)


def _tree(structure: Structure) -> Callable[[Any, Any], Any]:
    """The tree of a structure as a function of variables and constants."""

    def evaluate(v: Any, p: Any) -> Any:
        done: list[Any] = []
        for k, code in enumerate(structure.codes.tolist()):
            if code == VARIABLE:
                done.append(v[int(structure.variable[k])])
            elif code == CONSTANT:
                place = int(structure.parameter[k])
                done.append(p[place] if place >= 0 else float(structure.exponents[k]))
            else:
                done.append(_BY_CODE[code](*_arguments(structure, k, done)))
        return done[-1]

    return evaluate


def _arguments(structure: Structure, k: int, done: list[Any]) -> Iterator[Any]:
    for place in (int(structure.first[k]), int(structure.second[k])):
        if place >= 0:
            yield done[place]


def _matrix(rows: Rows, columns: int) -> Any:
    return sp.csr_array((rows.data, rows.ids, rows.indptr), shape=(rows.count, columns))


def _adder(places: Places, size: int) -> Any:
    """The matrix that adds entry k to place ``places[k]``."""
    count = len(places)
    return _dm(sp.csc_array((np.ones(count), (places, np.arange(count))), shape=(size, count)))


def _dm(matrix: Any) -> Any:
    by_column = sp.csc_array(matrix)
    by_column.sort_indices()
    starts, rows = by_column.indptr.tolist(), by_column.indices.tolist()
    return ca.DM(ca.Sparsity(*by_column.shape, starts, rows), by_column.data)
