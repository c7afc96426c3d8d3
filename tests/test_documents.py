"""The code on every page runs, and prints what stands below it ("..." for what differs by run)."""

import contextlib
import io
import re
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parent.parent
BLOCK = re.compile(r"```python\n(.*?)```\n(?:\n```text\n(.*?)```)?", re.DOTALL)


PAGES = [ROOT / "README.md", *sorted((ROOT / "docs").rglob("*.md"))]
DOCUMENTS = [str(page.relative_to(ROOT)) for page in PAGES if "```python" in page.read_text()]


@pytest.mark.parametrize("document", DOCUMENTS)
def test_the_code_of_a_document(document, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    text = (ROOT / document).read_text()
    blocks = BLOCK.findall(text)
    assert len(blocks) == text.count("```python")
    names = {}
    for code, expected in blocks:
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed):
            exec(compile(code, f"{document}: {code.splitlines()[0]}", "exec"), names)
        if expected:
            words = map(re.escape, expected.split())
            pattern = r"\s+".join(words).replace(r"\.\.\.\ ", r"\S+ ").replace(r"\.\.\.", r"\S+")
            assert re.fullmatch(pattern, printed.getvalue().strip()), printed.getvalue()
