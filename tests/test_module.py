"""The module itself: its import, its namespace, and what its functions look like from Python."""

import inspect
import os
import pathlib
import pickle
import subprocess
import sys
import textwrap
import traceback

import numpy as np
import pytest

import taviropy as tv
from taviropy import _matrixapi

CLASSES = ["MVar", "MLinExpr", "MQuadExpr", "MConstr", "MQConstr", "MGenConstr", "MNLExpr"]


def run(program, *options, **environment):
    """What a fresh interpreter prints."""
    done = subprocess.run(
        [sys.executable, "-P", *options, "-c", textwrap.dedent(program)],
        capture_output=True,
        text=True,
        env={**os.environ, **environment},
        timeout=60,
    )
    assert done.returncode == 0, done.stderr
    return done.stdout.strip()


# ---- import


def test_import_loads_neither_numpy_nor_scipy():
    program = """
        import sys
        import taviropy, taviropy._matrixapi
        print([name for name in ("numpy", "scipy", "highspy", "pyscipopt") if name in sys.modules])
        taviropy.MVar, taviropy.vstack, taviropy.Model
        print(sorted(name for name in sys.modules if name.startswith(("numpy", "scipy"))))
    """
    assert run(program).split("\n") == ["[]", "[]"]


def test_an_absent_numpy_or_scipy_is_an_error_of_the_call_that_needs_it():
    program = """
        import sys
        sys.modules["scipy.sparse"] = None
        import taviropy as tv
        x = tv.Model().addMVar(3)
        print(x[:2].shape, type(x <= 1).__name__)
        for call in (lambda: x @ 2, lambda: 1 / x):
            try:
                call()
            except ImportError as error:
                print(type(error).__name__, error.name)
        sys.modules["numpy"] = None
        for call in (lambda: x[0], lambda: x * 2, lambda: x.LB, lambda: tv.vstack((x, x)), lambda: repr(x)):
            try:
                call()
            except ImportError as error:
                print(error.name)
    """
    lines = run(program).split("\n")
    assert lines[0] == "(2,) TempConstr"
    assert lines[1:] == ["ModuleNotFoundError scipy.sparse"] * 2 + ["numpy"] * 5


def test_a_small_linear_model_is_solved_without_the_import_of_scipy():
    program = """
        import sys
        import taviropy as tv
        m = tv.Model()
        m.setOption("log", False)
        x = m.addMVar(3, ub=1.0, obj=-1.0)
        m.addConstr(x.sum() <= 2)
        m.optimize()
        print(m.Objective, [name for name in sys.modules if name.startswith("scipy")])
    """
    assert run(program) == "-2.0 []"


def test_the_namespace_in_order():
    program = """
        import types
        import taviropy._matrixapi as module
        every_module = {*vars(types.ModuleType("")), "__file__"}
        print(*(name for name in vars(module) if name not in every_module))
    """
    wanted = """
        itertools Iterable _attrlist _getattrinfo _gettypedattrlist _prefetchattr _settypedattrlist
        Constr GenConstr QConstr TempConstr Var GenExpr NLExpr _ExprTree TaviroError TVO
        _all_refs_match _axis_to_axeslist _broadcast_shapes _isscalar _isstr _matmul_shape
        _dense_matmul_kernel _sparse_right_matmul_kernel _sparse_left_matmul_kernel
        MVar MLinExpr MQuadExpr MConstr MQConstr MGenConstr
        _copy_learr _copy_learr_qearr _apply_array_manipulation_routine vstack hstack concatenate
        MNLExpr __test__
    """
    assert run(program).split() == wanted.split()
    assert _matrixapi.__test__ == {} and not hasattr(_matrixapi, "__all__")
    assert not hasattr(_matrixapi, "LinExpr")


# ---- siblings of another build


PACKAGE = pathlib.Path(_matrixapi.__file__).parent

