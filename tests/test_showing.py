"""What people see of a model: rows written out, tables, the summary, the picture."""

import html
import re

import numpy as np
import pytest
import scipy.sparse as sp

import taviropy as tv


@pytest.fixture
def plan(m):
    """A model with constraints of each kind, in place."""
    x = m.addMVar(3, lb=[0.0, -1.0, 0.0], ub=4.0, name="x")
    b = m.addMVar(2, vtype="B", name="b<i>")
    rows = [
        m.addConstr(sp.csr_array([[1.0, -2.5, 0.0], [0.0, 0.0, 1.0]]) @ x <= [4.0, 5.0], name="c"),
        m.addConstr(x @ x + 3 * x[0] * x[1] - x[2] <= 40, name="q"),
        m.addConstr(x == tv.exp(x[0]) / (1 + x[1] ** 3) - (2 - x), name="g"),
        m.addGenConstrIndicator(b, [True, False], x[:2] - x[2] >= 1, name="i"),
    ]
    m.update()
    return m, x, b, rows


def test_constraints_are_written_out(plan):
    _, x, b, (c, q, g, i) = plan
    assert c.frame(rows=True).Row.tolist() == ["x[0] - 2.5 x[1] <= 4", "x[2] <= 5"]
    assert q.frame(rows=True).Row.tolist() == [
        "-x[2] + x[0]**2 + 3 x[0] * x[1] + x[1]**2 + x[2]**2 <= 40".replace("-x", "- x")
    ]
    assert i.frame(rows=True).Row.tolist() == [
        "b<i>[0] = 1: x[0] - x[2] >= 1",
        "b<i>[1] = 0: x[1] - x[2] >= 1",
    ]
    # A tree's text is an expression of Python, with the value that the expression has.
    point = {"x": np.array([1.5, 0.5, 2.0]), "exp": np.exp}
    for k, text in enumerate(g.frame(rows=True).Row):
        left, right = text.split(" = ")
        assert left == f"x[{k}]"
        value = np.exp(1.5) / (1 + 0.5**3) - (2 - point["x"][k])
        assert eval(right, point) == pytest.approx(value)


def test_long_texts_are_cut(m):
    x = m.addMVar(1000, name="x")
    c = m.addConstr(x.sum() <= 1)
    y = x[0] + 0.0
    for _ in range(60):
        y = tv.sin(y) * y  # written out, the last one has more parts than there are atoms
    g = m.addConstr(x[1] == y)
    m.update()
    assert c.frame(rows=True).Row.item().endswith("+ x[5] + ... (994 more) <= 1")
    assert len(g.frame(rows=True).Row.item()) < 200


def test_frames_hold_what_attributes_do(m):
    x = m.addMVar((2, 2), ub=[[1.0, 2.0], [3.0, 4.0]], obj=-1.0, vtype=[["C", "C"], ["I", "C"]])
    c = m.addConstr(x.sum(axis=0) <= 3.5)
    with pytest.raises(tv.TaviroError, match="update"):
        x.frame()
    m.update()
    assert list(x.frame()) == ["LB", "UB", "Obj", "VType"] and "Slack" not in c.frame()
    x[0].Start = 1.0
    m.optimize()
    frame = x.frame()
    assert frame.index.tolist() == x.VarName.reshape(-1).tolist()
    for name in ("UB", "VType", "Start", "X"):
        assert np.array_equal(frame[name], x.getAttr(name).reshape(-1), equal_nan=name == "Start")
    assert "ReducedCost" not in frame and "Dual" not in c.frame()  # there are integers
    assert np.array_equal(c.frame().Slack, c.Slack)
    frame.loc[:, "LB"] = 7.0
    assert np.all(x.LB == 0.0)  # a copy
    assert m.getVars().frame().equals(x.frame()) and x[:0].frame().empty


def cells(text):
    """The texts of a table's cells, after a check that all tags are closed."""
    for tag in set(re.findall(r"<(\w+)", text)):
        assert len(re.findall(rf"<{tag}[ >]", text)) == text.count(f"</{tag}>"), tag
    return [html.unescape(cell) for cell in re.findall(r"<t[dh](?: [^>]*)?>(.*?)</t[dh]>", text)]


def test_tables_of_notebooks(plan):
    m, x, b, (c, q, g, i) = plan
    assert cells(x._repr_html_())[:6] == ["VarName", "LB", "UB", "Obj", "VType", "x[0]"]
    assert "b<i>[1]" in cells(b._repr_html_()) and "<i>" not in b._repr_html_()
    assert "x[0] - 2.5 x[1] <= 4" in cells(c._repr_html_())
    for block in (q, g, i):
        assert block.frame(rows=True).Row.iloc[0] in cells(block._repr_html_())
    assert cells(m._repr_html_())[:2] == ["NumVars", "5"]
    expr = 2 * x + 1
    compact, before = expr._is_compact, repr(expr)
    assert "MLinExpr (3,)" in expr._repr_html_()
    assert (expr._is_compact, repr(expr)) == (compact, before)
    late = m.addMVar(30, name="late")
    assert "waits for m.update()" in cells(late._repr_html_())
    assert "and 20 more" in late._repr_html_() and "30 more wait" in m._repr_html_()
    m.remove(x[0])
    m.update()
    assert "removed" in cells(x._repr_html_())
    assert "variable that was removed" in g._repr_html_()  # the row can't be written any more
    m.close()
    assert "closed" in x._repr_html_() and "closed" in m._repr_html_()


def test_summary(m):
    x = m.addMVar(3, lb=[0.0, 2.0, 0.0], ub=[1e9, 1.0, 5.0], obj=[1e-3, 2.0, 0.0], name="x")
    m.addMVar(2, vtype="B", name="idle")
    m.addConstr(1e-6 * x[0] + 1e5 * x[1] <= 10, name="mixed")
    m.addConstr(0 * x[2] + x[2] - x[2] <= 1, name="empty")
    m.update()
    m.addVar()
    s = m.summary()
    assert s.counts["variables"] == 5 and s.counts["  binary"] == 2
    assert s.ranges["coefficients"][:2] == (1e-6, 1e5) and s.ranges["bounds"].high_at == "x[0]"
    text = "\n".join(s.warnings)
    for part in (
        "1 added",
        "1e-06 (at mixed, x[0]) to 1e+05 (at mixed, x[1])",
        "up to 1e+09 (at x[0])",
        "cross (x[1])",
        "hold no variable (empty)",
        "no cost (x[2], idle[0], idle[1])",
    ):
        assert part in text
    assert str(s).startswith("To be minimized") and "! " in str(s)
    assert html.escape(s.warnings[1]) in s._repr_html_()
    assert not tv.Model("new").summary().warnings


def test_picture_of_the_matrix(m):
    matplotlib = pytest.importorskip("matplotlib")
    matplotlib.use("agg")
    x = m.addMVar(1000)
    m.addConstr(sp.random_array((500, 1000), density=0.01, rng=0, format="csr") @ x <= 1)
    m.update()
    axes = m.spy()
    assert "5,000 nonzeros" in axes.get_title() and len(axes.lines[0].get_xdata()) == 5000
    m.addConstr(np.ones((200, 1000)) @ x <= 1)
    m.update()
    assert m.spy(axes) is axes and axes.images[0].get_array().sum() == 205_000
    assert "0 nonzeros" in tv.Model().spy().get_title()
    matplotlib.pyplot.close("all")
