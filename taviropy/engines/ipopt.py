"""Ipopt, by way of CasADi: large smooth models, whose answers are local ones.

A. Waechter, L. T. Biegler, On the implementation of an interior-point filter line-search algorithm
for large-scale nonlinear programming, Mathematical Programming 106 (2006).
"""

from __future__ import annotations

from time import perf_counter
from typing import Any

import casadi as ca
import numpy as np

from .._tvo import TVO
from ..data.changes import Changes
from ..data.values import Floats
from ..data.view import View
from .convexity import is_convex
from .protocol import Answer, Run
from .running import News
from .smooth import Smooth

_STATUSES = {
    "Solve_Succeeded": TVO.Status.LOCALLY_OPTIMAL,
    "Solved_To_Acceptable_Level": TVO.Status.LOCALLY_OPTIMAL,
    "Feasible_Point_Found": TVO.Status.LOCALLY_OPTIMAL,
    "Infeasible_Problem_Detected": TVO.Status.LOCALLY_INFEASIBLE,
    "Diverging_Iterates": TVO.Status.INFEASIBLE_OR_UNBOUNDED,
    "User_Requested_Stop": TVO.Status.INTERRUPTED,
    "Maximum_Iterations_Exceeded": TVO.Status.INTERRUPTED,
    "Maximum_CpuTime_Exceeded": TVO.Status.TIME_LIMIT,
    "Maximum_WallTime_Exceeded": TVO.Status.TIME_LIMIT,
}
_SETTINGS = [
    "acceptable_constr_viol_tol",
    "acceptable_iter",
    "acceptable_tol",
    "bound_frac",
    "bound_push",
    "bound_relax_factor",
    "compl_inf_tol",
    "constr_viol_tol",
    "diverging_iterates_tol",
    "dual_inf_tol",
    "hessian_approximation",
    "limited_memory_max_history",
    "linear_solver",
    "max_cpu_time",
    "max_iter",
    "max_wall_time",
    "mu_init",
    "mu_max",
    "mu_min",
    "mu_oracle",
    "mu_strategy",
    "nlp_scaling_method",
    "obj_scaling_factor",
    "tol",
    "warm_start_init_point",
]
_COMPLEMENTARY = 1e-5  # what moving to the sides that multipliers push from may bring, relatively
_FEASIBLE = 1e-6  # by what a row may miss its sides, relative to them
_WARM = {
    "ipopt.warm_start_init_point": "yes",
    "ipopt.mu_init": 1e-7,
    **{
        f"ipopt.{name}": 1e-9
        for name in (
            "warm_start_bound_push",
            "warm_start_mult_bound_push",
            "warm_start_slack_bound_push",
            "bound_push",
        )
    },
}
_STARTS = (0.5, 0.1, 0.9, 0.01, 0.99)  # fractions of the bounds that are tried
_LOCAL = "a local answer proves no bound"
Point = tuple[Floats, Floats, Floats]  # with multipliers of bounds and rows


class IpoptEngine:
    """Ipopt as the engine of a model; its functions are kept while only data change."""

    title = "Ipopt"

    def __init__(self) -> None:
        self._smooth: Smooth | None = None
        self._quadratic: object = None
        self._last: Point | None = None

    @classmethod
    def refuses(cls, view: View, final: bool) -> str:
        """Why Ipopt can't take a model."""
        if view.has_integers:
            return view.first_integer()
        indicators = view.indicators
        if indicators is not None:
            name = view.general_name(int(indicators.places[0]))
            return f"'{name}' is an indicator constraint"
        return ""

    @classmethod
    def option_names(cls) -> list[str]:
        """The names of the more common of Ipopt's options."""
        return _SETTINGS

    @classmethod
    def checked_option(cls, name: str, value: Any) -> object:
        """`value` as Ipopt takes it, ValueError where it doesn't."""
        x = ca.MX.sym("x")
        if isinstance(value, np.generic):
            value = value.item()
        for converted in (value, float(value) if type(value) is int else value):
            options = {f"ipopt.{name}": converted, **_quiet()}
            try:
                ca.nlpsol("check", "ipopt", {"x": x, "f": x}, options)
            except (RuntimeError, NotImplementedError, TypeError):
                continue
            return converted
        raise ValueError("a value that Ipopt takes")

    def load(self, view: View, changes: Changes | None) -> None:
        """Make the functions, where more than costs, bounds and sides changed."""
        if changes is not None and self._is_same(view, changes):
            return
        self._smooth, self._last = Smooth(view), None
        self._quadratic = view.quadratic_version, view.sense

    def _is_same(self, view: View, changes: Changes) -> bool:
        return (
            self._smooth is not None
            and changes.kept_columns is None
            and changes.kept_rows is None
            and not changes.higher
            and not len(changes.entries.values)
            and changes.first_column == view.column_count
            and changes.first_row == view.row_count
            and not np.isin(self._smooth.results, changes.bounds).any()
            and not np.isin(self._smooth.results, changes.costs).any()
            and self._quadratic == (view.quadratic_version, view.sense)
        )

    def close(self) -> None:
        """Release the functions."""
        self._smooth = self._last = None

    def solve(self, view: View, run: Run) -> Answer:
        """Solve what is loaded, from the last answer where there is one and the user gave no other
        start."""
        attempt = _Attempt(self._smooth, view, run)
        start = view.start
        has_start = start is not None and bool(np.isfinite(start).any())
        found = None
        if self._last is not None and not has_start:
            found = attempt.solve(self._last, _WARM)
            if found[1] == "Solve_Succeeded" and not attempt.is_complementary(found[0]):
                found = None  # Ipopt takes old multipliers for good where a bound has moved
        if found is None or not (found[1] == "Solve_Succeeded" or run.stop):
            found = attempt.solve((attempt.start(start), np.empty(0), np.empty(0)), {})
        point, word, iterations = found
        answer = attempt.answer(point, word)
        answer.iterations = iterations
        self._last = point if word == "Solve_Succeeded" else None
        return answer


