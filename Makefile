# Front door for users and CI:
#   make        optimised binary at build/release/quarlo
#   make demo   build, then run quarlo on the example in examples/
#   make test   Debug build with AddressSanitizer + UBSan, all tests through CTest,
#               then the same tests on the optimised build, then the installed
#               package checked with examples/embed
#   make install PREFIX=/usr/local   program, library, headers, CMake package, man page
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
DEMO_DIR := build/demo

PREFIX ?= /usr/local

.PHONY: all release demo test install build-deps test-deps clean

all: release

release: build-deps
	cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release
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

test: test-deps
	cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=Debug -DQUARLO_SANITIZE=ON -DQUARLO_TESTS=ON
	cmake --build build/asan -j $(JOBS)
	cd build/asan && ctest --output-on-failure -j $(JOBS)
	cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DQUARLO_TESTS=ON
	cmake --build build/release -j $(JOBS)
	cd build/release && ctest --output-on-failure -j $(JOBS)
	sh tools/check-embed.sh

install: release
	cmake --install build/release --prefix $(PREFIX)

clean:
	rm -rf build
