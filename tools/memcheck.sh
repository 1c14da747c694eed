#!/usr/bin/env bash
# The daemon's end-to-end run under valgrind memcheck (tests/e2e, ctest
# label memcheck): builds the daemon and the scenario in a plain build and runs
# it. Fails on any invalid read or write and on any definite or indirect leak.
# Usage: tools/memcheck.sh [build dir]   (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}

if ! command -v valgrind > /dev/null; then
  echo "memcheck: valgrind is missing (tools/bootstrap.sh installs it)" >&2
  exit 1
fi
# Sanitizer runtimes and valgrind exclude each other.
if grep -qs '^TOLVARIND_SANITIZE:STRING=..*' "$build/CMakeCache.txt"; then
  echo "memcheck: $build is a sanitizer build; give a plain one" >&2
  exit 1
fi
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo ${CMAKE_ARGS:-}
cmake --build "$build" -j"$(nproc)" --target tolvarind daemon_e2e_test
ctest --test-dir "$build" --output-on-failure -V -L memcheck | grep -E 'memcheck:|tests passed|tests failed|Passed|Failed|Failure|\[ *(OK|FAILED) *\]'
exit "${PIPESTATUS[0]}"
