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

// Only the items of the device's vendor and name can admit it, and they stand
// together in the sorted list, the one with the least versions first: the scan
// starts there and ends behind them, in the order a scan of the whole list
// would meet them.
std::vector<ClDeviceKey>::const_iterator FirstAdmitting(const std::vector<ClDeviceKey>& items,
                                                       const ClDeviceKey& tocheck) {
  ClDeviceKey first;
  first.VID = tocheck.VID;
  first.DeviceName = tocheck.DeviceName;
  for (auto item = std::lower_bound(items.begin(), items.end(), first, ClDeviceKeyLess);
       item != items.end() && item->VID == tocheck.VID && item->DeviceName == tocheck.DeviceName; ++item) {
    if (Admits(*item, tocheck)) {
      return item;
    }
  }
  return items.end();
}

bool IsInWhiteList(const char* path, int32_t gpuIndex, const ListReader& readList) {
  Print("check before in white list start\n");
  const std::shared_ptr<const ListFile> read = readList(path, kWhiteListRoot);
  const ListFile& list = *read;
  if (list.outcome != ListFileOutcome::kRead) {
    return false;  // an unreadable list admits no device
  }

  ClDeviceKey tocheck;
  const bool hasDevice = ChooseDeviceUnderTest(gpuIndex, tocheck);
  const bool admitted = hasDevice && FirstAdmitting(list.items, tocheck) != list.items.end();

  Print("    tocheck: %s, white_list: %llu. ok: %s\n", tocheck.DeviceName.c_str(),
        static_cast<unsigned long long>(list.items.size()), admitted ? "YES" : "NO");
  Print("check before in white list end\n\n");
  return admitted;
}

}  // namespace gpuvet
