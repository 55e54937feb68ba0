#include "verdict/white_list.h"

#include <algorithm>
#include <vector>

#include "adapters/adapter_entry.h"
#include "opencl/cl_device_key.h"
#include "print.h"
#include "verdict/list_file.h"

namespace gpuvet {
namespace {

// Byte order, not number order: "9.17" is at least "10.18", and "391.35" at least "391".
bool AtLeast(const std::string& device, const std::string& item) { return !StringLess(device, item); }

}  // namespace

bool ChooseDeviceUnderTest(int32_t gpuIndex, ClDeviceKey& tocheck) {
  if (gpuIndex >= 0) {
    tocheck = SelectedClDevice;
    return true;
  }
  if (ClDeviceTable.empty()) {
    return false;
  }
  const auto notIntel = std::find_if(ClDeviceTable.begin(), ClDeviceTable.end(),
                                     [](const ClDeviceKey& device) { return device.VID != kIntelVendorId; });
  tocheck = notIntel != ClDeviceTable.end() ? *notIntel : ClDeviceTable.front();
  return true;
}

bool Admits(const ClDeviceKey& item, const ClDeviceKey& tocheck) {
  return item.VID == tocheck.VID && item.DeviceName == tocheck.DeviceName &&
         AtLeast(tocheck.DeviceVersion, item.DeviceVersion) && AtLeast(tocheck.OpenCLCVersion, item.OpenCLCVersion) &&
         AtLeast(tocheck.DriverVersion, item.DriverVersion);
}

bool IsInWhiteList(const char* path, int32_t gpuIndex, const ListReader& readList) {
  Print("check before in white list start\n");
  const ListFile list = readList(path, kWhiteListRoot);
  if (list.outcome != ListFileOutcome::kRead) {
    return false;  // an unreadable list admits no device
  }

  ClDeviceKey tocheck;
  const bool hasDevice = ChooseDeviceUnderTest(gpuIndex, tocheck);
  const bool admitted =
      hasDevice && std::any_of(list.items.begin(), list.items.end(),
                               [&tocheck](const ClDeviceKey& item) { return Admits(item, tocheck); });

  Print("    tocheck: %s, white_list: %llu. ok: %s\n", tocheck.DeviceName.c_str(),
        static_cast<unsigned long long>(list.items.size()), admitted ? "YES" : "NO");
  Print("check before in white list end\n\n");
  return admitted;
}

}  // namespace gpuvet
