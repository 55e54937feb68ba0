#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <regex>

#include "platform/linux/sysfs_driver_rows.h"

namespace gpuvet::platform::sysfs {
namespace {

// "YYYYMMDD000000.000000-000": the form in which Windows gives a driver date.
constexpr const char* kCimDateFormat = "%04d%02d%02d000000.000000-000";
constexpr std::size_t kCimDateBytes = sizeof "YYYYMMDD000000.000000-000";
constexpr const char* kPnpDeviceIdFormat = "PCI\\VEN_%04X&DEV_%04X&SUBSYS_%04X%04X&REV_%02X\\%s";
constexpr int kTmYearBase = 1900;
constexpr int kMonthsPerYear = 12;
constexpr int kDaysPerMonthMax = 31;

// A module file's name is the module's name behind one of these.
constexpr std::array<const char*, 4> kModuleFileSuffixes = {".ko", ".ko.gz", ".ko.xz", ".ko.zst"};

std::string MakeCimDate(int year, int month, int day) {
  std::array<char, kCimDateBytes> text{};
  std::snprintf(text.data(), text.size(), kCimDateFormat, year, month, day);
  return text.data();
}

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

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Module names use '-' and '_' alike: the kernel shows either for the same module.
std::string NormalizedModuleName(std::string name) {
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

std::string ModuleNameOfFile(const std::string& path) {
  std::string name = LastPathComponent(path);
  const auto suffix = std::find_if(kModuleFileSuffixes.begin(), kModuleFileSuffixes.end(),
                                   [&name](const char* candidate) { return EndsWith(name, candidate); });
  if (suffix != kModuleFileSuffixes.end()) {
    name.resize(name.size() - std::char_traits<char>::length(*suffix));
  }
  return NormalizedModuleName(name);
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

std::string PnpDeviceId(const PciDisplayDevice& device) {
  const auto numberOrZero = [&device](const char* file) {
    return ReadNumberFile(device.entryDir + "/" + file).value_or(0);
  };
  const uint32_t subsystemDevice = numberOrZero("subsystem_device");
  const uint32_t subsystemVendor = numberOrZero("subsystem_vendor");
  const uint32_t revision = numberOrZero("revision");
  const auto format = [&](char* buffer, std::size_t size) {
    return std::snprintf(buffer, size, kPnpDeviceIdFormat, device.vendorId, device.deviceId, subsystemDevice,
                         subsystemVendor, revision, device.address.c_str());
  };
  std::string text(static_cast<std::size_t>(format(nullptr, 0)), '\0');
  format(text.data(), text.size() + 1);
  return text;
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
  std::tm utc{};
  if (stat(path.c_str(), &status) != 0 || gmtime_r(&status.st_mtime, &utc) == nullptr) {
    return std::nullopt;
  }
  return MakeCimDate(utc.tm_year + kTmYearBase, utc.tm_mon + 1, utc.tm_mday);
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
  return data;
}

bool IsValidDate(int month, int day) {
  return month >= 1 && month <= kMonthsPerYear && day >= 1 && day <= kDaysPerMonthMax;
}

int MonthNumber(const std::string& name) {
  static const std::array<const char*, kMonthsPerYear> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const auto found = std::find_if(kMonths.begin(), kMonths.end(), [&name](const char* month) { return name == month; });
  return static_cast<int>(found - kMonths.begin()) + 1;
}

}  // namespace

std::optional<std::string> KernelBuildDate(const std::string& versionText) {
  static const std::regex kIsoDate(R"(\((\d{4})-(\d{2})-(\d{2})\))");
  static const std::regex kDateText(
      R"(\b(?:Mon|Tue|Wed|Thu|Fri|Sat|Sun) +(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) +(\d{1,2}) +)"
      R"(\d{2}:\d{2}:\d{2} +(?:\S+ +)?(\d{4})\b)");
  std::smatch match;
  if (std::regex_search(versionText, match, kIsoDate)) {
    const int month = std::stoi(match[2]);
    const int day = std::stoi(match[3]);
    if (IsValidDate(month, day)) {
      return MakeCimDate(std::stoi(match[1]), month, day);
    }
  }
  if (std::regex_search(versionText, match, kDateText)) {
    const int month = MonthNumber(match[1]);
    const int day = std::stoi(match[2]);
    if (IsValidDate(month, day)) {
      return MakeCimDate(std::stoi(match[3]), month, day);
    }
  }
  return std::nullopt;
}

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
    row.pnpDeviceId = PnpDeviceId(device);
    DriverData driver = ReadDriverData(roots, device);
    row.driverVersion = std::move(driver.version);
    row.driverDate = std::move(driver.date);
    rows.push_back(std::move(row));
  }
  return true;
}

}  // namespace gpuvet::platform::sysfs

namespace gpuvet::platform {

bool QueryDriverRows(std::vector<DriverRow>& rows) {
  return sysfs::ReadDriverRows(sysfs::DriverRowRoots{}, rows);
}

}  // namespace gpuvet::platform
