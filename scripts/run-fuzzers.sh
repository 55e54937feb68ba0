#!/usr/bin/env bash
# Runs every libFuzzer target (one per fuzz/fuzz_*.cpp), all at once, for a bounded time,
# each from the seeds in fuzz/corpus/NAME, growing a working corpus under the
# build folder. What a run finds lands in BUILD_DIR/artifacts/NAME/.
# Usage: run-fuzzers.sh BUILD_DIR SECONDS_PER_TARGET
set -euo pipefail
build=$1 seconds=$2
root=$(cd "$(dirname "$0")/.." && pwd)

# One target, its findings and its log; says FOUND A FAILURE and fails when the run found one.
fuzz_one() {
  local source=$1 name target binary work artifacts log dict=() seeds=()
  name=$(basename "$source" .cpp)
  target=${name#fuzz_}
  binary=$build/bin/$name
  work=$build/corpus/$target
  artifacts=$build/artifacts/$target
  log=$build/$name.log
  mkdir -p "$work" "$artifacts"
  [ -f "$root/fuzz/$target.dict" ] && dict=(-dict="$root/fuzz/$target.dict")
  [ -d "$root/fuzz/corpus/$target" ] && seeds=("$root/fuzz/corpus/$target")
  if ! "$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$artifacts/" "${dict[@]}" "$work" "${seeds[@]}" 2>"$log"; then
    echo "$name FOUND A FAILURE: see $log and $artifacts/"
    return 1
  fi
}

# The targets fuzz side by side, each on one thread; their reports follow in order.
pids=() sources=("$root"/fuzz/fuzz_*.cpp)
for source in "${sources[@]}"; do
  fuzz_one "$source" &
  pids+=($!)
done
status=0
for i in "${!sources[@]}"; do
  name=$(basename "${sources[$i]}" .cpp)
  wait "${pids[$i]}" || status=1
  echo "== $name for ${seconds}s"
  grep -E "stat::number_of_executed_units|Done [0-9]+ runs" "$build/$name.log" | tail -1 || true
done
exit $status
