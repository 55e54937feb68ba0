#pragma once

#include "adapters/adapter_entry.h"
#include "machine_source.h"

namespace gpuvet {

// Builds the adapter list from the hardware library's records, each completed
// with its driver version and date, and prints one line per adapter. The
// records and the driver rows come from the machine.
void CollectAdapters(AdapterList& adapters, const MachineSource& machine);
void CollectAdapters(AdapterList& adapters);

// Driver date of an adapter whose driver lookup found no row.
constexpr const char* kFallbackDriverDate = "2012";

}  // namespace gpuvet
