#!/usr/bin/env bash
# Installs the Debian packages that building, running and testing gpuvet need.
# Does nothing when all of them are there; runs apt-get update only when one is missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libpci-dev pci.ids pciutils
  libtinyxml2-dev
  ocl-icd-opencl-dev ocl-icd-libopencl1 opencl-headers opencl-clhpp-headers
  nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-dev
  pocl-opencl-icd clinfo
  util-linux mount
)

installed() {
  [ "$(dpkg-query -W -f='${Status}' "$1" 2>/dev/null)" = "install ok installed" ]
}

missing=()
for package in "${packages[@]}"; do
  installed "$package" || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
