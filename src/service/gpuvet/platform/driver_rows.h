#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

// The machine's rows of video controller data, one per display adapter, from
// which the driver lookup takes a driver version and date.
namespace gpuvet::platform {

// The properties of a row that the driver lookup reads.
enum class DriverRowProperty { kCaption, kPnpDeviceId, kDriverVersion, kDriverDate };

// Reads one property of the row at hand; nullopt when it is missing. The dates
// are CIM datetimes, "YYYYMMDD000000.000000-000".
using ReadDriverRowProperty = std::function<std::optional<std::string>(DriverRowProperty)>;
// Looks at the row at hand through its reader; true ends the scan at that row.
using VisitDriverRow = std::function<bool(const ReadDriverRowProperty&)>;

// Offers a fresh read of the machine's rows to visit, one at a time in the
// machine's order. A property is read only when visit asks for it, and no row
// after the one that ended the scan is read at all. False when no rows can be
// had.
bool ScanDriverRows(const VisitDriverRow& visit);

// A source of rows to visit: the machine's scan, or one over rows already read.
using DriverRowScan = std::function<bool(const VisitDriverRow&)>;

// A row with all its properties at hand, for a source that reads rows whole.
struct DriverRow {
  std::optional<std::string> caption;
  std::optional<std::string> pnpDeviceId;
  std::optional<std::string> driverVersion;
  std::optional<std::string> driverDate;
};

// Offers rows already read to visit, as ScanDriverRows offers the machine's.
void ScanRows(const std::vector<DriverRow>& rows, const VisitDriverRow& visit);

// Every row that scan offers, with all its properties. False when no rows can be had.
bool ReadWholeRows(const DriverRowScan& scan, std::vector<DriverRow>& rows);

}  // namespace gpuvet::platform
