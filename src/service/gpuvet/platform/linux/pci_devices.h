#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// The PCI display adapters that sysfs shows, shared by the adapter list and the
// driver rows.
namespace gpuvet::platform::sysfs {

constexpr const char* kPciDevicesDir = "/sys/bus/pci/devices";
// class >> 16 of a display controller: VGA, XGA, 3D and other display alike.
constexpr uint32_t kDisplayClassCode = 0x03;

struct PciDisplayDevice {
  std::string address;   // domain:bus:device.function, the entry's name
  std::string entryDir;  // devicesDir + "/" + address
  uint32_t vendorId = 0;
  uint32_t deviceId = 0;
  std::string name;      // the PCI ID database's device name
};

// Receives one line for each entry passed over because a file was unreadable.
using SkipReporter = std::function<void(const std::string& message)>;

// The display adapters under devicesDir in PCI address order; nullopt when the
// folder can't be read.
std::optional<std::vector<PciDisplayDevice>> ListDisplayDevices(const std::string& devicesDir,
                                                                const SkipReporter& reportSkip);

// Reads a file that holds one number as text ("0x10de", "0x030000"). nullopt when
// the file is missing or holds no number.
std::optional<uint32_t> ReadNumberFile(const std::string& path);

// True when the PCI ID database names the vendor id.
bool KnowsVendor(uint32_t vendorId);

// The device name that lspci shows for the ids, or libpci's fallback text.
std::string LookupDeviceName(uint32_t vendorId, uint32_t deviceId);

}  // namespace gpuvet::platform::sysfs
