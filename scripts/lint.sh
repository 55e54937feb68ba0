#!/usr/bin/env bash
# clang-tidy (with the repository's .clang-tidy) and cppcheck over src/, using
# the compile commands of a configured build. Prints nothing when all is well.
# Usage: lint.sh BUILD_DIR
set -euo pipefail
build=$1
cd "$(dirname "$0")/.."
mapfile -t sources < <(git ls-files 'src/*.cpp')
# clang-tidy sees what this build compiles (the other platform's layer is not);
# cppcheck reads every source.
mapfile -t compiled < <(for source in "${sources[@]}"; do
  grep -q "\"file\": \"$PWD/$source\"" "$build/compile_commands.json" && echo "$source"; done)
status=0
findings=$(clang-tidy -p "$build" --quiet "${compiled[@]}" 2>/dev/null | grep -v 'warnings generated' || true)
if [ -n "$findings" ]; then
  echo "$findings"
  status=1
fi
cppcheck --quiet --error-exitcode=1 --enable=warning,style,performance,portability --inline-suppr \
  --std=c++17 --suppress=missingIncludeSystem --suppress=useStlAlgorithm -I src/service/gpuvet "${sources[@]}" || status=1
exit $status
