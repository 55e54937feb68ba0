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
// The longest adapter name, in bytes: the name field of an adapter record less its closing NUL.
constexpr std::size_t kMaxDeviceNameBytes = 127;
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
// the file is missing or holds anything but one whole number.
std::optional<uint32_t> ReadNumberFile(const std::string& path);

// The name cut to the length an adapter record holds, so that the adapter list
// and the driver rows give one name.
std::string ClipDeviceName(std::string name);

// True when the PCI ID database names the vendor id.
bool KnowsVendor(uint32_t vendorId);

// The device name that lspci shows for the ids, or libpci's fallback text, cut
// to kMaxDeviceNameBytes.
std::string LookupDeviceName(uint32_t vendorId, uint32_t deviceId);

}  // namespace gpuvet::platform::sysfs
