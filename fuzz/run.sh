#!/usr/bin/env bash
# Fuzzes every target of a fuzzer build for a bounded time each, one after the
# other, and stops by itself. New inputs go to <build>/fuzz-work/<target>/ (the
# committed seeds in fuzz/corpus/ are read, never written); a crash, leak or
# failed check leaves its input in <build>/fuzz-artifacts/<target>/ and makes
# the script exit 1 after the remaining targets ran.
# Usage: fuzz/run.sh <fuzzer build dir> [seconds per target] [target...]
set -uo pipefail

build=${1:?usage: fuzz/run.sh <fuzzer build dir> [seconds] [target...]}
seconds=${2:-60}
shift $(( $# >= 2 ? 2 : 1 ))
here=$(cd "$(dirname "$0")" && pwd)
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(frame inifile resource policy whitelist record)

# Longest input per target: a frame may carry 64503 body bytes; the files are
# small in real life.
declare -A max_len=([frame]=70000 [inifile]=12000 [resource]=8192 [policy]=8192
                    [whitelist]=6000 [record]=4096)
declare -A dict=([frame]=frame.dict [inifile]=ini.dict [resource]=json.dict
                 [policy]=json.dict)

failed=()
for t in "${targets[@]}"; do
  bin="$build/fuzz/fuzz_$t"
  if [ ! -x "$bin" ]; then
    echo "fuzz: $bin missing" >&2
    failed+=("$t")
    continue
  fi
  work="$build/fuzz-work/$t"
  art="$build/fuzz-artifacts/$t"
  mkdir -p "$work" "$art"
  args=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
        -max_len="${max_len[$t]:-4096}" -artifact_prefix="$art/")
  [ -n "${dict[$t]:-}" ] && args+=(-dict="$here/dict/${dict[$t]}")
  echo "fuzz: $t for ${seconds}s"
  if ! "$bin" "${args[@]}" "$work" "$here/corpus/$t" > "$build/fuzz-$t.log" 2>&1; then
    echo "fuzz: $t FAILED, see $build/fuzz-$t.log and $art/" >&2
    tail -n 40 "$build/fuzz-$t.log" >&2
    failed+=("$t")
    continue
  fi
  grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb)|^#[0-9]+ +DONE' \
    "$build/fuzz-$t.log" | sed "s/^/fuzz: $t: /"
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: findings in: ${failed[*]}" >&2
  exit 1
fi
echo "fuzz: ${#targets[@]} targets ran ${seconds}s each, no finding"
