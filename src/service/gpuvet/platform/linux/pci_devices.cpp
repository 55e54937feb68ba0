#include "platform/linux/pci_devices.h"
#include "platform/pci_ids.h"

extern "C" {
#include <pci/pci.h>
}

#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>

#include "platform/linux/driver_row_text.h"

namespace gpuvet::platform::sysfs {
namespace {

struct PciAccessDeleter {
  void operator()(pci_access* access) const { pci_cleanup(access); }
};
using PciAccessPtr = std::unique_ptr<pci_access, PciAccessDeleter>;

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

// libpci's warnings (an unreadable ID file, say) must not reach standard output.
void IgnorePciMessage(char* /*format*/, ...) {}

// The ID database is loaded once per process and used for every lookup.
pci_access& NameDatabase() {
  static const PciAccessPtr access = [] {
    PciAccessPtr created(pci_alloc());
    created->warning = IgnorePciMessage;
    created->debug = IgnorePciMessage;
    return created;
  }();
  return *access;
}

std::vector<std::string> ListEntryNames(DIR* dir) {
  std::vector<std::string> names;
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

std::optional<uint32_t> ReadNumberFile(const std::string& path) {
  std::ifstream file(path);
  if (!file) {
    return std::nullopt;
  }
  std::ostringstream text;
  text << file.rdbuf();
  return ParseSysfsNumber(text.str());
}

std::string ClipDeviceName(std::string name) {
  name.resize(std::min(name.size(), kMaxDeviceNameBytes));
  return name;
}

std::string LookupDeviceName(uint32_t vendorId, uint32_t deviceId) {
  char buffer[1024] = {};
  const char* name = pci_lookup_name(&NameDatabase(), buffer, sizeof buffer, PCI_LOOKUP_DEVICE,
                                     static_cast<int>(vendorId), static_cast<int>(deviceId));
  return ClipDeviceName(name != nullptr ? std::string(name) : std::string());
}

bool KnowsVendor(uint32_t vendorId) {
  char buffer[256] = {};
  return pci_lookup_name(&NameDatabase(), buffer, sizeof buffer, PCI_LOOKUP_VENDOR | PCI_LOOKUP_NO_NUMBERS,
                         static_cast<int>(vendorId)) != nullptr;
}

std::optional<std::vector<PciDisplayDevice>> ListDisplayDevices(const std::string& devicesDir,
                                                                const SkipReporter& reportSkip) {
  const DirPtr dir(opendir(devicesDir.c_str()));
  if (!dir) {
    return std::nullopt;
  }
  std::vector<PciDisplayDevice> devices;
  for (const std::string& address : ListEntryNames(dir.get())) {
    const std::string entryDir = devicesDir + "/" + address;
    const std::optional<uint32_t> classCode = ReadNumberFile(entryDir + "/class");
    if (!classCode) {
      reportSkip("skipping " + address + ": class unreadable");
      continue;
    }
    if ((*classCode >> 16) != kDisplayClassCode) {
      continue;
    }
    const std::optional<uint32_t> vendorId = ReadNumberFile(entryDir + "/vendor");
    const std::optional<uint32_t> deviceId = ReadNumberFile(entryDir + "/device");
    if (!vendorId || !deviceId) {
      reportSkip("skipping " + address + (vendorId ? ": device unreadable" : ": vendor unreadable"));
      continue;
    }
    devices.push_back({address, entryDir, *vendorId, *deviceId, LookupDeviceName(*vendorId, *deviceId)});
  }
  return devices;
}

}  // namespace gpuvet::platform::sysfs

namespace gpuvet::platform {

// A database that does not name Intel is no database at all.
bool IsKnownVendor(uint32_t vendorId) {
  static const bool haveDatabase = sysfs::KnowsVendor(0x8086);
  return !haveDatabase || sysfs::KnowsVendor(vendorId);
}

}  // namespace gpuvet::platform
