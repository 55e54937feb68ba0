#include "platform/linux/driver_row_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <regex>

namespace gpuvet::platform::sysfs {
namespace {

constexpr const char* kCimDateFormat = "%04d%02d%02d000000.000000-000";
// Room for any int in the fields, though a real date needs 26 bytes.
constexpr std::size_t kCimDateBytes = 64;
constexpr const char* kPnpDeviceIdFormat = "PCI\\VEN_%04X&DEV_%04X&SUBSYS_%04X%04X&REV_%02X\\%s";
constexpr int kTmYearBase = 1900;
constexpr int kMonthsPerYear = 12;
constexpr int kDaysPerMonthMax = 31;
constexpr int kHexBase = 16;
// Build systems that pin the clock write dates like 1970 or 1980 instead of one.
constexpr int kFirstRealBuildYear = 1990;

// A module file's name is the module's name behind one of these.
constexpr std::array<const char*, 4> kModuleFileSuffixes = {".ko", ".ko.gz", ".ko.xz", ".ko.zst"};
constexpr std::array<const char*, kMonthsPerYear> kMonthNames = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

int HexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

int MonthNumber(const std::string& name) {
  const auto found = std::find(kMonthNames.begin(), kMonthNames.end(), name);
  return static_cast<int>(found - kMonthNames.begin()) + 1;
}

// A date that a build really was made on, as a CIM date.
std::optional<std::string> BuildDate(int year, int month, int day) {
  if (year < kFirstRealBuildYear || month < 1 || month > kMonthsPerYear || day < 1 || day > kDaysPerMonthMax) {
    return std::nullopt;
  }
  return CimDate(year, month, day);
}

}  // namespace

std::optional<uint32_t> ParseSysfsNumber(const std::string& text) {
  std::string digits = EndsWith(text, "\n") ? text.substr(0, text.size() - 1) : text;
  if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
    digits.erase(0, 2);
  }
  if (digits.empty()) {
    return std::nullopt;
  }
  uint64_t value = 0;
  for (const char c : digits) {
    const int digit = HexDigit(c);
    if (digit < 0) {
      return std::nullopt;
    }
    value = value * kHexBase + static_cast<uint64_t>(digit);
    if (value > UINT32_MAX) {
      return std::nullopt;
    }
  }
  return static_cast<uint32_t>(value);
}

std::string PnpDeviceId(uint32_t vendorId, uint32_t deviceId, uint32_t subsystemDevice, uint32_t subsystemVendor,
                        uint32_t revision, const std::string& address) {
  const auto format = [&](char* buffer, std::size_t size) {
    return std::snprintf(buffer, size, kPnpDeviceIdFormat, vendorId, deviceId, subsystemDevice, subsystemVendor,
                         revision, address.c_str());
  };
  std::string text(static_cast<std::size_t>(format(nullptr, 0)), '\0');
  format(text.data(), text.size() + 1);
  return text;
}

std::string NormalizedModuleName(std::string name) {
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

std::string ModuleNameOfFile(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const auto suffix = std::find_if(kModuleFileSuffixes.begin(), kModuleFileSuffixes.end(),
                                   [&name](const char* candidate) { return EndsWith(name, candidate); });
  if (suffix != kModuleFileSuffixes.end()) {
    name.resize(name.size() - std::char_traits<char>::length(*suffix));
  }
  return NormalizedModuleName(name);
}

std::string CimDate(int year, int month, int day) {
  std::array<char, kCimDateBytes> text{};
  std::snprintf(text.data(), text.size(), kCimDateFormat, year, month, day);
  return text.data();
}

std::optional<std::string> CimDateOfTime(std::time_t moment) {
  std::tm utc{};
  if (gmtime_r(&moment, &utc) == nullptr) {
    return std::nullopt;
  }
  return CimDate(utc.tm_year + kTmYearBase, utc.tm_mon + 1, utc.tm_mday);
}

// The forms are tried in this order; the first one found decides.
std::optional<std::string> KernelBuildDate(const std::string& versionText) {
  static const std::regex kIsoDate(R"(\((\d{4})-(\d{2})-(\d{2})\))");
  static const std::string kWeekday = "(?:Mon|Tue|Wed|Thu|Fri|Sat|Sun)";
  static const std::string kMonth = "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec)";
  static const std::regex kCtimeDate("\\b" + kWeekday + " +" + kMonth +
                                     R"( +(\d{1,2}) +\d{2}:\d{2}:\d{2} +(?:\S+ +)?(\d{4})\b)");
  static const std::regex kRfc2822Date("\\b" + kWeekday + R"(, +(\d{1,2}) +)" + kMonth +
                                       R"( +(\d{4}) +\d{2}:\d{2}:\d{2}\b)");
  static const std::regex kSecondsSinceEpoch(R"(@(\d{1,12})\b)");
  std::smatch match;
  if (std::regex_search(versionText, match, kIsoDate)) {
    return BuildDate(std::stoi(match[1]), std::stoi(match[2]), std::stoi(match[3]));
  }
  if (std::regex_search(versionText, match, kCtimeDate)) {
    return BuildDate(std::stoi(match[3]), MonthNumber(match[1]), std::stoi(match[2]));
  }
  if (std::regex_search(versionText, match, kRfc2822Date)) {
    return BuildDate(std::stoi(match[3]), MonthNumber(match[2]), std::stoi(match[1]));
  }
  if (std::regex_search(versionText, match, kSecondsSinceEpoch)) {
    std::optional<std::string> date = CimDateOfTime(static_cast<std::time_t>(std::stoll(match[1])));
    // The year stands first in the CIM date.
    if (date && std::stoi(date->substr(0, 4)) >= kFirstRealBuildYear) {
      return date;
    }
  }
  return std::nullopt;
}

}  // namespace gpuvet::platform::sysfs
