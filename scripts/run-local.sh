#!/usr/bin/env bash
# Runs gpuvet on this machine with the sample lists and a result folder, then
# names the exit code it ended with.
set -u
binary=$1 blacklist=$2 whitelist=$3 results=$4
shift 4

mkdir -p "$results"
"$binary" --blacklist "$blacklist" --whitelist "$whitelist" --result "$results" "$@"
status=$?

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
