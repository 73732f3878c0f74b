# Entry points for people and CI. Every target installs what it needs first.
PREFIX ?= /usr/local
JOBS ?= $(shell nproc)
GEN := -G Ninja
LAUNCHER := $(shell command -v ccache >/dev/null 2>&1 && echo -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
CMAKE_COMMON := $(GEN) $(LAUNCHER) -DQUORVEL_WARNINGS_AS_ERRORS=ON
BENCH_FILTER ?= .
FUZZ_SECONDS ?= 60
SOAK_SECONDS ?= 600

.PHONY: all deps deps-bench build test test-release test-asan test-tsan test-browser demo serve bench \
  bench-compare install clean fuzz soak format

all: build

deps:
	@scripts/install-deps

deps-bench:
	@QUORVEL_BENCH_DEPS=1 scripts/install-deps

build: deps
	cmake -S . -B build $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=Release
	cmake --build build -j $(JOBS)

# Release tests, the viewer in a headless browser, then the whole suite again under
# AddressSanitizer + UBSan, then the concurrency tests under ThreadSanitizer.
test: deps format-check test-release test-browser test-asan test-tsan
	@echo "make test: all passes green"

test-release: build
	cd build && ctest --output-on-failure -j $(JOBS)

test-asan: deps
	cmake -S . -B build-asan $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DQUORVEL_SANITIZE="address;undefined" -DQUORVEL_TOOLS=OFF -DQUORVEL_PYTHON=OFF
	cmake --build build-asan -j $(JOBS) --target quorvel_tests quorvel_host_tests \
	  quorvel_serve_request_tests quorvel_serve_imaging_tests quorvel_fuzz_replay_request
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS) -L unit

test-tsan: deps
	cmake -S . -B build-tsan $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DQUORVEL_SANITIZE=thread -DQUORVEL_TOOLS=OFF -DQUORVEL_PYTHON=OFF
	cmake --build build-tsan -j $(JOBS) --target quorvel_concurrency_tests \
	  quorvel_host_concurrency_tests quorvel_serve_concurrency_tests
	cd build-tsan && TSAN_OPTIONS="halt_on_error=1 suppressions=$(CURDIR)/tools/serve/tests/tsan.supp" \
	  ctest --output-on-failure -j $(JOBS) -L concurrency

# The viewer's pages in Debian's chromium, driven by playwright-core, against the server
# built by test-release.
test-browser: build
	QUORVEL_SERVE=$(CURDIR)/build/tools/serve/quorvel-serve viewer/tests/run

# The deep-zoom server on the default 65536 x 65536 slide, with the viewer, until Ctrl-C.
# PORT and IMAGES choose the port and the files to serve.
PORT ?= 8080
IMAGES ?=
serve: build
	./build/tools/serve/quorvel-serve $(IMAGES) --port $(PORT) --viewer viewer

# The main job: a generated 4096 x 4096 slide encoded as wavelet tiles, streamed through the
# backend and checked bit for bit; the pictures land in out/.
demo: deps
	cmake -S . -B build $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=Release
	cmake --build build -j $(JOBS) --target quorvel-render
	./build/tools/render/quorvel-render --through-transform -o out/render.png --compare out/compare.png

# The library and host rows, then the serving section: quorvel-serve beside iipsrv under wrk.
bench: deps-bench
	cmake -S . -B build-bench $(GEN) $(LAUNCHER) -DCMAKE_BUILD_TYPE=Release -DQUORVEL_BENCH=ON \
	  -DQUORVEL_PYTHON=OFF -DQUORVEL_TESTS=OFF -DQUORVEL_TOOLS=ON
	cmake --build build-bench -j $(JOBS) --target quorvel_bench quorvel-serve
	./build-bench/bench/quorvel_bench --filter='$(BENCH_FILTER)'
	bench/serve/serve-bench --server build-bench/tools/serve/quorvel-serve \
	  --out build-bench/serve-bench.md

# Kernel rows of the working tree against those of BASE (a git revision), run alternately.
BASE ?= HEAD
bench-compare: deps-bench
	scripts/bench-compare --base '$(BASE)' --filter='$(if $(filter .,$(BENCH_FILTER)),^Filter,$(BENCH_FILTER))'

