#!/usr/bin/env bash
# Runs every benchmark from a built tree and gathers their figures.
# Usage: bench/run_all.sh <build dir>
# Environment: BENCH_QUICK=1 shortens the long runs (10 s idle, 3 s of HTTPS
# load, 20,000 dispatch frames, 50 commands) for a quick check.
set -euo pipefail

build=${1:?usage: run_all.sh <build dir>}
out="$build/bench-results.txt"
log="$build/bench-output.txt"

args=()
if [ "${BENCH_QUICK:-0}" = 1 ]; then
  args=(--idle-seconds 10 --https-seconds 3 --frames 20000 --commands 50)
fi

machine() {
  echo "date:    $(date -u '+%Y-%m-%d %H:%M UTC')"
  echo "cpu:     $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), $(nproc) cores"
  echo "memory:  $(awk '/MemTotal/ {printf "%.1f GiB", $2/1048576}' /proc/meminfo)"
  echo "kernel:  $(uname -r)"
  echo "load:    $(cut -d' ' -f1-3 /proc/loadavg) (1, 5, 15 min) at $1"
}

run_all() {
  local rc=0
  machine start
  # The parsers the figures are read with, checked before any figure is taken.
  if [ -x "$build/bench/bench_figures_test" ]; then
    "$build/bench/bench_figures_test" --gtest_brief=1 || return 1
  fi
  "$build/bench/codec_bench" || rc=1
  "$build/bench/daemon_bench" all "${args[@]}" || rc=1
  machine end | tail -1
  return $rc
}

set +e
run_all 2>&1 | tee "$log"
status=${PIPESTATUS[0]}
set -e

{
  grep -E '^(date|cpu|memory|kernel|load):' "$log"
  grep -E '^(RESULT|VERDICT|FAILED) ' "$log"
} > "$out"
echo
echo "== Summary ($out) =="
cat "$out"
exit "$status"
