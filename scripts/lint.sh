#!/usr/bin/env bash
# clang-tidy (with the repository's .clang-tidy) and cppcheck over src/, using
# the compile commands of a configured build. Prints nothing when all is well.
# Usage: lint.sh BUILD_DIR
set -euo pipefail
build=$1
cd "$(dirname "$0")/.."
mapfile -t sources < <(git ls-files 'src/*.cpp')
status=0
findings=$(clang-tidy -p "$build" --quiet "${sources[@]}" 2>/dev/null | grep -v 'warnings generated' || true)
if [ -n "$findings" ]; then
  echo "$findings"
  status=1
fi
cppcheck --quiet --error-exitcode=1 --enable=warning,style,performance,portability --inline-suppr \
  --std=c++17 --suppress=missingIncludeSystem -I src/service/gpuvet "${sources[@]}" || status=1
exit $status
