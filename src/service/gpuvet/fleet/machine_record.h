#pragma once

#include <optional>
#include <string>
#include <vector>

#include "adapters/adapter_entry.h"
#include "machine_source.h"
#include "opencl/device_census.h"
#include "platform/driver_rows.h"

namespace gpuvet::fleet {

// What gpuvet sees on one machine, as data: the adapter list as the run builds
// it, with what building it read (the adapter library's log messages and the
// driver rows; none when no rows could be had), and the OpenCL census.
struct MachineRecord {
  AdapterList adapters;
  std::vector<std::string> adapterLog;
  std::optional<std::vector<platform::DriverRow>> driverRows;
  DeviceCensus census;
};

// Asks this machine, as a run would, printing nothing: the adapter records and
// the driver rows once, the platform count, the census.
MachineRecord RecordThisMachine();

// The machine of a record: the adapter records are those of its adapter list,
// its log messages go to the adapter log when the records are asked for, the
// driver rows are the recorded ones for every lookup, and the census prints
// what taking it printed.
MachineSource RecordedMachine(const MachineRecord& record);

// The adapter list that a run builds from the record's adapters and driver
// rows; a record whose list differs from it does not hold together.
AdapterList RebuildAdapterList(const MachineRecord& record);

}  // namespace gpuvet::fleet
