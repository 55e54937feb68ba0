#pragma once

#include <functional>
#include <string>

#include "platform/driver_rows.h"
#include "platform/qdx.h"

namespace gpuvet {

// Finds the adapter's row among the machine's driver rows and takes the driver
// version and date of the first row that fits. True when a row fitted.
bool QueryDriverInfo(const qdx::platform::AdapterInfo_& record, std::string& version, std::string& date);

// Where the rows come from: the machine's scan, or a test's.
using DriverRowScan = std::function<bool(const platform::VisitDriverRow&)>;

// QueryDriverInfo over the rows that scan offers: prints one line per row
// scanned, reads a row's driver values only once it fits, and ends the scan at
// the first row whose name contains the record's name or whose id contains its
// DEV_ text. True when a row fitted.
bool LookUpDriver(const qdx::platform::AdapterInfo_& record, const DriverRowScan& scan, std::string& version,
                  std::string& date);

}  // namespace gpuvet
