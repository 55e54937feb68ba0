#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/driver_rows.h"
#include "platform/linux/pci_devices.h"

// The driver rows as sysfs, the module tree and the kernel's own files show them.
namespace gpuvet::platform::sysfs {

constexpr const char* kSysModuleDir = "/sys/module";
constexpr const char* kLibModulesDir = "/lib/modules";
constexpr const char* kKernelInfoDir = "/proc/sys/kernel";

// The folders the rows are read from; a test machine stands in for them.
struct DriverRowRoots {
  std::string pciDevicesDir = kPciDevicesDir;  // one entry per PCI function
  std::string sysModuleDir = kSysModuleDir;    // MODULE/version of loaded modules
  std::string libModulesDir = kLibModulesDir;  // RELEASE/modules.dep and the module files
  std::string kernelInfoDir = kKernelInfoDir;  // osrelease and version of the running kernel
};

// One row per display adapter under roots.pciDevicesDir, in adapter list order.
// False, with no rows, when that folder can't be read; any other missing source
// leaves its property missing.
bool ReadDriverRows(const DriverRowRoots& roots, std::vector<DriverRow>& rows);

}  // namespace gpuvet::platform::sysfs
