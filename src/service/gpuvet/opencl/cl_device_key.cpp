#include "opencl/cl_device_key.h"

#include <algorithm>
#include <cstring>

namespace gpuvet {

std::vector<ClDeviceKey> ClDeviceTable;
ClDeviceKey SelectedClDevice;

bool StringLess(const std::string& a, const std::string& b) {
  const std::size_t common = std::min(a.size(), b.size());
  const int order = common == 0 ? 0 : std::memcmp(a.data(), b.data(), common);
  return order != 0 ? order < 0 : a.size() < b.size();
}

bool ClDeviceKeyEqual(const ClDeviceKey& a, const ClDeviceKey& b) {
  return a.VID == b.VID && a.DeviceName == b.DeviceName && a.OpenCLCVersion == b.OpenCLCVersion &&
         a.DeviceVersion == b.DeviceVersion && a.DriverVersion == b.DriverVersion;
}

// The first field that differs decides.
bool ClDeviceKeyLess(const ClDeviceKey& a, const ClDeviceKey& b) {
  if (a.VID != b.VID) {
    return a.VID < b.VID;
  }
  if (a.DeviceName != b.DeviceName) {
    return StringLess(a.DeviceName, b.DeviceName);
  }
  if (a.OpenCLCVersion != b.OpenCLCVersion) {
    return StringLess(a.OpenCLCVersion, b.OpenCLCVersion);
  }
  if (a.DeviceVersion != b.DeviceVersion) {
    return StringLess(a.DeviceVersion, b.DeviceVersion);
  }
  return StringLess(a.DriverVersion, b.DriverVersion);
}

// The order is total, so no stable sort is needed: equal keys are equal in every field.
void SortUnique(std::vector<ClDeviceKey>& keys) {
  std::sort(keys.begin(), keys.end(), ClDeviceKeyLess);
  keys.erase(std::unique(keys.begin(), keys.end(), ClDeviceKeyEqual), keys.end());
}

}  // namespace gpuvet
