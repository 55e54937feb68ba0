#!/usr/bin/env bash
# Runs every libFuzzer target for a bounded time, each from the seeds in
# fuzz/corpus/NAME, growing a working corpus under the build folder.
# Usage: run-fuzzers.sh BUILD_DIR SECONDS_PER_TARGET
set -euo pipefail
build=$1 seconds=$2
root=$(cd "$(dirname "$0")/.." && pwd)

status=0
for target in list_file result_file command_line; do
  binary=$build/fuzz/fuzz_$target
  work=$build/fuzz-corpus/$target
  mkdir -p "$work" "$build/fuzz-artifacts/$target"
  dict=()
  [ -f "$root/fuzz/$target.dict" ] && dict=(-dict="$root/fuzz/$target.dict")
  echo "== fuzz_$target for ${seconds}s"
  if ! "$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$build/fuzz-artifacts/$target/" "${dict[@]}" "$work" "$root/fuzz/corpus/$target" \
      2>"$build/fuzz-$target.log"; then
    echo "fuzz_$target FOUND A FAILURE: see $build/fuzz-$target.log and $build/fuzz-artifacts/$target/"
    status=1
  fi
  grep -E "stat::number_of_executed_units|Done [0-9]+ runs" "$build/fuzz-$target.log" | tail -1 || true
done
exit $status
