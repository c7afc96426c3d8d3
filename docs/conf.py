"""How `make docs` builds the pages: the guide in Markdown, the interface from its docstrings, the
gallery from the examples, which are run."""

import re
from urllib.request import urlopen

from taviropy import __version__

project = "taviropy"
version = release = __version__
extensions = [
    "myst_parser",
    "sphinx.ext.autodoc",
    "sphinx.ext.intersphinx",
    "sphinx.ext.mathjax",
    "sphinx_gallery.gen_gallery",
    "sphinx-mathjax-offline",  # formulas without a network
]
myst_enable_extensions = ["dollarmath"]
myst_heading_anchors = 3
html_theme = "pydata_sphinx_theme"
html_theme_options = {
    "show_prev_next": False,
    "navigation_with_keys": False,
    "secondary_sidebar_items": ["page-toc"],
}
html_title = project
html_static_path = ["static"]
html_css_files = ["site.css"]
html_copy_source = False
html_show_sourcelink = False

# NumPy's and SciPy's pages, where they can be reached: without a network the links are left out.
_OTHERS = {
    "numpy": "https://numpy.org/doc/stable/",
    "scipy": "https://docs.scipy.org/doc/scipy/",
}


def _is_reachable(address):
    try:
        with urlopen(f"{address}objects.inv", timeout=5):
            return True
    except OSError:
        return False


intersphinx_mapping = {name: (at, None) for name, at in _OTHERS.items() if _is_reachable(at)}

sphinx_gallery_conf = {
    "examples_dirs": "../examples",
    "gallery_dirs": "gallery",
    "filename_pattern": r"\.py$",
    "within_subsection_order": "FileNameSortKey",
    "download_all_examples": False,
    "show_signature": False,
    "min_reported_time": 10**9,
    "abort_on_example_error": True,
    "write_computation_times": False,
}
autodoc_member_order = "bysource"
autodoc_typehints = "none"

_TITLE = re.compile(r"([A-Z][A-Z ]+):$")
_LITERAL = re.compile(r"(`+[^`]+`+)")


def _prose(lines):
    """Plain text as reStructuredText: code in backticks stays code, nothing else is markup."""
    parts = _LITERAL.split("\n".join(lines))
    for k, part in enumerate(parts):
        parts[k] = f"``{part.strip('`')}``" if k % 2 else re.sub(r"([*_|])", r"\\\1", part)
    return "".join(parts).split("\n")


def _items(lines):
    """Arguments as a list; what is indented goes on with the item above it."""
    return [f"- {line}" if line[:1].strip() else f"  {line.strip()}" for line in lines]


def _rendered(title, lines):
    indent = min((len(line) - len(line.lstrip()) for line in lines if line.strip()), default=0)
    lines = [line[indent:] for line in lines]
    text = " ".join(lines).strip(" .")
    if title in ("ROUTINE", "PROPERTY") or text in ("", "None"):
        return []
    if title == "EXAMPLE":
        return [".. code-block:: python", "", *(f"   {line}" for line in lines)]
    heading = [] if title in ("", "PURPOSE") else [f"**{title.capitalize()}**", ""]
    return heading + _prose(_items(lines) if title == "ARGUMENTS" else lines)


def _render_blocks(app, what, name, obj, options, lines):
    """Turn the blocks of a docstring (PURPOSE:, ARGUMENTS:, ...) into reStructuredText."""
    blocks = [("", [])]
    for line in lines:
        title = _TITLE.match(line)
        if title:
            blocks.append((title[1], []))
        else:
            blocks[-1][1].append(line)
    lines[:] = [line for block in blocks for line in [*_rendered(*block), ""]]


def _hide_constructors(app, what, name, obj, options, signature, returns):
    """Matrix objects come from models and operators, not from a call of their class."""
    matrix_class = what == "class" and re.match(r"taviropy\.M[A-Z]", name)
    return ("", "") if matrix_class else None


def setup(app):
    app.connect("autodoc-process-docstring", _render_blocks)
    app.connect("autodoc-process-signature", _hide_constructors)
