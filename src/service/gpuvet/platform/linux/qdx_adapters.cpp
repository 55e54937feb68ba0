// The display adapters from sysfs, named through the PCI ID database.
#include <algorithm>
#include <iterator>

#include "platform/linux/pci_devices.h"
#include "platform/qdx.h"
#include "platform/qdx_log.h"

std::vector<qdx::platform::AdapterInfo_> QDXGetAdapterInfos() {
  using gpuvet::platform::QdxLog;
  using gpuvet::platform::kSkipMessageLevel;
  const auto devices = gpuvet::platform::sysfs::ListDisplayDevices(
      gpuvet::platform::sysfs::kPciDevicesDir, [](const std::string& message) { QdxLog(kSkipMessageLevel, message); });
  std::vector<qdx::platform::AdapterInfo_> records;
  if (devices) {
    std::transform(devices->begin(), devices->end(), std::back_inserter(records),
                   [](const gpuvet::platform::sysfs::PciDisplayDevice& device) {
                     return gpuvet::platform::MakeAdapterRecord(device.name, device.vendorId, device.deviceId);
                   });
  }
  return records;
}
