#!/usr/bin/env bash
# Installs what the Windows build (mingw-w64) and its tests under Wine need, and
# fetches the Debian sources of tinyxml2 and simdjson for the cross build. Used by `make windows`
# and `make test`, never by `make run`. Does nothing when all is there.
set -euo pipefail

packages=(
  build-essential cmake pkg-config dpkg-dev
  mingw-w64 wine wine64
  ocl-icd-libopencl1 ocl-icd-opencl-dev opencl-headers opencl-clhpp-headers
  nlohmann-json3-dev
)

installed() {
  [ "$(dpkg-query -W -f='${Status}' "$1" 2>/dev/null)" = "install ok installed" ]
}

sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)

missing=()
for package in "${packages[@]}"; do
  installed "$package" || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  "${sudo[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# tinyxml2 and simdjson have no mingw package: their Debian sources are built
# with the cross toolchain. apt needs a deb-src entry for the running release.
source_dir="${1:-build/windows-deps}"
declare -A source_files=([tinyxml2]=tinyxml2.cpp [simdjson]=singleheader/simdjson.cpp)
for package in tinyxml2 simdjson; do
  compgen -G "$source_dir/$package-*/${source_files[$package]}" >/dev/null && continue
  if ! apt-get source --print-uris "$package" >/dev/null 2>&1; then
    . /etc/os-release
    echo "adding a deb-src entry for $VERSION_CODENAME (for the $package source of the Windows build)"
    # The same archive as the release's own binary entry, with its keyring.
    uri=$(apt-get indextargets --format '$(REPO_URI) $(RELEASE)' 'Created-By: Packages' |
      awk -v release="$VERSION_CODENAME" '$2 == release { print $1; exit }')
    printf 'Types: deb-src\nURIs: %s\nSuites: %s\nComponents: main\nSigned-By: %s\n' \
      "$uri" "$VERSION_CODENAME" /usr/share/keyrings/debian-archive-keyring.gpg |
      "${sudo[@]}" tee /etc/apt/sources.list.d/gpuvet-windows-src.sources >/dev/null
    "${sudo[@]}" apt-get update -qq
  fi
  mkdir -p "$source_dir"
  (cd "$source_dir" && apt-get source -qq "$package" >/dev/null)
done
