#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/driver_rows.h"
#include "platform/qdx.h"

namespace gpuvet {

// Finds the adapter's row among the machine's driver rows and takes the driver
// version and date of the first row that fits. True when a row fitted. The
// rows are read afresh through readRows for each call.
bool QueryDriverInfo(const qdx::platform::AdapterInfo_& record, std::string& version, std::string& date,
                     const std::function<bool(std::vector<platform::DriverRow>&)>& readRows);

// The scan of QueryDriverInfo over rows already read: prints one line per row
// scanned and stops at the first row whose name contains the record's name or
// whose id contains its DEV_ text. True when a row fitted.
bool TakeDriverFromRows(const qdx::platform::AdapterInfo_& record, const std::vector<platform::DriverRow>& rows,
                        std::string& version, std::string& date);

}  // namespace gpuvet
