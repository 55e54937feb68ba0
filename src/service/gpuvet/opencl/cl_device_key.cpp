#include "opencl/cl_device_key.h"

#include <algorithm>
#include <cstring>

namespace gpuvet {

std::vector<ClDeviceKey> ClDeviceTable;
ClDeviceKey SelectedClDevice;

namespace {

// Negative, 0 or positive as a sorts before, with or after b: the common length
// byte by byte as unsigned bytes, then the shorter first.
int ByteOrder(const std::string& a, const std::string& b) {
  const std::size_t common = std::min(a.size(), b.size());
  const int order = common == 0 ? 0 : std::memcmp(a.data(), b.data(), common);
  if (order != 0) {
    return order;
  }
  return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

}  // namespace

bool StringLess(const std::string& a, const std::string& b) {
  return ByteOrder(a, b) < 0;
}

bool ClDeviceKeyEqual(const ClDeviceKey& a, const ClDeviceKey& b) {
  return a.VID == b.VID && a.DeviceName == b.DeviceName && a.OpenCLCVersion == b.OpenCLCVersion &&
         a.DeviceVersion == b.DeviceVersion && a.DriverVersion == b.DriverVersion;
}

// The first field that differs decides; each string is compared once.
bool ClDeviceKeyLess(const ClDeviceKey& a, const ClDeviceKey& b) {
  if (a.VID != b.VID) {
    return a.VID < b.VID;
  }
  int order = ByteOrder(a.DeviceName, b.DeviceName);
  if (order == 0) {
    order = ByteOrder(a.OpenCLCVersion, b.OpenCLCVersion);
  }
  if (order == 0) {
    order = ByteOrder(a.DeviceVersion, b.DeviceVersion);
  }
  if (order == 0) {
    order = ByteOrder(a.DriverVersion, b.DriverVersion);
  }
  return order < 0;
}

void SortUnique(std::vector<ClDeviceKey>& keys) {
  std::sort(keys.begin(), keys.end(), ClDeviceKeyLess);
  keys.erase(std::unique(keys.begin(), keys.end(), ClDeviceKeyEqual), keys.end());
}

}  // namespace gpuvet