class _Attempt:
    """One solve: the data of the model that may change from one to the next."""

    def __init__(self, smooth: Smooth | None, view: View, run: Run) -> None:
        assert smooth is not None
        self._smooth, self._view, self._run = smooth, view, run
        self._deadline = perf_counter() + run.time_limit
        self._sign = float(view.sense)
        columns = view.columns()
        self._costs = self._sign * columns.costs
        self._lower, self._upper = columns.lower.copy(), columns.upper.copy()
        # What only says what the objective is takes no part.
        self._costs[smooth.results] = 0.0
        self._lower[smooth.results] = self._upper[smooth.results] = 0.0
        sides = [view.sides()]
        quadratic, nonlinear = view.quadratic_rows, view.nonlinear
        if quadratic is not None:
            sides.append((quadratic.lower, quadratic.upper))
        if nonlinear is not None:
            sides.append((nonlinear.lower[smooth.kept], nonlinear.upper[smooth.kept]))
        self._below, self._above = (np.concatenate(each) for each in zip(*sides, strict=True))

    def start(self, given: Floats | None) -> Floats:
        """The user's start; elsewhere the middle of finite bounds, one inside the only bound, or 0.

        Where something isn't finite there, other places between the bounds are tried.
        """
        for fraction in _STARTS:
            x = self._between(fraction)
            if given is not None:
                x = np.where(np.isfinite(given), given, x)
            if self._smooth.is_finite_at(x, self._costs):
                return x
        return x

    def _between(self, fraction: float) -> Floats:
        lower, upper = self._lower, self._upper
        has_lower, has_upper = np.isfinite(lower), np.isfinite(upper)
        low, high = np.where(has_lower, lower, 0.0), np.where(has_upper, upper, 0.0)
        step = 2.0 * fraction
        one_sided = np.where(has_lower, np.maximum(low + step, 0.0), np.minimum(high - step, 0.0))
        inside = low + fraction * (high - low)
        free = np.full(len(lower), step - 1.0)
        return np.where(
            has_lower & has_upper, inside, np.where(has_lower | has_upper, one_sided, free)
        )

    def solve(self, start: Point, more: dict[str, Any]) -> tuple[Point, str, int]:
        """A point, Ipopt's word on it, and how many iterations it took."""
        smooth, run = self._smooth, self._run
        listener = _Listener(smooth, run, self._sign, self._view.offset)
        options = {
            "error_on_fail": False,
            "no_nlp_grad": True,
            "calc_lam_p": False,
            "grad_f": smooth.gradient,
            "jac_g": smooth.jacobian,
            "hess_lag": smooth.hessian,
            "iteration_callback": listener,
            **_quiet(),
            **more,
            **{f"ipopt.{name}": value for name, value in run.options.items()},
        }
        left = self._deadline - perf_counter()
        if left < np.inf:
            options["ipopt.max_wall_time"] = max(left, 1e-3)
        solver = ca.nlpsol("solver", "ipopt", smooth.nlp, options)
        x, of_bounds, of_rows = start
        multipliers = {"lam_x0": of_bounds, "lam_g0": of_rows} if len(of_bounds) else {}
        found = solver(
            x0=x,
            p=self._costs,
            lbx=self._lower,
            ubx=self._upper,
            lbg=self._below,
            ubg=self._above,
            **multipliers,
        )
        listener.end()
        told = solver.stats()
        point = tuple(np.array(found[name]).reshape(-1) for name in ("x", "lam_x", "lam_g"))
        run.log.line(f"Ipopt says: {told['return_status']}")
        return point, told["return_status"], int(told["iter_count"])  # type: ignore[return-value]

    def is_complementary(self, point: Point) -> bool:
        """Whether the multipliers push from sides that the point is at."""
        x, of_bounds, of_rows = point
        objective, values = self._smooth.nlp(x, self._costs)
        gap = 0.0
        for at, multipliers, lower, upper in (
            (x, of_bounds, self._lower, self._upper),
            (np.array(values).reshape(-1), of_rows, self._below, self._above),
        ):
            room = np.where(multipliers > 0.0, upper - at, at - lower)
            gap += float(abs(multipliers) @ np.clip(room, 0.0, 1.0 + abs(at)))
        return gap <= _COMPLEMENTARY * (1.0 + abs(float(objective)))

    def answer(self, point: Point, word: str) -> Answer:
        """What a point and Ipopt's word on it come to."""
        x, of_bounds, of_rows = point
        x = np.clip(x, self._lower, self._upper)
        view, status = self._view, _STATUSES.get(word, TVO.Status.FAILED)
        values = np.array(self._smooth.nlp(x, self._costs)[1]).reshape(-1)
        is_feasible = self._is_feasible(values)
        if status == TVO.Status.LOCALLY_OPTIMAL:
            if not is_feasible:
                status = TVO.Status.FAILED
            elif word == "Solve_Succeeded" and self._is_convex():
                status = TVO.Status.OPTIMAL
        answer = Answer(status)
        if status != TVO.Status.OPTIMAL:
            answer.missing = dict.fromkeys(("Bound", "Gap"), _LOCAL)
        with_point = (TVO.Status.OPTIMAL, TVO.Status.LOCALLY_OPTIMAL)
        with_more = (*with_point, TVO.Status.TIME_LIMIT, TVO.Status.INTERRUPTED)
        if status not in with_more or not is_feasible:
            return answer
        answer.x = self._with_results(x)
        if status in with_point:
            rows, quadratic = view.row_count, view.row_count + view.quadratic_count
            answer.reduced_costs = -self._sign * of_bounds
            answer.row_duals = -self._sign * of_rows[:rows]
            answer.quadratic_duals = -self._sign * of_rows[rows:quadratic]
        return answer

    def _with_results(self, x: Floats) -> Floats:
        """The point with the variables that only say what the objective is."""
        nonlinear, moved = self._view.nonlinear, self._smooth.moved
        if nonlinear is not None and len(moved):
            x[self._smooth.results] = nonlinear.trees.take(moved).values(x) - nonlinear.lower[moved]
        return x

    def _is_feasible(self, values: Floats) -> bool:
        slack = _FEASIBLE * np.maximum(1.0, abs(values))
        is_within = (values >= self._below - slack) & (values <= self._above + slack)
        return bool(is_within.all())  # false for NaN

    def _is_convex(self) -> bool:
        """Whether what is locally optimal is optimal; quadratic rows aren't looked into."""
        view = self._view
        if view.general_count or view.quadratic_count or view.nonlinear_objective is not None:
            return False
        return view.quadratic_objective is None or is_convex(view, True)


