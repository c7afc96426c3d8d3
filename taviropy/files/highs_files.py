"""Reading and writing model files through HiGHS."""

from __future__ import annotations

import os
import re

import numpy as np
from highspy import Highs, HighsLogType, HighsStatus, HighsVarType

from .._exception import TaviroError
from .._scalars import data_of
from .._tvo import TVO
from ..data.attributes import BINARY, CONTINUOUS, EQUAL, GREATER, LESS, WHOLE
from ..data.quadratic import QuadraticTerms
from ..data.rows import Rows
from ..engines.highs import HighsEngine

# What HiGHS's readers would take for something else than a name.
_MPS_WORD = re.compile(r"|name|objsense|'marker'", re.IGNORECASE)
_NOT_IN_LP = re.compile(r"[^A-Za-z0-9!\"#$%&(),.;?@_{}~]")
_LP_WORD = re.compile(
    r"[0-9.;]|inf|nan|(|bounds?|bin|binar(y|ies)|gen|generals?|int|integers?|semis?|semi-continuous"
    r"|sos|st|s\.t\.|such|subject|min|minimi[sz]e|minimum|max|maximi[sz]e|maximum|free|end)$",
    re.IGNORECASE,
)


def write_file(view, path):
    """Write the model, with its names."""
    if not path.endswith((".mps", ".lp", ".mps.gz")):
        raise TaviroError(
            TVO.Error.FILE, f"The ending of '{path}' names no known format: use .mps or .lp"
        )
    engine = HighsEngine()
    engine.load(view, None)
    highs = engine._highs
    for names, give in (
        (view.column_names(), highs.passColName),
        (view.row_names(), highs.passRowName),
    ):
        for index, name in enumerate(_fit_for_file(names, path)):
            give(index, name)
    words = _run_quietly(highs, highs.writeModel, path)
    if words is not None:
        raise TaviroError(TVO.Error.FILE, f"The model can't be written to '{path}': {words}")


def _fit_for_file(names, path):
    """Names that a reader of the file takes for what they are, each one once."""
    fit = _fit_for_lp if path.endswith(".lp") else _fit_for_mps
    names = [fit(name) for name in names]
    taken = set(names)
    if len(taken) == len(names):
        return names
    seen = set()
    for place, name in enumerate(names):
        count = 0
        while name in seen or (count and name in taken):
            count += 1
            name = f"{names[place]}~{count}"
        seen.add(name)
        names[place] = name
    return names


def _fit_for_mps(name):
    """A name of one word that is none of the format's own."""
    name = "_".join(re.split(r"\s", name))
    return f"_{name}" if _MPS_WORD.fullmatch(name) else name


def _fit_for_lp(name):
    """A name without operators and brackets that doesn't begin as a number or keyword does."""
    name = _NOT_IN_LP.sub("_", name.replace("[", "(").replace("]", ")"))
    return f"_{name}" if _LP_WORD.match(name) else name


def _run_quietly(highs, call, path):
    """Call HiGHS with a path; None where it worked, else what HiGHS said."""
    words = []

    def listen(kind, text, data_out, *rest):
        if data_out.log_type in (HighsLogType.kWarning, HighsLogType.kError):
            words.append(text)

    highs.setOptionValue("output_flag", True)
    highs.setOptionValue("log_to_console", False)
    highs.setCallback(listen, None)
    highs.startCallbackInt(0)
    status = call(path)
    highs.setCallback(None, None)
    highs.setOptionValue("output_flag", False)
    highs.setOptionValue("log_to_console", True)
    if status != HighsStatus.kError:
        return None
    return " ".join(" ".join(words).split()) or "no reason given"


def read_file(path):
    """A Model of a file."""
    path = os.fspath(path)
    if not os.path.isfile(path):
        raise FileNotFoundError(f"There is no file '{path}'")
    highs = Highs()
    words = _run_quietly(highs, highs.readModel, path)
    if words is not None:
        raise TaviroError(TVO.Error.FILE, f"The file '{path}' can't be read as a model: {words}")
    return _model_of(highs)


def _model_of(highs):
    from .._model import Model

    highs.ensureRowwise()
    lp = highs.getLp()
    model = Model(lp.model_name_)
    data = data_of(model)
    _add_columns(data, lp)
    _add_rows(data, lp)
    data.objective.replace(int(lp.sense_), float(lp.offset_), _quadratic_terms(highs))
    model.update()
    return model


def _add_columns(data, lp):
    count = lp.num_col_
    lower, upper = np.array(lp.col_lower_), np.array(lp.col_upper_)
    types = np.full(count, CONTINUOUS, np.uint8)
    if len(lp.integrality_):
        kinds = np.array([int(kind) for kind in lp.integrality_])
        for kind, noun in (
            (HighsVarType.kSemiContinuous, "semi-continuous"),
            (HighsVarType.kSemiInteger, "semi-integer"),
        ):
            where = np.flatnonzero(kinds == int(kind))
            if len(where):
                raise TaviroError(
                    TVO.Error.NOT_SUPPORTED,
                    f"The variable '{lp.col_names_[where[0]]}' is {noun}, which a model has no "
                    f"type for: write it with a binary variable and two constraints",
                )
        integer = kinds != int(HighsVarType.kContinuous)
        types[integer] = WHOLE
        types[integer & (lower == 0.0) & (upper == 1.0)] = BINARY
    values = {"LB": lower, "UB": upper, "Obj": np.array(lp.col_cost_), "VType": types}
    data.variables.make(data, (count,), list(lp.col_names_), values)


def _add_rows(data, lp):
    lower, upper = np.array(lp.row_lower_), np.array(lp.row_upper_)
    sense = np.full(lp.num_row_, LESS, np.uint8)
    sense[(upper == np.inf) & (lower > -np.inf)] = GREATER
    sense[lower == upper] = EQUAL
    ranged = (sense == LESS) & (lower > -np.inf)
    matrix = lp.a_matrix_
    rows = Rows(
        np.array(matrix.start_, np.int32),
        np.array(matrix.index_, np.int32),
        np.array(matrix.value_, np.float64),
    )
    rhs = np.where(sense == GREATER, lower, upper)
    data.make_linear((lp.num_row_,), list(lp.row_names_), rows, rhs, sense)
    if ranged.any():
        data.linear.need("Low")[ranged] = lower[ranged]


def _quadratic_terms(highs):
    hessian = highs.getModel().hessian_
    if not hessian.dim_:
        return None
    starts = np.array(hessian.start_)
    rows = np.array(hessian.index_, np.int32)
    columns = np.repeat(np.arange(hessian.dim_, dtype=np.int32), np.diff(starts))
    values = np.array(hessian.value_, np.float64)
    halved = np.where(rows == columns, 0.5 * values, values)
    return QuadraticTerms.summed([(columns, rows, halved)], hessian.dim_)
