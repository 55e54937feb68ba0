#!/usr/bin/env bash
# Unpacks the Debian package into a scratch root and runs both installed tools
# from there; checks its dependencies and its manual pages.
# Usage: check-package.sh DEB_DIR VERSION
set -euo pipefail
dir=$1 version=$2
deb=$(ls "$dir/gpuvet_${version}_"*.deb)
root=$dir/root
rm -rf "$root"
dpkg-deb -x "$deb" "$root"

failures=0
fail() {
  echo "FAILED: $*" >&2
  failures=$((failures + 1))
}

# The loader, never a platform: a platform installed with the package would
# change the verdict gpuvet gives on the machine.
depends=$(dpkg-deb -f "$deb" Depends)
[[ $depends == *ocl-icd-libopencl1* ]] || fail "Depends lacks the OpenCL ICD loader: $depends"
[[ $depends != *opencl-icd* ]] || fail "Depends names an OpenCL platform: $depends"

status=0
"$root/usr/bin/gpuvet" --notest >/dev/null || status=$?
[ "$status" -eq 255 ] || fail "gpuvet --notest gave $status, not 255"

"$root/usr/bin/gpuvet-lists" lint "$root/usr/share/doc/gpuvet/examples/"*.xml ||
  fail "gpuvet-lists lint of the installed examples gave $?"

# The example machines, read whole (uncompressed) by the installed tool.
for snapshot in "$root/usr/share/doc/gpuvet/examples/fleet/"*.json; do
  status=0
  "$root/usr/bin/gpuvet-lists" verdict --snapshot "$snapshot" --notest >/dev/null || status=$?
  [ "$status" -eq 255 ] || fail "gpuvet-lists verdict --snapshot $snapshot --notest gave $status, not 255"
done

said=$("$root/usr/bin/gpuvet-lists" --version)
[ "$said" = "gpuvet-lists $version" ] || fail "gpuvet-lists --version says '$said', not $version"

for page in gpuvet gpuvet-lists; do
  manual=$root/usr/share/man/man1/$page.1.gz
  if [ ! -f "$manual" ]; then
    fail "no manual page $page(1)"
    continue
  fi
  warnings=$(gzip -dc "$manual" | LC_ALL=C.UTF-8 groff -man -ww -z 2>&1)
  [ -z "$warnings" ] || fail "$page(1) renders with warnings: $warnings"
done

[ "$failures" -eq 0 ] || exit 1
echo "package $deb: installed tools and manual pages work"
