#include "opencl/match_cl_device.h"

#include <algorithm>
#include <string>

#include "exit_codes.h"

namespace gpuvet {
namespace {

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Loose on purpose: the adapter list and OpenCL name one card differently, so
// either name may hold the other, and the same vendor alone is enough.
bool Fits(const AdapterEntry& adapter, const ClDeviceKey& device) {
  return NamesFit(adapter, device) || device.VID == adapter.venID;
}

}  // namespace

bool NamesFit(const AdapterEntry& adapter, const ClDeviceKey& device) {
  return Contains(adapter.devName, device.DeviceName) || Contains(device.DeviceName, adapter.devName);
}

int32_t MatchClDevice(int32_t selector, const AdapterEntry& adapter, ClDeviceKey& target) {
  if (selector < 0) {
    target.DeviceName = adapter.devName;
    return GPUVET_OK;
  }
  // The first fitting row in table order wins, even if a later one fits better.
  const auto fitting = std::find_if(ClDeviceTable.begin(), ClDeviceTable.end(),
                                    [&adapter](const ClDeviceKey& device) { return Fits(adapter, device); });
  if (fitting == ClDeviceTable.end()) {
    return GPUVET_NO_PLATFORM;
  }
  target = *fitting;
  return GPUVET_OK;
}

}  // namespace gpuvet
