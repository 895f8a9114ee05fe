# Front door for users and CI:
#   make        optimised binary at build/release/quarlo
#   make demo   build, then run quarlo on the example in examples/
#   make test   Debug build with AddressSanitizer + UBSan and all tests through CTest;
#               beside it the optimised build with its output tests, the Python
#               module's tests, the installed package checked with examples/embed
#               and the package installed with pip into a fresh virtual environment
#   make install PREFIX=/usr/local   program, library, headers, CMake package, man page
#   make fuzz   clang libFuzzer targets in build/fuzz, each run FUZZ_SECONDS seconds
#               on a copy of its seed corpus; fails when one finds a crash
#   make python the Python package quarlo in build/python (PYTHONPATH=build/python)
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
DEMO_DIR := build/demo

PREFIX ?= /usr/local
FUZZ_SECONDS ?= 60
FUZZ_DIR := build/fuzz
FUZZ_TARGETS := transactions support_table binary patterns parents parts

# The Python module is built for Debian's interpreter, whatever python3 comes
# first on PATH. It is a target of the optimised build tree (one compile of
# the library serves the program, the tests and the module); the package
# lands in build/python.
PYTHON := /usr/bin/python3
PY_BUILD := build/release
PY_PACKAGE_DIR := build/python

.PHONY: all release demo test fuzz python install build-deps test-deps fuzz-deps python-deps clean \
  test-lanes test-build-sanitized test-sanitized test-optimised test-build-optimised \
  test-python test-packages

# Ninja when it is there, for a tree configured here for the first time: it
# compiles the objects of every target of a tree together, where the Makefile
# generator waits for the libraries a target links. A tree keeps the
# generator it was made with.
generator = $(if $(wildcard $(1)/CMakeCache.txt),,$(if $(shell command -v ninja 2>/dev/null),-G Ninja))

all: release

release: build-deps
	cmake -S . -B build/release $(call generator,build/release) -DCMAKE_BUILD_TYPE=Release
	cmake --build build/release -j $(JOBS) --target quarlo

demo: release
	rm -rf $(DEMO_DIR) && mkdir -p $(DEMO_DIR)
	cp examples/groceries.txt examples/groceries.supp $(DEMO_DIR)/
	cd $(DEMO_DIR) && ../release/quarlo -S groceries.supp -x groceries.txt; \
	  status=$$?; echo "exit status: $$status"; \
	  echo "--- $(DEMO_DIR)/groceries.txt.fp (first lines)"; head -n 12 groceries.txt.fp 2>/dev/null; \
	  exit $$status

build-deps:
	@sh tools/ensure-deps.sh build

test-deps:
	@sh tools/ensure-deps.sh test

fuzz-deps:
	@sh tools/ensure-deps.sh fuzz

python-deps:
	@sh tools/ensure-deps.sh python

# make test runs two lanes, each printed whole when it ends, each with half
# the cores: the sanitizer tree (a unity build, as it only serves the tests:
# half the compile time) is built and its tests run, then the optimised tree's
# output tests; beside it the optimised tree (the program, the Python module
# and the output tests) is built, then the Python tests run, Dask's and the
# rest, and the installed packages are checked (CMake and pip). On a small
# machine, tests that fault pages in fast slow each other down more than they
# gain when more of them run than there are cores.
test: test-deps python-deps
	@$(MAKE) --no-print-directory -j 2 -O test-lanes

HALF_JOBS := $(shell n=$$(( $(JOBS) / 2 )); [ $$n -ge 1 ] && echo $$n || echo 1)
PYTEST = QUARLO_BINARY=$(CURDIR)/build/release/quarlo PYTHONPATH=$(PY_PACKAGE_DIR) $(PYTHON) -m pytest -q

test-lanes: test-optimised test-packages

test-build-sanitized:
	cmake -S . -B build/asan $(call generator,build/asan) -DCMAKE_BUILD_TYPE=Debug \
	  -DQUARLO_SANITIZE=ON -DQUARLO_TESTS=ON -DCMAKE_UNITY_BUILD=ON
	cmake --build build/asan -j $(HALF_JOBS)

test-sanitized: test-build-sanitized
	cd build/asan && ctest --output-on-failure -j $(HALF_JOBS)

test-optimised: test-sanitized test-build-optimised
	cd build/release && ctest --output-on-failure -j $(HALF_JOBS) -L '^quarlo_output_tests$$'

test-build-optimised:
	cmake -S . -B build/release $(call generator,build/release) -DCMAKE_BUILD_TYPE=Release \
	  -DQUARLO_TESTS=ON -DQUARLO_PYTHON=ON -DPython_EXECUTABLE=$(PYTHON) \
	  -DQUARLO_PYTHON_DIR=$(CURDIR)/$(PY_PACKAGE_DIR)
	cmake --build build/release -j $(HALF_JOBS) --target quarlo quarlo_python quarlo_output_tests

test-python: test-build-optimised
	$(PYTEST) tests/python/test_dask.py
	$(PYTEST) tests/python --ignore tests/python/test_dask.py

test-packages: test-python
	sh tools/check-embed.sh
	sh tools/check-pip.sh

fuzz: fuzz-deps
	CXX=clang++-14 cmake -S . -B $(FUZZ_DIR) $(call generator,$(FUZZ_DIR)) -DQUARLO_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(FUZZ_DIR) -j $(JOBS) --target fuzz_targets
	sh tools/run-fuzz.sh $(FUZZ_DIR) $(FUZZ_SECONDS) $(FUZZ_TARGETS)

python: python-deps
	cmake -S . -B $(PY_BUILD) $(call generator,$(PY_BUILD)) -DCMAKE_BUILD_TYPE=Release -DQUARLO_PYTHON=ON \
	  -DPython_EXECUTABLE=$(PYTHON) -DQUARLO_PYTHON_DIR=$(CURDIR)/$(PY_PACKAGE_DIR)
	cmake --build $(PY_BUILD) -j $(JOBS) --target quarlo_python

install: release
	cmake --install build/release --prefix $(PREFIX)

clean:
	rm -rf build
