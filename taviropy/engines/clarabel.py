"""Clarabel: convex quadratic objectives and constraints, and linear models."""

from __future__ import annotations

from contextlib import suppress
from time import perf_counter
from typing import Any, NamedTuple

import clarabel
import numpy as np
import scipy.sparse as sp

from .._tvo import TVO
from ..data.changes import Changes
from ..data.values import Floats, Ids
from ..data.view import View
from .certificates import has_ray
from .cones import Cone, cones_of, in_cone
from .convexity import is_convex
from .factor import NotConvex
from .optimality import ConvexProgram, largest, scales
from .protocol import Answer, Run
from .reach import warn_of_open
from .running import News, as_type

_INFINITY = 1e20  # what it takes for infinite
_SMALL_ERROR, _TOLERABLE_ERROR = 5e-7, 1e-5  # as `ConvexProgram.error` measures them
# One digit more than Clarabel asks for by itself: complementarity is worse than the gap.
_TOLERANCES = {"tol_gap_abs": 1e-9, "tol_gap_rel": 1e-9, "tol_feas": 1e-9}
_CERTAIN = 1e-6  # what rays may miss
_ENDED_EARLY = {
    "MaxTime": TVO.Status.TIME_LIMIT,
    "CallbackTerminated": TVO.Status.INTERRUPTED,
}
# A problem of no rows that any settings can be tried on.
_TINY: Any = (sp.csc_matrix((1, 1)), np.zeros(1), sp.csc_matrix((0, 1)), np.empty(0), [])
_WITH_POINT = ("Solved", "AlmostSolved", "InsufficientProgress", "MaxIterations")


class ClarabelEngine:
    """Clarabel, an interior-point solver for cones; the problem is built anew at each load."""

    title = "Clarabel"

    def __init__(self) -> None:
        self._problem: Problem | None = None

    @classmethod
    def refuses(cls, view: View, final: bool) -> str:
        """Why Clarabel can't take a model; whether it is convex is found out where it is final."""
        if view.nonlinear_objective is not None:
            return "its objective is nonlinear"
        if view.general_count:
            return f"'{view.general_name(0)}' is a general constraint"
        if view.has_integers:
            return view.first_integer()
        if view.quadratic_objective is not None and not is_convex(view, final):
            return "its quadratic objective is not convex"
        if final and view.quadratic_count:
            try:
                cones_of(view)
            except NotConvex as error:
                return str(error)
        return ""

    @classmethod
    def option_names(cls) -> list[str]:
        """The names of Clarabel's settings."""
        names = dir(clarabel.DefaultSettings())
        return [name for name in names if name[0] != "_" and name not in ("default", "verbose")]

    @classmethod
    def checked_option(cls, name: str, value: object) -> object:
        """`value` as the type of a setting, ValueError where it doesn't fit."""
        settings = quiet_settings()
        kind = type(getattr(settings, name))
        if kind is list:
            raise ValueError("nothing: it belongs to a solver that isn't part of Clarabel's wheel")
        converted = as_type(kind, value)
        if kind is float and converted < 0.0:
            raise ValueError("a number of at least 0")
        try:
            setattr(settings, name, converted)
            clarabel.DefaultSolver(*_TINY, settings)
        except OverflowError:
            raise ValueError("an integer from 0 to 2**32 - 1") from None
        except Exception as error:  # Clarabel has no other kind
            raise ValueError(f"what Clarabel allows (it says: {error})") from None
        return converted

    def load(self, view: View, changes: Changes | None) -> None:
        """Build the problem."""
        self._problem = None
        bounds = view.columns()
        for sides in (bounds.lower, bounds.upper):
            warn_of_open(self.title, _INFINITY, sides, "bound", view.column_name)
        for sides in view.sides():
            warn_of_open(self.title, _INFINITY, sides, "side", view.row_name)
        with suppress(NotConvex):  # solve() isn't called where nobody knows that it is convex
            self._problem = Problem(view)

    def close(self) -> None:
        """Release the problem."""
        self._problem = None

    def solve(self, view: View, run: Run) -> Answer:
        """Solve what is loaded; no answer is taken on trust."""
        problem, deadline = self._problem, perf_counter() + run.time_limit
        assert problem is not None
        solution = problem.run(run, run.time_limit)
        status = str(solution.status)
        if status in _ENDED_EARLY:
            return Answer(_ENDED_EARLY[status])
        if status in _WITH_POINT:
            answer = problem.answer(solution, run)
            if answer is not None:
                return answer
        if problem.proves_no_point(solution):
            return Answer(TVO.Status.INFEASIBLE)
        return Answer(_settled(problem, solution, run, deadline))


def quiet_settings() -> Any:
    settings = clarabel.DefaultSettings()
    settings.verbose = False
    return settings


