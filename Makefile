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

# Sanitizer and fuzzing builds live beside the plain one.
ASAN_BUILD_DIR ?= build-asan
FUZZ_BUILD_DIR ?= build-fuzz
FUZZ_SECONDS ?= 60
# With FUZZ_RUNS set, each harness stops after that many executions instead (or at
# FUZZ_SECONDS, whichever comes first): `make fuzz FUZZ_RUNS=1000000 FUZZ_SECONDS=0`.
FUZZ_RUNS ?=
# A fixed seed: a CI run explores the same inputs each time, so a finding is reproducible.
FUZZ_SEED ?= 1
FUZZERS ?= point_reader_fuzz fits_fuzz cad_reader_fuzz
# Leaks LeakSanitizer must not report: OpenCASCADE's one-time static allocations only.
# OpenCASCADE has no frame pointers: the suppressed frames only show with the slow unwinder,
# which the tests can afford; the CAD fuzzer reads with leak checks off (see its source).
SANITIZER_ENV = LSAN_OPTIONS=suppressions=$(CURDIR)/.ci/lsan.supp:print_suppressions=0 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
TEST_ASAN_OPTIONS = ASAN_OPTIONS=detect_leaks=1:fast_unwind_on_malloc=0:strict_string_checks=1
FUZZ_ASAN_OPTIONS = ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1

.PHONY: all deps configure build test demo bench bench-peers clean test-asan fuzz-build fuzz

all: build

deps:
	@scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)

# Quiet while building: the build's progress goes to $(BUILD_DIR)/demo-build.log, shown only
# when the build fails. Each result is printed beside the nominal its data were made from.
demo: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target gfit_cli >$(BUILD_DIR)/demo-build.log 2>&1 \
	  || { cat $(BUILD_DIR)/demo-build.log; echo "make demo: the build failed (log: $(BUILD_DIR)/demo-build.log)"; exit 1; }
	@$(PYTHON) tools/demo.py $(GFIT) $$(grep -q "^GFIT_BUILD_CAD:BOOL=ON" $(BUILD_DIR)/CMakeCache.txt && echo cad)
	@if grep -q "^GFIT_BUILD_PYTHON:BOOL=ON" $(BUILD_DIR)/CMakeCache.txt; then \
	  echo "== from Python: the cylinder, its form map and the roundness plot ($(BUILD_DIR)/plots/*.png)"; \
	  cmake --build $(BUILD_DIR) -j $(JOBS) --target gfit_python >>$(BUILD_DIR)/demo-build.log 2>&1 \
	    || { cat $(BUILD_DIR)/demo-build.log; exit 1; }; \
	  PYTHONPATH=$(BUILD_DIR)/python $(PYTHON) python/examples/demo.py $(BUILD_DIR)/plots; \
	fi

bench: configure
	@scripts/install-deps --bench
	@cmake -S . -B $(BUILD_DIR) >/dev/null
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target gfit_benchmarks
	@for b in $(BUILD_DIR)/bench/bench_*; do [ -x "$$b" ] && "$$b"; done

# The unit and command-line tests in a Debug build (asserts on) under AddressSanitizer and
# UndefinedBehaviorSanitizer; any report fails the test that caused it. -O1 because Eigen
# without inlining makes the large-data tests crawl. The Python module stays out: loaded into an
# interpreter built without the sanitizers, its runtime cannot start.
test-asan: deps
	@cmake -S . -B $(ASAN_BUILD_DIR) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=-O1 -DGFIT_SANITIZE=address,undefined -DGFIT_BUILD_PYTHON=OFF \
		-DGFIT_BUILD_BENCHMARKS=OFF -DGFIT_BUILD_EXAMPLES=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(ASAN_BUILD_DIR) -j $(JOBS)
	@$(SANITIZER_ENV) $(TEST_ASAN_OPTIONS) ctest --test-dir $(ASAN_BUILD_DIR) --output-on-failure -j $(JOBS)

# The libFuzzer harnesses of fuzz/ (clang, with AddressSanitizer and UndefinedBehaviorSanitizer;
# asserts on, -O1: quick to build, and an assert that input can reach is a finding too).
fuzz-build: deps
	@command -v clang++ >/dev/null || { echo "fuzz: clang++ is needed (scripts/install-deps)"; exit 1; }
	@CXX=clang++ cmake -S . -B $(FUZZ_BUILD_DIR) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=-O1 -DGFIT_FUZZ=ON \
		-DGFIT_BUILD_TESTS=OFF -DGFIT_BUILD_BENCHMARKS=OFF -DGFIT_BUILD_EXAMPLES=OFF \
		-DGFIT_BUILD_TOOLS=OFF -DGFIT_BUILD_PYTHON=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(FUZZ_BUILD_DIR) -j $(JOBS) --target $(FUZZERS)

# Runs each harness for FUZZ_SECONDS, one after the other, from the seed corpus in
# fuzz/corpus/ (and, for the CAD reader, the malformed parts of test/data; new inputs go to the build directory, not the repository). A crash, leak,
# sanitizer report or a run longer than 30 s on one input fails; the input is kept in
# $(FUZZ_BUILD_DIR)/artifacts/. GFIT_FUZZ_SKIP lists fits_fuzz entries to leave out.
fuzz: fuzz-build
	@mkdir -p $(FUZZ_BUILD_DIR)/artifacts
	@for f in $(FUZZERS); do \
		mkdir -p $(FUZZ_BUILD_DIR)/corpus/$$f; \
		dict=""; [ -f fuzz/$$f.dict ] && dict="-dict=fuzz/$$f.dict"; \
		seeds=fuzz/corpus/$${f%_fuzz}; [ $$f = cad_reader_fuzz ] && seeds="$$seeds test/data/malformed-step"; \
		echo "== $$f for $(FUZZ_SECONDS) s"; \
		$(SANITIZER_ENV) $(FUZZ_ASAN_OPTIONS) $(FUZZ_BUILD_DIR)/fuzz/$$f $(FUZZ_BUILD_DIR)/corpus/$$f $$seeds $$dict \
			-max_total_time=$(FUZZ_SECONDS) $(if $(FUZZ_RUNS),-runs=$(FUZZ_RUNS)) -seed=$(FUZZ_SEED) -timeout=30 -rss_limit_mb=4096 -print_final_stats=1 \
			-artifact_prefix=$(FUZZ_BUILD_DIR)/artifacts/$$f- 2>$(FUZZ_BUILD_DIR)/$$f.log \
			|| { tail -60 $(FUZZ_BUILD_DIR)/$$f.log; exit 1; }; \
		grep -E "stat::number_of_executed_units|stat::peak_rss_mb" $(FUZZ_BUILD_DIR)/$$f.log; \
	done

# The surface best fit beside Open3D's point-to-plane ICP on the same points (bench/icp_peer.py).
bench-peers: configure
	@scripts/install-deps --bench
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target bench_alignment
	@$(PYTHON) bench/icp_peer.py --bench $(BUILD_DIR)/bench/bench_alignment

clean:
	@rm -rf $(BUILD_DIR) $(ASAN_BUILD_DIR) $(FUZZ_BUILD_DIR)
