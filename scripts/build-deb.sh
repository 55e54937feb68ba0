#!/usr/bin/env bash
# Builds the Debian package from a copy of the sources that git knows (changed
# or not), so that the build leaves nothing in the working tree, and checks it
# with lintian: no error and no warning.
# Usage: build-deb.sh OUT_DIR VERSION JOBS
set -euo pipefail
out=$(realpath -m "$1") version=$2 jobs=$3
root=$(cd "$(dirname "$0")/.." && pwd)

changelog_version=$(dpkg-parsechangelog -l "$root/debian/changelog" -S Version)
if [ "$changelog_version" != "$version" ]; then
  echo "debian/changelog ends at $changelog_version but CMakeLists.txt says $version: add a changelog entry" >&2
  exit 1
fi

source=$out/gpuvet-$version
rm -rf "$out"
mkdir -p "$source"
(cd "$root" && git ls-files -z --cached --others --exclude-standard |
  while IFS= read -r -d '' file; do [ -e "$file" ] && printf '%s\0' "$file"; done |
  tar --null -T - -cf -) | tar -xf - -C "$source"

(cd "$source" && DEB_BUILD_OPTIONS="parallel=$jobs noddebs" dpkg-buildpackage -b -us -uc)
lintian --fail-on error,warning --display-level '>=warning' "$out/gpuvet_${version}_"*.changes
echo "package: $(ls "$out/gpuvet_${version}_"*.deb)"
