#!/usr/bin/env bash
# Installs the Debian packages that gpuvet needs, for one purpose:
#   run      building and running the tools, with their manual pages
#   package  building the Debian package and checking it (lintian, groff)
#   test     the tests, the fuzzers, the benchmarks and the package too
# Running the tool never installs an OpenCL platform: one installed for the
# tests (PoCL) changes the verdict the tool gives on this machine.
# Does nothing when all of them are there; runs apt-get update only when one is missing.
set -euo pipefail

purpose=${1:-run}
run_packages=(
  build-essential cmake pkg-config
  libpci-dev pci.ids
  libtinyxml2-dev
  ocl-icd-opencl-dev ocl-icd-libopencl1 opencl-headers opencl-clhpp-headers
  nlohmann-json3-dev libsimdjson-dev
  scdoc
)
package_packages=(
  debhelper dpkg-dev lintian groff-base
)
test_packages=(
  pciutils util-linux mount
  libgtest-dev libgmock-dev libbenchmark-dev parallel time bc
  clang libclang-rt-dev clang-tidy cppcheck
  pocl-opencl-icd clinfo
)

case $purpose in
  run) packages=("${run_packages[@]}") ;;
  package) packages=("${run_packages[@]}" "${package_packages[@]}") ;;
  test) packages=("${run_packages[@]}" "${package_packages[@]}" "${test_packages[@]}") ;;
  *) echo "usage: $0 run|package|test" >&2; exit 2 ;;
esac

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
