#pragma once

#include <optional>
#include <string>
#include <vector>

// The machine's rows of video controller data, one per display adapter, from
// which the driver lookup takes a driver version and date.
namespace gpuvet::platform {

struct DriverRow {
  std::optional<std::string> caption;
  std::optional<std::string> pnpDeviceId;
  std::optional<std::string> driverVersion;
  std::optional<std::string> driverDate;  // CIM datetime "YYYYMMDD000000.000000-000"
};

// Fills rows with a fresh read of the machine. False when no rows can be had.
bool QueryDriverRows(std::vector<DriverRow>& rows);

}  // namespace gpuvet::platform
