# Thin wrapper over CMake. The two commands a newcomer needs: `make demo`, `make test`.
JOBS       ?= $(shell nproc)
CTEST_JOBS ?= 8
CMAKE_ARGS ?=

.PHONY: all bootstrap build test test-main asan tsan bench clean demo package
.PHONY: fuzz fuzz-replay memcheck

all: build

bootstrap:
	@tools/bootstrap.sh

build:
	cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)
	cmake --build build -j$(JOBS)

test-main: build
	ctest --test-dir build --output-on-failure -j$(CTEST_JOBS)

# ASan + UBSan build running the whole suite.
asan:
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DTOLVARIND_SANITIZE=address $(CMAKE_ARGS)
	cmake --build build-asan -j$(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir build-asan --output-on-failure -j$(CTEST_JOBS)

# ThreadSanitizer build running the tests labelled `tsan` (channel and daemon).
tsan:
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DTOLVARIND_SANITIZE=thread $(CMAKE_ARGS)
	cmake --build build-tsan -j$(JOBS)
	# An explicit TZ keeps glibc's mktime (called by glog on every line) from
	# rewriting its cached zone under a lock TSan cannot see.
	TZ=:/etc/localtime TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  ctest --test-dir build-tsan --output-on-failure -j$(CTEST_JOBS) -L tsan

test: bootstrap
	$(MAKE) test-main
	$(MAKE) asan
	$(MAKE) tsan

# The demo and the package build only what they need, in BUILD_DIR.
BUILD_DIR ?= build

# The real daemon against the peer simulator, in a private namespace (tools/demo/demo.sh).
demo: bootstrap
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)
	cmake --build $(BUILD_DIR) -j$(JOBS) --target tolvarind ventrald-sim
	tools/demo/demo.sh $(BUILD_DIR)

# The Debian package, written to $(BUILD_DIR) once lintian and the package
# checks pass (packaging/test_package.sh, docs/packaging.md).
package: bootstrap
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)
	cmake --build $(BUILD_DIR) -j$(JOBS) --target checked_package

# Benchmarks, never part of `make test`: a Release build with them, then all of
# them, each beside its baseline (docs/benchmarks.md). BENCH_QUICK=1 for short runs.
bench:
	@tools/bootstrap.sh wrk nginx-light
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DTOLVARIND_BUILD_BENCH=ON \
	  -DTOLVARIND_BUILD_TESTS=OFF $(CMAKE_ARGS)
	cmake --build build-bench -j$(JOBS) --target bench_figures_test codec_bench daemon_bench
	BENCH_QUICK=$(BENCH_QUICK) bench/run_all.sh build-bench

# libFuzzer targets (clang, ASan + UBSan), each fuzzed for FUZZ_SECONDS, then
# stop; never part of `make test`, whose runs replay the corpora instead
# (docs/hardening.md). New inputs stay in build-fuzz/fuzz-work/.
FUZZ_SECONDS ?= 60
fuzz: bootstrap
	cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
	  -DCMAKE_CXX_COMPILER=clang++ -DTOLVARIND_BUILD_FUZZERS=ON -DTOLVARIND_BUILD_TESTS=OFF \
	  $(CMAKE_ARGS)
	cmake --build build-fuzz -j$(JOBS) --target fuzzers
	fuzz/run.sh build-fuzz $(FUZZ_SECONDS)

# Only the replay of the committed fuzz corpora (every ctest run has it too).
fuzz-replay: build
	ctest --test-dir build --output-on-failure -L fuzz

# The daemon's end-to-end run under valgrind memcheck (tools/memcheck.sh); the
# plain build's `make test` runs it too when valgrind is there.
memcheck: bootstrap
	tools/memcheck.sh build

clean:
	rm -rf build build-asan build-tsan build-bench
	rm -rf build-fuzz
