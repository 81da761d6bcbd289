# The two commands a newcomer needs: `make test` and `make demo`.
# Each installs what is missing (scripts/install-deps) and works from a fresh clone.

MAKEFLAGS += --no-print-directory

BUILD_DIR ?= build
BUILD_TYPE ?= Release
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_FLAGS ?=

GFIT := $(BUILD_DIR)/tools/gfit
# Debian's interpreter, which has the packages scripts/install-deps installs.
PYTHON ?= $(shell [ -x /usr/bin/python3 ] && echo /usr/bin/python3 || echo python3)

.PHONY: all deps configure build test demo bench clean

all: build

deps:
	@scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)

demo: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target gfit_cli
	@echo "== plane through data/plane.xyz"
	@$(GFIT) fit plane data/plane.xyz
	@echo "== 3-D line through data/line.xyz"
	@$(GFIT) fit line3 data/line.xyz
	@echo "== cylinder through data/cylinder.xyz (a probed bore)"
	@$(GFIT) fit cylinder data/cylinder.xyz
	@echo "== the same bore, with its surface normals"
	@$(GFIT) fit cylinder data/cylinder.xyz --normals data/cylinder-normals.xyz
	@echo "== ellipse through data/ellipse.xy"
	@$(GFIT) fit ellipse data/ellipse.xy
	@echo "== sphere touched by a 2 mm probe ball, data/probed-sphere.xyzr"
	@$(GFIT) fit probed-sphere data/probed-sphere.xyzr
	@echo "== cone through data/cone.xyz"
	@$(GFIT) fit cone data/cone.xyz
	@echo "== torus through data/torus.xyz"
	@$(GFIT) fit torus data/torus.xyz
	@echo "== roundness of data/roundness.xy: minimum-zone circle"
	@$(GFIT) fit minmax-circle data/roundness.xy
	@echo "== deviations of data/bracket.xyz from the CAD part data/bracket.step (first and last rows, summary)"
	@$(GFIT) deviations --cad data/bracket.step data/bracket.xyz | sed -n '1,4p;400,$$p'
	@echo "== align the displaced probe set data/bracket-displaced.xyz to data/bracket.step (transform, last rows, summary)"
	@$(GFIT) align --cad data/bracket.step data/bracket-displaced.xyz | sed -n '1,7p;400,$$p'
	@if grep -q "^GFIT_BUILD_PYTHON:BOOL=ON" $(BUILD_DIR)/CMakeCache.txt; then \
	  echo "== from Python: the cylinder, its form map and the roundness plot (docs/python/*.png)"; \
	  cmake --build $(BUILD_DIR) -j $(JOBS) --target gfit_python && \
	  PYTHONPATH=$(BUILD_DIR)/python $(PYTHON) python/examples/demo.py docs/python; \
	fi

bench: configure
	@scripts/install-deps --bench
	@cmake -S . -B $(BUILD_DIR) >/dev/null
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target gfit_benchmarks
	@for b in $(BUILD_DIR)/bench/bench_*; do [ -x "$$b" ] && "$$b"; done

clean:
	@rm -rf $(BUILD_DIR)