def _settled(problem: Problem, solution: Any, run: Run, deadline: float) -> int:
    """The status of a model that came to no optimum, after a look for a feasible point."""
    run.log.line("There is no optimum so far: looking for a feasible point.")
    found = problem.run(run, max(deadline - perf_counter(), 0.0), feasibility=True)
    status = str(found.status)
    if status in _ENDED_EARLY:
        return _ENDED_EARLY[status]
    if problem.proves_no_point(found):
        return TVO.Status.INFEASIBLE
    if problem.is_ray(solution, deadline - perf_counter()):
        has_point = status in ("Solved", "AlmostSolved")
        return TVO.Status.UNBOUNDED if has_point else TVO.Status.INFEASIBLE_OR_UNBOUNDED
    return TVO.Status.FAILED


class _Section(NamedTuple):
    """Rows of the problem: sides of the model's rows or columns with these numbers.

    Their multipliers are `sign` times the problem's, positive where they push from below.
    """

    is_row: bool
    places: Ids
    sign: float
    matrix: Any
    sides: Floats


def _sections(is_row: bool, matrix: Any, lower: Floats, upper: Floats) -> list[_Section]:
    """Equations, upper sides and lower sides."""
    equal = lower == upper
    above, below = ~equal & (upper < _INFINITY), ~equal & (lower > -_INFINITY)
    found = []
    for chosen, sign, sides in ((equal, -1.0, upper), (above, -1.0, upper), (below, 1.0, lower)):
        places = np.flatnonzero(chosen)
        part = -sign * matrix[places]
        found.append(_Section(is_row, places, sign, part, -sign * sides[places]))
    return found


class Problem:
    """Minimize ``x'Px/2 + q'x`` with ``h - G x`` in a product of cones; all of it scaled."""

    def __init__(self, view: View) -> None:
        self.program = program = ConvexProgram(view)
        size, units = view.column_count, sp.diags_array(program.units)
        self._hessian = sp.triu(units @ program.hessian @ units, format="csc")
        self._costs = program.units * program.costs
        # Clarabel's tolerances are absolute too: a tiny objective is stretched.
        top = max(abs(self._costs).max(initial=0.0), abs(self._hessian).max() if size else 0.0)
        self._stretch = max(1.0, float(scales(np.array(top))))
        self._hessian, self._costs = self._stretch * self._hessian, self._stretch * self._costs
        scaled = (sp.diags_array(program.row_scales) @ program.matrix @ units).tocsr()
        low, high = (program.row_scales * side for side in program.row_bounds)
        of_rows = _sections(True, scaled, low, high)
        low, high = (bound / program.units for bound in program.column_bounds)
        of_columns = _sections(False, sp.eye_array(size, format="csr"), low, high)
        equations = [of_rows[0], of_columns[0]]
        self._equations = sum(len(section.places) for section in equations)
        inequalities = [*of_rows[1:], *of_columns[1:]]
        self._sections = equations + inequalities
        self._kinds = []
        for kind, sections in (
            (clarabel.ZeroConeT, equations),
            (clarabel.NonnegativeConeT, inequalities),
        ):
            count = sum(len(section.places) for section in sections)
            if count:
                self._kinds.append(kind(count))
        self.cones = cones_of(view)
        self._kinds += [clarabel.SecondOrderConeT(cone.dimension) for cone in self.cones]
        blocks = [section.matrix for section in self._sections]
        if self.cones:
            blocks.append(_stacked(self.cones, size) @ units)
        self._matrix = sp.csc_matrix(sp.vstack(blocks))
        of_cones = [cone.sides for cone in self.cones]
        self._sides = np.concatenate([section.sides for section in self._sections] + of_cones)

    def run(self, run: Run, seconds: float, feasibility: bool = False) -> Any:
        """Clarabel's solution within so many seconds; for `feasibility` there is no objective."""
        settings = quiet_settings()
        for name, value in _TOLERANCES.items():
            setattr(settings, name, value)
        if run.threads is not None:
            settings.max_threads = run.threads
        for name, value in run.options.items():
            setattr(settings, name, value)
        settings.time_limit = min(settings.time_limit, seconds)
        keep = 0.0 if feasibility else 1.0
        solver = clarabel.DefaultSolver(
            sp.csc_matrix(keep * self._hessian),
            keep * self._costs,
            self._matrix,
            self._sides,
            self._kinds,
            settings,
        )
        listener = _Listener(run, self.program.sign / self._stretch)
        run.log.line(self._text())
        solver.set_termination_callback(listener)
        solution = solver.solve()
        listener.end(solution)
        return solution

    def _text(self) -> str:
        return (
            f"Clarabel {clarabel.__version__}: {self._matrix.shape[1]} variables, "
            f"{len(self._sides)} rows, {len(self.cones)} of {len(self._kinds)} cones of second "
            f"order, {self._matrix.nnz} + {self._hessian.nnz} nonzeros"
        )

    def proves_no_point(self, solution: Any) -> bool:
        """Whether Clarabel says that the problem has no point, and its multipliers show it."""
        if str(solution.status) not in ("PrimalInfeasible", "AlmostPrimalInfeasible"):
            return False
        z = self._in_cones(np.array(solution.z))
        pull, sides = abs(self._matrix.T @ z), self._sides * z
        is_level = bool((pull <= _room(self._matrix.T, z)).all())
        return is_level and bool(sides.sum() < -_CERTAIN * abs(sides).sum())

    def is_ray(self, solution: Any, seconds: float) -> bool:
        """Whether Clarabel says that the objective has no end, and its direction shows it.

        Without cones another one is looked for where its own isn't good enough.
        """
        if str(solution.status) not in ("DualInfeasible", "AlmostDualInfeasible"):
            return False
        ray = np.array(solution.x)
        change = -(self._matrix @ ray)
        missed = abs(change)
        missed[self._equations :] = abs(self._in_cones(change) - change)[self._equations :]
        hessian = self._hessian + sp.triu(self._hessian, 1).T
        is_flat = bool((abs(hessian @ ray) <= _room(hessian, ray)).all())
        falls = self._costs @ ray < -_CERTAIN * (abs(self._costs) @ abs(ray))
        if is_flat and falls and (missed <= _room(self._matrix, ray)).all():
            return True
        return not self.cones and has_ray(self.program, seconds)

    def answer(self, solution: Any, run: Run) -> Answer | None:
        """The point as answer to the model, judged by the model's own data; None for a bad one."""
        program, sign = self.program, self.program.sign
        x = program.within_bounds(program.units * np.array(solution.x))
        z = np.array(solution.z) / self._stretch
        rows = self.row_multipliers(z)
        of_cones = self.cone_multipliers(z)
        pull, gap = np.zeros(len(x)), 0.0
        for cone, part in zip(self.cones, of_cones, strict=True):
            np.subtract.at(pull, cone.columns, cone.data * part[cone.rows])
            gap += max(float(cone.values(x) @ part), 0.0)
        error = program.error(x, rows, pull, gap)
        if error > _SMALL_ERROR:
            run.log.line(f"The answer's error is {error:.1e}.")
        if error > _TOLERABLE_ERROR:
            return None
        activity: Floats = program.matrix @ x
        quadratic = [
            cone.multiplier(x, part, program.units)
            for cone, part in zip(self.cones, of_cones, strict=True)
        ]
        return Answer(
            TVO.Status.OPTIMAL,
            x,
            row_values=lambda: activity,
            reduced_costs=sign * program.reduced_costs(x, rows, pull),
            row_duals=sign * rows,
            quadratic_duals=sign * np.array(quadratic),
            iterations=solution.iterations,
        )

    def row_multipliers(self, z: Floats) -> Floats:
        """Those of the linear rows, positive where they push from below."""
        place, rows = 0, np.zeros(self.program.matrix.shape[0])
        for section in self._sections:
            end = place + len(section.places)
            if section.is_row:
                rows[section.places] += section.sign * z[place:end]
            place = end
        return rows * self.program.row_scales

    def _in_cones(self, values: Floats) -> Floats:
        """One value a row, those of inequalities and cones moved to where they may be."""
        place = len(values) - sum(cone.dimension for cone in self.cones)
        free, signed = values[: self._equations], values[self._equations : place]
        return np.concatenate([free, np.maximum(signed, 0.0), *self.cone_multipliers(values)])

    def cone_multipliers(self, z: Floats) -> list[Floats]:
        place = len(z) - sum(cone.dimension for cone in self.cones)
        found = []
        for cone in self.cones:
            found.append(in_cone(z[place : place + cone.dimension]))
            place += cone.dimension
        return found


