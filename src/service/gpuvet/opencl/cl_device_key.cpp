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

bool ClDeviceKeyLess(const ClDeviceKey& a, const ClDeviceKey& b) {
  if (a.VID != b.VID) {
    return a.VID < b.VID;
  }
  const std::string ClDeviceKey::*const stringFields[] = {&ClDeviceKey::DeviceName, &ClDeviceKey::OpenCLCVersion,
                                                          &ClDeviceKey::DeviceVersion, &ClDeviceKey::DriverVersion};
  const auto differing = std::find_if(std::begin(stringFields), std::end(stringFields),
                                     [&a, &b](const auto field) { return a.*field != b.*field; });
  return differing != std::end(stringFields) && StringLess(a.**differing, b.**differing);
}

void SortUnique(std::vector<ClDeviceKey>& keys) {
  std::sort(keys.begin(), keys.end(), ClDeviceKeyLess);
  keys.erase(std::unique(keys.begin(), keys.end(), ClDeviceKeyEqual), keys.end());
}

}  // namespace gpuvet
