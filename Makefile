# One command a purpose. Each target sets up what it needs in .venv, from a clean clone.
PYTHON ?= python3.12
VENV := .venv
PY := $(VENV)/bin/python
STUBS := taviropy._matrixapi taviropy._scalars taviropy._util taviropy._functions
SOURCES := pyproject.toml CMakeLists.txt $(shell find native taviropy -type f -not -path '*/__pycache__/*')

.PHONY: demo examples test fuzz check format sanitize bench docs package clean

# The main job: quantile regressions on real data, with the solver's log and an independent check.
demo: $(VENV)/demo
	$(PY) examples/quantile_regression.py

# All examples, one after the other, without their pictures.
examples: $(VENV)/demo
	for example in examples/*.py; do echo "== $$example"; MPLBACKEND=agg $(PY) -W ignore::UserWarning:__main__ $$example || exit 1; done

test: $(VENV)/test
	$(PY) -m pytest

# Random sequences of statements against a model kept in plain arrays, SECONDS long; then random
# programs, where their fuzzer stands beside the checkout. SEED=n repeats a run that failed.
SECONDS := 60
FUZZER := $(firstword $(wildcard ../*/conformance/run))
fuzz: $(VENV)/test
	$(PY) tests/machine/test_machine.py $(SECONDS)
	$(if $(FUZZER),$(PY) tools/fuzz/programs.py $(FUZZER) $(SECONDS))

# Format, lint, layers and types: of the package, of its stubs, and as programs that use it see them.
check: $(VENV)/check
	$(PY) -m ruff format --check .
	$(PY) -m ruff check .
	$(VENV)/bin/lint-imports --no-logo --no-cache
	! git grep -n '#include "[.][.]' native  # round the folders that CMakeLists.txt declares
	$(PY) -m mypy
	cd tests/typing && ../../$(PY) -P -m mypy.stubtest $(STUBS) --ignore-disjoint-bases --allowlist stubtest.txt
	$(PY) -m pytest tests/typing
	$(VENV)/bin/clang-format --dry-run --Werror $$(git ls-files '*.cpp' '*.hpp' '*.h')

format: $(VENV)/check
	$(PY) -m ruff format .
	$(PY) -m ruff check --fix .
	$(VENV)/bin/clang-format -i $$(git ls-files '*.cpp' '*.hpp' '*.h')

# All native code with AddressSanitizer and UndefinedBehaviorSanitizer, the test suite under it.
sanitize: $(VENV)/test
	tools/sanitize $(PY) -m pytest

# Speed against hand-written arrays and other libraries, in one run; writes docs/benchmarks.md.
bench: $(VENV)/bench
	$(PY) benchmarks/run.py
	$(PY) benchmarks/picture.py

# The sdist and the wheel, the tests run with the wheel in an empty environment.
package: $(VENV)/package
	tools/package $(abspath $(PY))

# The guide and the docstrings as web pages, in build/docs. -P: not of the checkout's folder, which
# lacks the native parts.
docs: $(VENV)/docs
	$(PY) -P -m sphinx -W -q -b html docs build/docs

# What is installed with its extras; a change of the sources installs anew.
$(VENV)/%: $(SOURCES) | $(VENV)/bin
	$(PY) -m pip install -q '.[$*]'
	touch $@

$(VENV)/bin:
	$(PYTHON) -m venv $(VENV)
	$(PY) -m pip install -q --upgrade pip

clean:
	rm -rf $(VENV) build
