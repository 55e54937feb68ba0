#!/usr/bin/env bash
# Runs gpuvet on this machine with the sample lists and a result folder, names
# the exit code it ended with, and says in plain words what this machine lacks
# when the run could not test an adapter.
# Usage: run-local.sh BIN_DIR EXAMPLES_DIR RESULTS_DIR [GPUVET_ARGUMENTS...]
set -u
bin=$1 examples=$2 results=$3
shift 3

mkdir -p "$results"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
"$bin/gpuvet" --blacklist "$examples/blacklist.xml" --whitelist "$examples/whitelist.xml" --result "$results" "$@" |
  tee "$log"
status=${PIPESTATUS[0]}

case $status in
  0) name="GPUVET_OK (0)" ;;
  11) name="GPUVET_NOT_IN_WHITELIST (11)" ;;
  12) name="GPUVET_NOT_IN_WHITELIST_OLD_DRIVER (12)" ;;
  13) name="GPUVET_OLD_DRIVER (13)" ;;
  255) name="GPUVET_NO_TEST (-1)" ;;
  246) name="GPUVET_NO_PLATFORM (-10)" ;;
  245) name="GPUVET_IN_BLACKLIST (-11)" ;;
  24) name="GPUVET_INVALID_PARAMETER (-1000)" ;;
  23) name="GPUVET_PURE_CALL (-1001)" ;;
  *) name="not a gpuvet code" ;;
esac
echo "exit status $status: $name"
[ "$status" -eq 246 ] || exit 0

# What the run needed and did not find, in the order gpuvet looks.
echo
echo "What this machine lacks:"
if grep -q '^error  index \[.*\] infos.size\[0\]' "$log"; then
  echo "- a display adapter: /sys/bus/pci/devices has no device of the display class, so there is no adapter"
  echo "  to select (\"error  index ... infos.size[0]\"). Virtual machines and CI runners usually have none."
elif grep -q '^error  index' "$log"; then
  count=$(sed -n 's/^error  index \[.*\] infos.size\[\([0-9]*\)\]$/\1/p' "$log")
  echo "- the adapter that --gpu names: this machine has $count adapter(s), counted from 0 in the order shown above."
fi
if grep -q '^num_platforms: 0' "$log" || ! compgen -G "/etc/OpenCL/vendors/*.icd" >/dev/null; then
  echo "- an OpenCL platform: none is installed. The GPU driver's OpenCL package brings one"
  echo "  (nvidia-opencl-icd, mesa-opencl-icd or intel-opencl-icd on Debian)."
elif ! "$bin/gpuvet-lists" items >/dev/null 2>&1; then
  echo "- an OpenCL GPU device: the installed OpenCL platforms offer none (PoCL, for one, which"
  echo "  \`make test\` installs, has CPU devices only)."
elif grep -q '^ no platform!' "$log"; then
  echo "- an OpenCL GPU device of the tested adapter's vendor: \`gpuvet-lists explain --gpu N\` shows the match."
fi

# What a run looks like where there is something to test: gpuvet's own run over
# a recorded machine of the example fleet, with the same sample lists.
example=hybrid-laptop
snapshot=$examples/fleet/$example.json
if [ ! -f "$snapshot" ]; then
  echo "(the example machine $snapshot is missing: nothing to compare with)"
  exit 0
fi
echo
echo "For comparison, a whole run on an example machine, $snapshot (an Intel and an NVIDIA"
echo "adapter, one OpenCL GPU each), testing its NVIDIA adapter with the same lists:"
echo "  $bin/gpuvet-lists verdict --snapshot $snapshot --gpu 1 --blacklist ... --whitelist ..."
echo "It shows the adapters, the OpenCL census, the device matched to the adapter, the black and white"
echo "list tests and the verdict: this device is not in the sample white list, so the run ends with 11."
echo
"$bin/gpuvet-lists" verdict --snapshot "$snapshot" --gpu 1 --blacklist "$examples/blacklist.xml" \
  --whitelist "$examples/whitelist.xml"
echo "exit status $?"