STAND_INS = {
    "_core.py": """
        import importlib.util, sys
        spec = importlib.util.spec_from_file_location("taviropy._scalars", {scalars!r})
        scalars = importlib.util.module_from_spec(spec)
        sys.modules["taviropy._scalars"] = scalars
        spec.loader.exec_module(scalars)
        globals().update({{k: v for k, v in vars(scalars).items() if not k.startswith("__")}})
    """,
    "_util.py": """
        import importlib.util
        spec = importlib.util.spec_from_file_location("taviropy._util", {util!r})
        real = importlib.util.module_from_spec(spec)
        spec.loader.exec_module(real)
        globals().update({{k: v for k, v in vars(real).items() if not k.startswith("__")}})
        __pyx_capi__ = real.__pyx_capi__
    """,
}


def file_of(module):
    return str(next(PACKAGE.glob(f"{module}.*so")))


def import_error(tmp_path, **changes):
    """The ImportError of the module beside siblings that a test has changed."""
    package = tmp_path / "taviropy"
    package.mkdir()
    (package / "__init__.py").touch()
    for path in PACKAGE.iterdir():
        if path.name.startswith(
            ("_matrixapi.", "libtaviro120", "_attrutil.", "_exception.", "_tvo.", "data")
        ):
            (package / path.name).symlink_to(path.resolve())
    for name, source in STAND_INS.items():
        source = textwrap.dedent(source).format(scalars=file_of("_scalars"), util=file_of("_util"))
        (package / name).write_text(source + textwrap.dedent(changes.get(name[:-3], "")))
    program = """
        import sys
        try:
            import taviropy._matrixapi
            print("loaded")
        except ImportError as error:
            print(error, "taviropy._matrixapi" in sys.modules)
    """
    return run(program, PYTHONPATH=str(tmp_path))


def test_another_layout_or_signature_is_refused(tmp_path):
    changes = [
        ({"_core": "class LinExpr:\n    __slots__ = ('constant', 'coeffs', 'vars', 'cont_ref')"},
         ["taviropy._core.LinExpr", "object constant", "double constant at 16"]),
        ({"_core": "class QuadExpr(QuadExpr):\n    __slots__ = ('more',)"},
         ["taviropy._core.QuadExpr", "found 64 bytes", "expected 56 bytes"]),
        ({"_core": "class QuadExpr:\n    pass"},
         ["taviropy._core.QuadExpr", "no field linear", "object linear at 16"]),
        ({"_core": "LinExpr = 3"}, ["taviropy._core.LinExpr", "not a type"]),
        ({"_core": "del LinExpr"}, ["taviropy._core.LinExpr"]),
        ({"_util": "del __pyx_capi__"}, ["taviropy._util", "_ptr", "void *(PyObject *)"]),
        ({"_util": "import datetime\n__pyx_capi__ = {'_ptr': datetime.datetime_CAPI}"},
         ["taviropy._util._ptr", "datetime.datetime_CAPI", "void *(PyObject *)"]),
        ({"_core": "del GenExpr"}, ["GenExpr", "taviropy._core"]),
        ({"_util": "del _isscalar"}, ["_isscalar", "taviropy._util"]),
    ]  # fmt: skip
    for number, (change, parts) in enumerate(changes):
        folder = tmp_path / str(number)
        folder.mkdir()
        message = import_error(folder, **change)
        assert all(part in message for part in parts), message
        assert message.endswith("False")
    folder = tmp_path / "same"
    folder.mkdir()
    assert import_error(folder) == "loaded"


# ---- functions and classes as Python sees them


def public_callables():
    for name in ("vstack", "hstack", "concatenate"):
        yield name, getattr(_matrixapi, name)
    for owner in CLASSES:
        for name, member in vars(getattr(_matrixapi, owner)).items():
            if not name.startswith("_"):
                yield f"{owner}.{name}", member


