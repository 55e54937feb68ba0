#include "adapters/driver_lookup.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "print.h"

namespace gpuvet {
namespace {

constexpr std::size_t kDeviceTextBytes = 256;

// "DEV_%X": upper-case hexadecimal without leading zeros. A device id below
// 0x1000 therefore is not found where a row id shows four digits; that is how
// the lookup has always matched and the rows are tested as such.
std::string DeviceText(uint32_t deviceId) {
  std::array<char, kDeviceTextBytes> text{};
  std::snprintf(text.data(), text.size(), "DEV_%X", deviceId);
  return text.data();
}

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

bool LookUpDriver(const qdx::platform::AdapterInfo_& record, const DriverRowScan& scan, std::string& version,
                  std::string& date) {
  const std::string recordName(record.name, strnlen(record.name, sizeof record.name));
  bool fitted = false;
  const auto testRow = [&](const platform::ReadDriverRowProperty& read) {
    using Property = platform::DriverRowProperty;
    const std::string rowName = read(Property::kCaption).value_or(std::string());
    const std::string rowId = read(Property::kPnpDeviceId).value_or(std::string());
    const std::string deviceText = DeviceText(record.deviceId);
    Print("name[%s]  id[%s] target[%s][%s]\n", rowName.c_str(), rowId.c_str(), recordName.c_str(),
          deviceText.c_str());

    // The name test comes first; either test alone makes the row fit, and the
    // first row that fits ends the scan even if a later one fits better.
    fitted = Contains(rowName, recordName) || Contains(rowId, deviceText);
    if (!fitted) {
      return false;
    }
    // A missing value leaves the caller's string as it stands.
    if (std::optional<std::string> value = read(Property::kDriverVersion)) {
      version = std::move(*value);
    }
    if (std::optional<std::string> value = read(Property::kDriverDate)) {
      date = std::move(*value);
    }
    Print("Found id! name[%s]  id[%s] ver[%s]  date[%s]\n", rowName.c_str(), rowId.c_str(), version.c_str(),
          date.c_str());
    return true;
  };
  return scan(testRow) && fitted;
}

// Each call scans the rows afresh: nothing carries over from one adapter to the next.
bool QueryDriverInfo(const qdx::platform::AdapterInfo_& record, std::string& version, std::string& date,
                     const DriverRowScan& scan) {
  return LookUpDriver(record, scan, version, date);
}

}  // namespace gpuvet
