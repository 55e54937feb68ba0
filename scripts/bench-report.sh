#!/usr/bin/env bash
# Runs the benchmarks of a Release build and writes them to one report.
# Usage: bench-report.sh BUILD_DIR
set -euo pipefail
build=$1
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
  echo "## Whole runs"
  echo
  "$build/bin/gpuvet_bench_whole_run"
} > "$report"
cat "$report"
echo "report: $report"
