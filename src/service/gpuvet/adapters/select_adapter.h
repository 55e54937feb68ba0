#pragma once

#include <cstddef>
#include <cstdint>

#include "adapters/adapter_entry.h"

namespace gpuvet {

// Chooses the adapter that the run tests: the one at gpuIndex, or without an
// index the first adapter that is not Intel's. 0 when selected, -1 when not.
int32_t SelectAdapter(int32_t gpuIndex, const AdapterList& adapters, AdapterEntry& selected);
// The position in the list that SelectAdapter takes its copy from, when it selects one.
std::size_t SelectedPosition(int32_t gpuIndex, const AdapterList& adapters);

}  // namespace gpuvet
