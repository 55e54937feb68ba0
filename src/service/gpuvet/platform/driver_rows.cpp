#include "platform/driver_rows.h"

namespace gpuvet::platform {
namespace {

const std::optional<std::string>& PropertyOf(const DriverRow& row, DriverRowProperty property) {
  switch (property) {
    case DriverRowProperty::kCaption:
      return row.caption;
    case DriverRowProperty::kPnpDeviceId:
      return row.pnpDeviceId;
    case DriverRowProperty::kDriverVersion:
      return row.driverVersion;
    case DriverRowProperty::kDriverDate:
      break;
  }
  return row.driverDate;
}

}  // namespace

void ScanRows(const std::vector<DriverRow>& rows, const VisitDriverRow& visit) {
  for (const DriverRow& row : rows) {
    if (visit([&row](DriverRowProperty property) { return PropertyOf(row, property); })) {
      return;
    }
  }
}

bool ReadWholeRows(const DriverRowScan& scan, std::vector<DriverRow>& rows) {
  rows.clear();
  return scan([&rows](const ReadDriverRowProperty& read) {
    rows.push_back({read(DriverRowProperty::kCaption), read(DriverRowProperty::kPnpDeviceId),
                    read(DriverRowProperty::kDriverVersion), read(DriverRowProperty::kDriverDate)});
    return false;  // every row, to the end
  });
}

}  // namespace gpuvet::platform
