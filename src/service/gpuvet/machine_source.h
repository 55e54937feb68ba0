#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "opencl/device_census.h"
#include "platform/driver_rows.h"
#include "platform/qdx.h"

namespace gpuvet {

// Where a run learns what the machine holds: the adapter library's records,
// the driver rows, the OpenCL platform count and the census. The run asks each
// when it gets to it, so a run that answers from a stored verdict asks no
// OpenCL at all. This machine answers by asking the system then; a recorded
// machine answers from its record, printing what asking printed.
struct MachineSource {
  std::function<std::vector<qdx::platform::AdapterInfo_>()> adapterRecords;
  // False when no rows can be had.
  std::function<bool(std::vector<platform::DriverRow>&)> driverRows;
  std::function<uint32_t()> countPlatforms;
  std::function<DeviceCensus()> takeCensus;
};

// The machine the process runs on.
MachineSource ThisMachine();

}  // namespace gpuvet
