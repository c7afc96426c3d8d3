"""The code in the README and in the guide runs, and prints what stands below it."""

import contextlib
import io
import re
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parent.parent
BLOCK = re.compile(r"```python\n(.*?)```\n(?:\n```text\n(.*?)```)?", re.DOTALL)


@pytest.mark.parametrize("document", ["README.md", "docs/guide.md"])
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
            assert printed.getvalue().split() == expected.split()