install: build
	cmake --install build --prefix $(PREFIX)

# Fuzzing (clang + libFuzzer, ASan + UBSan): each target runs FUZZ_SECONDS on a scratch
# corpus seeded from fuzz/corpus/<target>; inputs that reach new code are merged back into
# fuzz/corpus (coverage edges only, so it stays small). Findings land in build-fuzz/findings.
FUZZ_TARGETS := instance kernel envelope format_exception request
FUZZ_FLAGS := -max_len=4096 -timeout=30 -rss_limit_mb=2560 -print_final_stats=1
fuzz: deps
	cmake -S . -B build-fuzz $(GEN) $(LAUNCHER) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_CXX_COMPILER=clang++ -DQUORVEL_FUZZ=ON -DQUORVEL_SANITIZE="address;undefined" \
	  -DQUORVEL_TESTS=OFF -DQUORVEL_TOOLS=OFF -DQUORVEL_PYTHON=OFF
	cmake --build build-fuzz -j $(JOBS) --target quorvel_fuzzers
	@mkdir -p build-fuzz/logs build-fuzz/findings
	@set -e; for t in $(FUZZ_TARGETS); do \
	  mkdir -p build-fuzz/work/$$t fuzz/corpus/$$t; \
	  echo "== fuzz $$t: $(FUZZ_SECONDS) s"; \
	  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	    ./build-fuzz/fuzz/quorvel_fuzz_$$t $(FUZZ_FLAGS) -max_total_time=$(FUZZ_SECONDS) \
	    -artifact_prefix=build-fuzz/findings/$$t- build-fuzz/work/$$t fuzz/corpus/$$t \
	    > build-fuzz/logs/$$t.log 2>&1 || { tail -80 build-fuzz/logs/$$t.log; exit 1; }; \
	  grep -E "^Done|number_of_executed_units|new_units_added|peak_rss" build-fuzz/logs/$$t.log; \
	  ./build-fuzz/fuzz/quorvel_fuzz_$$t -merge=1 -use_counters=0 -max_len=4096 \
	    fuzz/corpus/$$t build-fuzz/work/$$t > build-fuzz/logs/$$t.merge.log 2>&1; \
	  echo "   corpus: $$(ls fuzz/corpus/$$t | wc -l) files"; \
	done

# Soak: the stress and lifecycle tests for SOAK_SECONDS under ASan+LSan+UBSan, then the
# stress tests for SOAK_SECONDS under TSan (so twice SOAK_SECONDS in all).
soak: deps
	cmake -S . -B build-soak-asan $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DQUORVEL_SANITIZE="address;undefined" -DQUORVEL_TOOLS=OFF -DQUORVEL_PYTHON=OFF
	cmake --build build-soak-asan -j $(JOBS) --target quorvel_tests
	cd build-soak-asan && QUORVEL_STRESS_SECONDS=$(SOAK_SECONDS) ASAN_OPTIONS=detect_leaks=1 \
	  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	  ./tests/quorvel_tests --gtest_filter='Lifecycle.*'
	cd build-soak-asan && QUORVEL_STRESS_SECONDS=$(SOAK_SECONDS) ASAN_OPTIONS=detect_leaks=1 \
	  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	  ./tests/quorvel_concurrency_tests --gtest_filter='Stress.*'
	cmake -S . -B build-soak-tsan $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DQUORVEL_SANITIZE=thread -DQUORVEL_TOOLS=OFF -DQUORVEL_PYTHON=OFF
	cmake --build build-soak-tsan -j $(JOBS) --target quorvel_concurrency_tests
	cd build-soak-tsan && QUORVEL_STRESS_SECONDS=$(SOAK_SECONDS) TSAN_OPTIONS=halt_on_error=1 \
	  ./tests/quorvel_concurrency_tests --gtest_filter='Stress.*'

format:
	clang-format -i $$(git ls-files '*.cpp' '*.hpp' '*.h')

# Fails when clang-format would change a tracked C++ file; `make format` fixes them.
.PHONY: format-check
format-check: deps
	clang-format --dry-run --Werror $$(git ls-files '*.cpp' '*.hpp' '*.h')

clean:
	rm -rf build build-asan build-tsan build-bench build-fuzz build-soak-asan build-soak-tsan out
