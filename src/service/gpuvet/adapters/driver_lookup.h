#pragma once

#include <functional>
#include <string>

#include "platform/driver_rows.h"
#include "platform/qdx.h"

namespace gpuvet {

// Where the rows come from: the machine's scan, a recorded machine's, or a test's.
using DriverRowScan = platform::DriverRowScan;

// Finds the adapter's row among the driver rows that scan offers and takes the
// driver version and date of the first row that fits. True when a row fitted.
// The rows are scanned afresh for each call.
bool QueryDriverInfo(const qdx::platform::AdapterInfo_& record, std::string& version, std::string& date,
                     const DriverRowScan& scan);

// QueryDriverInfo over the rows that scan offers: prints one line per row
// scanned, reads a row's driver values only once it fits, and ends the scan at
// the first row whose name contains the record's name or whose id contains its
// DEV_ text. True when a row fitted.
bool LookUpDriver(const qdx::platform::AdapterInfo_& record, const DriverRowScan& scan, std::string& version,
                  std::string& date);

}  // namespace gpuvet