def _room(matrix: Any, ray: Floats) -> Floats:
    """What the product with a ray may miss, relative to its largest terms."""
    return _CERTAIN * abs(ray).max(initial=0.0) * largest(matrix)


def _stacked(cones: list[Cone], columns: int) -> Any:
    """The matrices of all cones, one below the other."""
    starts = np.cumsum([0, *(cone.dimension for cone in cones)])
    rows = np.concatenate([cone.rows + start for cone, start in zip(cones, starts, strict=False)])
    coords = rows, np.concatenate([cone.columns for cone in cones])
    data = np.concatenate([cone.data for cone in cones])
    return sp.coo_array((data, coords), shape=(int(starts[-1]), columns)).tocsr()


class _Listener:
    """Called in each iteration: writes the log, and stops where the user wants it."""

    def __init__(self, run: Run, sign: float) -> None:
        self._run = run
        self._sign = sign
        self._error: BaseException | None = None
        run.log.line("iteration    objective         bound             gap       residual  seconds")

    def __call__(self, info: Any) -> bool:
        try:
            self._tell(info)
        except BaseException as error:  # Clarabel would swallow it
            self._error = error
            return True
        return bool(self._run.stop)

    def _tell(self, info: Any) -> None:
        if self._run.reporter.is_due:
            self._run.reporter.tell(News(iterations=info.iterations))
        residual = max(info.res_primal, info.res_dual)
        self._run.log.line(
            f"{info.iterations:9d}  {self._sign * info.cost_primal:16.9e}  "
            f"{self._sign * info.cost_dual:16.9e}  {info.gap_rel:8.1e}  {residual:8.1e}  "
            f"{info.solve_time:7.2f}"
        )

    def end(self, solution: Any) -> None:
        """After the run: raise what was carried out of the callback."""
        self._run.log.line(f"Clarabel says: {solution.status}")
        if self._error is not None:
            raise self._error
