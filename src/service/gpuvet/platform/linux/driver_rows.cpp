#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <fstream>

#include "platform/linux/driver_row_text.h"
#include "platform/linux/sysfs_driver_rows.h"

namespace gpuvet::platform::sysfs {
namespace {

// The first line of a file; "" for an empty file, nullopt when it can't be read.
std::optional<std::string> ReadFirstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  if (!file || (!std::getline(file, line) && !file.eof())) {
    return std::nullopt;
  }
  return line;
}

std::string LastPathComponent(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::optional<std::string> ReadLink(const std::string& path) {
  std::array<char, PATH_MAX> target{};
  const ssize_t length = readlink(path.c_str(), target.data(), target.size() - 1);
  if (length < 0) {
    return std::nullopt;
  }
  return std::string(target.data(), static_cast<std::size_t>(length));
}

bool PathExists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

// Subsystem ids and revision count as 0 where their files are missing.
std::string PnpDeviceIdOf(const PciDisplayDevice& device) {
  const auto numberOrZero = [&device](const char* file) {
    return ReadNumberFile(device.entryDir + "/" + file).value_or(0);
  };
  return PnpDeviceId(device.vendorId, device.deviceId, numberOrZero("subsystem_device"),
                     numberOrZero("subsystem_vendor"), numberOrZero("revision"), device.address);
}

// The module's file as modules.dep names it: the text before the first ':' of
// its line, relative to the release's folder unless it is absolute.
std::optional<std::string> FindModuleFile(const std::string& releaseDir, const std::string& module) {
  std::ifstream dependencies(releaseDir + "/modules.dep");
  const std::string wanted = NormalizedModuleName(module);
  std::string line;
  while (std::getline(dependencies, line)) {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) {
      continue;
    }
    const std::string file = line.substr(0, colon);
    if (ModuleNameOfFile(file) == wanted) {
      return file.front() == '/' ? file : releaseDir + "/" + file;
    }
  }
  return std::nullopt;
}

// The UTC calendar date of the file's modification time.
std::optional<std::string> FileDate(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return std::nullopt;
  }
  return CimDateOfTime(status.st_mtime);
}

struct DriverData {
  std::optional<std::string> version;
  std::optional<std::string> date;
};

// Version and date of the driver bound to the device; both missing when none is
// bound. A driver without a module link is built into the kernel and shares the
// kernel's release and build date; an in-tree module shares its release.
DriverData ReadDriverData(const DriverRowRoots& roots, const PciDisplayDevice& device) {
  DriverData data;
  const std::string driverLink = device.entryDir + "/driver";
  if (!PathExists(driverLink)) {
    return data;
  }
  const std::optional<std::string> release = ReadFirstLine(roots.kernelInfoDir + "/osrelease");
  const std::optional<std::string> moduleLink = ReadLink(driverLink + "/module");

  std::optional<std::string> moduleFile;
  if (moduleLink) {
    const std::string module = LastPathComponent(*moduleLink);
    data.version = ReadFirstLine(roots.sysModuleDir + "/" + module + "/version");
    if (release) {
      moduleFile = FindModuleFile(roots.libModulesDir + "/" + *release, module);
    }
  }
  if (!data.version) {
    data.version = release;
  }
  if (moduleFile) {
    data.date = FileDate(*moduleFile);
  }
  if (!data.date) {
    if (const std::optional<std::string> kernelVersion = ReadFirstLine(roots.kernelInfoDir + "/version")) {
      data.date = KernelBuildDate(*kernelVersion);
    }
  }
  // A kernel that tells no build date is dated by the list of its built-in modules.
  if (!data.date && release) {
    data.date = FileDate(roots.libModulesDir + "/" + *release + "/modules.builtin");
  }
  return data;
}

}  // namespace

bool ReadDriverRows(const DriverRowRoots& roots, std::vector<DriverRow>& rows) {
  rows.clear();
  // The adapter list reports the entries it passes over; the rows pass them over quietly.
  const auto devices = ListDisplayDevices(roots.pciDevicesDir, [](const std::string&) {});
  if (!devices) {
    return false;
  }
  for (const PciDisplayDevice& device : *devices) {
    DriverRow row;
    row.caption = device.name;
    row.pnpDeviceId = PnpDeviceIdOf(device);
    DriverData driver = ReadDriverData(roots, device);
    row.driverVersion = std::move(driver.version);
    row.driverDate = std::move(driver.date);
    rows.push_back(std::move(row));
  }
  return true;
}

}  // namespace gpuvet::platform::sysfs

namespace gpuvet::platform {

// The files are small and local: the rows are read whole, then offered.
bool ScanDriverRows(const VisitDriverRow& visit) {
  std::vector<DriverRow> rows;
  if (!sysfs::ReadDriverRows(sysfs::DriverRowRoots{}, rows)) {
    return false;
  }
  ScanRows(rows, visit);
  return true;
}

}  // namespace gpuvet::platform