def test_signatures_and_docstrings():
    for name, member in public_callables():
        if isinstance(member, property):
            doc = inspect.getdoc(member)
            assert doc.startswith((f"PROPERTY:\n  {name.split('.')[1]}", "The ")), name
            continue
        inspect.signature(getattr(member, "__func__", member))
        doc = inspect.getdoc(getattr(member, "__func__", member))
        title = doc.split("\n", 2)
        assert title[0] == "ROUTINE:" and title[1].strip().startswith(name.split(".")[-1] + "("), (
            name
        )
        blocks = [line for line in doc.split("\n") if line[:1].isupper() and line.endswith(":")]
        assert blocks[:2] == ["ROUTINE:", "PURPOSE:"], name
    assert [getattr(_matrixapi, c).__doc__ is None for c in CLASSES] == [
        c == "MGenConstr" for c in CLASSES
    ]
    signatures = {
        tv.MVar.sum: "(self, axis=None)",
        tv.MVar.reshape: "(self, *shape, order='C')",
        tv.MVar.setAttr: "(self, attrname, value)",
        tv.MVar.diagonal: "(self, offset=0, axis1=0, axis2=1)",
        tv.MVar.fromlist: "(varlist)",
        tv.MVar.__getitem__: "(self, obj)",
        tv.MVar.__eq__: "(self, rhs)",
        tv.MLinExpr.__radd__: "(self, other)",
        tv.MQuadExpr.__pow__: "(self, exponent)",
        tv.MConstr.fromlist: "(constrlist)",
        tv.concatenate: "(tup, axis=0)",
    }
    for function, wanted in signatures.items():
        shown = str(inspect.signature(function)).replace("/, ", "").replace(", /", "")
        assert shown == wanted
    assert "getAttr(self, /, attrname)" in run("import taviropy as tv; help(tv.MVar)")


def test_calls_that_dont_fit_a_signature():
    x = tv.Model().addMVar((2, 2))
    for call in (
        lambda: x.sum(0, 1), lambda: x.sum(axes=0), lambda: x.sum(0, axis=0), lambda: x.setAttr("LB"),
        lambda: x.copy(1), lambda: x.getAttr(), lambda: tv.vstack(), lambda: tv.MVar(), lambda: tv.MVar.sum(),
        lambda: tv.MVar.sum(3), lambda: tv.MVar.T.__get__(3), lambda: tv.MVar([], []),
    ):  # fmt: skip
        with pytest.raises(TypeError):
            call()
    for call in (x.sum, x.reshape, tv.concatenate, tv.MVar.fromlist):
        with pytest.raises(TypeError, match="unexpected keyword argument '\ud800'"):
            call(**{"\ud800": 1})
    assert x.diagonal(axis2=0, axis1=1).shape == (2,)
    for expr in (x, 2 * x, x * x, x.nl):
        assert expr.__add__(other=1).shape == expr.__getitem__(obj=[0, 1]).shape == (2, 2)
        assert isinstance(expr, tv.MNLExpr) or expr.__le__(rhs=1).rhs == 1


def test_every_method_counts_its_arguments():
    """A method that reads another one's list of parameters writes past its own."""
    m = tv.Model()
    x = m.addMVar(2)
    blocks = [x, 2 * x, x * x, x.nl, m.addConstr(x <= 1), m.addConstr(x * x <= 1),
              tv.MGenConstr(np.array([], dtype=object))]  # fmt: skip
    called = 0
    for block in blocks:
        for name, method in vars(type(block)).items():
            function = getattr(method, "__func__", method)
            if not getattr(function, "__text_signature__", None):
                continue  # Python's own, such as __dict__
            parameters = inspect.signature(function).parameters.values()
            if any(p.kind is p.VAR_POSITIONAL for p in parameters):
                continue
            for given in (range(len(parameters) + 1), range(40)):
                with pytest.raises(TypeError):
                    getattr(block, name)(*given)
            called += 1
    assert called > 200
    for block in blocks[:3]:
        with pytest.raises(TypeError, match="__le__"):
            block.__le__(1, 2, 3)