def _quiet() -> dict[str, Any]:
    return {"print_time": False, "ipopt.print_level": 0, "ipopt.sb": "yes"}


class _Listener(ca.Callback):  # type: ignore[misc]
    """Called in each iteration: writes the log, and stops where the user wants it."""

    def __init__(self, smooth: Smooth, run: Run, sign: float, offset: float) -> None:
        super().__init__()
        self._columns, self._rows = smooth.columns, smooth.rows
        self._run, self._sign, self._offset = run, sign, offset
        self._count, self._started = 0, perf_counter()
        self._error: BaseException | None = None
        self.construct("iteration", {})
        run.log.line("iteration    objective        seconds")

    def get_n_in(self) -> int:
        return int(ca.nlpsol_n_out())

    def get_n_out(self) -> int:
        return 1

    def get_name_in(self, k: int) -> str:
        return str(ca.nlpsol_out(k))

    def get_sparsity_in(self, k: int) -> Any:
        name = ca.nlpsol_out(k)
        if name == "f":
            return ca.Sparsity.scalar()
        sizes = {"x": self._columns, "lam_x": self._columns, "g": self._rows, "lam_g": self._rows}
        return ca.Sparsity.dense(sizes[name]) if name in sizes else ca.Sparsity(0, 0)

    def eval(self, arguments: Any) -> list[int]:
        """1 where the solve shall end."""
        try:
            value = self._sign * float(arguments[1]) + self._offset
            seconds = perf_counter() - self._started
            self._run.log.line(f"{self._count:9d}  {value:16.9e}  {seconds:8.2f}")
            self._count += 1
            if self._run.reporter.is_due:
                self._run.reporter.tell(News(iterations=self._count))
            return [1 if self._run.stop else 0]
        except BaseException as error:  # CasADi would swallow it
            self._error = error
            return [1]

    def end(self) -> None:
        """After the run: raise what was carried out of the callback."""
        if self._error is not None:
            raise self._error
