#include "adapters/select_adapter.h"

#include <algorithm>

#include "print.h"

namespace gpuvet {
namespace {

// Without an index the first adapter that is not Intel's, else the first one.
std::size_t DefaultAdapterPosition(const AdapterList& adapters) {
  const auto nonIntel = std::find_if(adapters.begin(), adapters.end(),
                                     [](const AdapterEntry& entry) { return entry.venID != kIntelVendorId; });
  return nonIntel == adapters.end() ? 0 : static_cast<std::size_t>(nonIntel - adapters.begin());
}

}  // namespace

std::size_t SelectedPosition(int32_t gpuIndex, const AdapterList& adapters) {
  return gpuIndex >= 0 ? static_cast<std::size_t>(gpuIndex) : DefaultAdapterPosition(adapters);
}

int32_t SelectAdapter(int32_t gpuIndex, const AdapterList& adapters, AdapterEntry& selected) {
  Print("Adapter: %d\n", gpuIndex);
  const bool indexBeyondEnd = gpuIndex >= 0 && static_cast<std::size_t>(gpuIndex) >= adapters.size();
  if (indexBeyondEnd || adapters.empty()) {
    Print("error  index [%d] infos.size[%zu]\n", gpuIndex, adapters.size());
    return -1;
  }
  selected = adapters[SelectedPosition(gpuIndex, adapters)];
  PrintAdapterLine(selected);
  return 0;
}

}  // namespace gpuvet