def test_a_second_import_works_like_the_first():
    program = """
        import sys
        import taviropy as tv
        x = tv.Model().addMVar(3)
        del sys.modules["taviropy._matrixapi"]
        import taviropy._matrixapi
        again = sys.modules["taviropy._matrixapi"]
        y = again.MVar(x._vararr)
        print(again.MVar is tv.MVar, (y + y.sum(axis=0)).shape, again.hstack((y, y)).shape)
        try:
            y.__le__(1, 2, 3)
        except TypeError as error:
            print(error)
    """
    assert run(program).split("\n") == [
        "False (3,) (6,)",
        "__le__() takes at most 1 positional arguments but 3 were given",
    ]


def last_own_entry(call):
    with pytest.raises(Exception) as error:  # noqa: B017, PT011
        call()
    entries = [
        e for e in traceback.extract_tb(error.tb) if e.name.startswith("taviropy._matrixapi.")
    ]
    return entries[-1]


def test_tracebacks_name_the_function_with_its_file_and_line():
    x = tv.Model().addMVar(3)
    for call, name, file in (
        (lambda: x * np.ones(4), "MVar.__mul__", "native/matrix/mvar/arithmetic.cpp"),
        (lambda: x.reshape(2), "MVar.reshape", "native/matrix/mvar/index.cpp"),
        (lambda: x != 1, "MVar.__ne__", "native/matrix/support/comparisons.cpp"),
        (lambda: tv.MVar.fromlist([1]), "MVar.fromlist", "native/matrix/support/handles.cpp"),
        (lambda: x.setAttr("LB", [1, 2]), "MVar.setAttr", "native/matrix/support/attributes.cpp"),
        (lambda: tv.MConstr(3), "MConstr.__init__", "native/matrix/support/handles.cpp"),
        (
            lambda: tv.vstack((1, 2)),
            "_apply_array_manipulation_routine",
            "native/matrix/mfunctions.cpp",
        ),
    ):
        entry = last_own_entry(call)
        assert entry.name == f"taviropy._matrixapi.{name}"
        assert entry.filename.endswith(file) and entry.lineno > 1
    raising = {
        last_own_entry(call).lineno
        for call in (lambda: x.setAttr("X", 1), lambda: x.setAttr("RHS", 1))
    }
    assert len(raising) == 2


def test_errors_of_operands_come_through():
    """Also where an argument fails and the ones behind it are still to be fetched."""
    clear_caches = getattr(sys, "_clear_internal_caches", None) or sys._clear_type_cache

    class Broken(tv.MVar):
        shape = _cmodel = property(lambda self: 1 / 0)

    m = tv.Model()
    x = m.addMVar((2, 3))
    y, y.__dict__["_vararr"] = Broken.__new__(Broken), x._vararr
    unsolved = [x.sum(axis=0), 2 * x, (x * x).sum(), 2 * x[0], x[0] @ x[0]]
    for _ in range(20):
        for expr in unsolved:
            clear_caches()
            with pytest.raises(tv.TaviroError, match="update"):
                expr.getValue()
        for use in (lambda: y * np.ones(3), lambda: y ** np.array([2]), lambda: dir(y),
                    lambda: tv.MQuadExpr._from_mvar_times_mvar(y, x)):  # fmt: skip
            clear_caches()
            with pytest.raises(ZeroDivisionError):
                use()


def test_classes_are_plain_python_classes():
    for name in CLASSES:
        cls = getattr(_matrixapi, name)
        assert (
            type(cls) is type
            and cls.__bases__ == (object,)
            and cls.__module__ == "taviropy._matrixapi"
        )
        assert "__slots__" not in vars(cls) and "__dict__" in dir(cls)
        assert type("Sub", (cls,), {"extra": 1}).extra == 1
        assert pickle.loads(pickle.dumps(cls)) is cls
        assert getattr(cls, "__array_priority__", None) == (None if "Constr" in name else 100)
    assert tv.MLinExpr._keep_compact == tv.MQuadExpr._keep_compact == 1
