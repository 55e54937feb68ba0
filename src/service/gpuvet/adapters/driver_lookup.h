#pragma once

#include <string>

#include "platform/qdx.h"

namespace gpuvet {

// Finds the adapter's row among the machine's driver rows and takes the driver
// version and date of the first row that fits. True when a row fitted.
bool QueryDriverInfo(const qdx::platform::AdapterInfo_& record, std::string& version, std::string& date);

}  // namespace gpuvet
