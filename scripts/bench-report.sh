#!/usr/bin/env bash
# Runs the benchmarks of a Release build and writes them to one report.
# Usage: bench-report.sh BUILD_DIR [FLEET_MACHINES]
set -euo pipefail
build=$1
machines=${2:-1000000}
fleet=$build/fleet-$machines
if [ ! -s "$fleet/fleet.jsonl" ]; then
  python3 "$(dirname "$0")/../bench/make_fleet.py" "$fleet" "$machines" 1000
fi
lists=(--blacklist "$fleet/old-black.xml" --whitelist "$fleet/old-white.xml"
       --new-blacklist "$fleet/new-black.xml" --new-whitelist "$fleet/new-white.xml" --gpu 0)
report=$build/report.md

{
  echo "# gpuvet benchmarks"
  echo
  echo "$(date -u +%Y-%m-%d) on $(nproc) cores; $(uname -r)."
  echo
  echo "## List files: each list test against the XML parse of the same file alone"
  echo
  echo '```'
  "$build/bin/gpuvet_bench_lists" --benchmark_color=false --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true 2>&1
  echo '```'
  echo
  echo "## The result file: the reader against the JSON parse of the same text alone"
  echo
  echo '```'
  "$build/bin/gpuvet_bench_result_file" --benchmark_color=false --benchmark_repetitions=3 --benchmark_report_aggregates_only=true 2>&1
  echo '```'
  echo
  echo "## impact: $machines snapshots (JSON Lines) against lists of 1,000 items"
  echo
  echo '```'
  "$build/bench/gpuvet_bench_fleet" "$fleet"
  lister=$build/src/service/gpuvet/lists/gpuvet-lists
  { /usr/bin/time -f "gpuvet-lists impact, one process: %e s wall, %U s user, %M KB peak" \
      "$lister" impact "${lists[@]}" "$fleet/fleet.jsonl" > /dev/null; } 2>&1 || true
  start=$(date +%s.%N)
  parallel --pipepart -a "$fleet/fleet.jsonl" --block -1 -j "$(nproc)" \
    "$lister" impact "${lists[@]}" --partial --input-name 'part{#}' - > "$fleet/parts.jsonl" || true
  "$lister" impact --merge "$fleet/parts.jsonl" > /dev/null || true
  echo "gpuvet-lists impact split over $(nproc) cores with GNU parallel, then merged:" \
    "$(echo "$(date +%s.%N) - $start" | bc) s wall"
  echo '```'
  echo
  echo "## Whole runs"
  echo
  "$build/bin/gpuvet_bench_whole_run"
} > "$report"
cat "$report"
echo "report: $report"
