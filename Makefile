# Entry points for people and CI. Every target installs what it needs first.
PREFIX ?= /usr/local
JOBS ?= $(shell nproc)
GEN := -G Ninja
LAUNCHER := $(shell command -v ccache >/dev/null 2>&1 && echo -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
CMAKE_COMMON := $(GEN) $(LAUNCHER) -DQUORVEL_WARNINGS_AS_ERRORS=ON
BENCH_FILTER ?= .
FUZZ_SECONDS ?= 60
SOAK_SECONDS ?= 600

.PHONY: all deps deps-bench build test test-release test-asan test-tsan demo bench install clean fuzz soak format

all: build

deps:
	@scripts/install-deps

deps-bench:
	@QUORVEL_WITH_OPENCV=1 scripts/install-deps

build: deps
	cmake -S . -B build $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=Release
	cmake --build build -j $(JOBS)

# Release tests, then the whole suite again under AddressSanitizer + UBSan, then the
# concurrency tests under ThreadSanitizer.
test: deps test-release test-asan test-tsan
	@echo "make test: all passes green"

test-release: build
	cd build && ctest --output-on-failure -j $(JOBS)

test-asan: deps
	cmake -S . -B build-asan $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DQUORVEL_SANITIZE="address;undefined" -DQUORVEL_TOOLS=OFF -DQUORVEL_PYTHON=OFF
	cmake --build build-asan -j $(JOBS) --target quorvel_tests
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS) -L unit

test-tsan: deps
	cmake -S . -B build-tsan $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DQUORVEL_SANITIZE=thread -DQUORVEL_TOOLS=OFF -DQUORVEL_PYTHON=OFF
	cmake --build build-tsan -j $(JOBS) --target quorvel_concurrency_tests
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j $(JOBS) -L concurrency

demo: build
	./build/tools/render/quorvel-render -o out/render.png --compare out/compare.png

bench: deps-bench
	cmake -S . -B build-bench $(GEN) $(LAUNCHER) -DCMAKE_BUILD_TYPE=Release -DQUORVEL_BENCH=ON \
	  -DQUORVEL_PYTHON=OFF
	cmake --build build-bench -j $(JOBS) --target quorvel_bench
	./build-bench/bench/quorvel_bench --filter='$(BENCH_FILTER)'

install: build
	cmake --install build --prefix $(PREFIX)

format:
	clang-format -i $$(git ls-files '*.cpp' '*.hpp' '*.h')

clean:
	rm -rf build build-asan build-tsan build-bench build-fuzz out
