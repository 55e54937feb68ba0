#include "adapters/driver_lookup.h"

#include <array>
#include <cstdio>
#include <cstring>

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

bool TakeDriverFromRows(const qdx::platform::AdapterInfo_& record, const std::vector<platform::DriverRow>& rows,
                        std::string& version, std::string& date) {
  const std::string recordName(record.name, strnlen(record.name, sizeof record.name));
  for (const platform::DriverRow& row : rows) {
    const std::string rowName = row.caption.value_or(std::string());
    const std::string rowId = row.pnpDeviceId.value_or(std::string());
    const std::string deviceText = DeviceText(record.deviceId);
    Print("name[%s]  id[%s] target[%s][%s]\n", rowName.c_str(), rowId.c_str(), recordName.c_str(),
          deviceText.c_str());

    // The name test comes first; either test alone makes the row fit, and the
    // first row that fits ends the scan even if a later one fits better.
    const bool fits = Contains(rowName, recordName) || Contains(rowId, deviceText);
    if (!fits) {
      continue;
    }
    // A missing value leaves the caller's string as it stands.
    if (row.driverVersion) {
      version = *row.driverVersion;
    }
    if (row.driverDate) {
      date = *row.driverDate;
    }
    Print("Found id! name[%s]  id[%s] ver[%s]  date[%s]\n", rowName.c_str(), rowId.c_str(), version.c_str(),
          date.c_str());
    return true;
  }
  return false;
}

// Each call reads the rows afresh: nothing carries over from one adapter to the next.
bool QueryDriverInfo(const qdx::platform::AdapterInfo_& record, std::string& version, std::string& date,
                     const std::function<bool(std::vector<platform::DriverRow>&)>& readRows) {
  std::vector<platform::DriverRow> rows;
  if (!readRows(rows)) {
    return false;
  }
  return TakeDriverFromRows(record, rows, version, date);
}

}  // namespace gpuvet
