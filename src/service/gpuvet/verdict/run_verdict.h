#pragma once

#include <cstdint>
#include <string>

#include "adapters/adapter_entry.h"
#include "machine_source.h"
#include "run_options.h"
#include "verdict/list_file.h"

namespace gpuvet {

// A driver dated before this year is old.
constexpr int32_t MinDriverYear = 2018;

// True when the driver date sorts before the year's text, byte by byte.
bool IsOldDriver(const std::string& driverDate);

// The test itself: platform count, census, match, black list, driver year,
// white list. Returns the verdict code. The count and the census come from the
// machine, the lists through readList; the plain form asks this machine and
// reads the list files of g_runOptions.
int32_t RunVerdict(const AdapterEntry& selected, const RunOptions& options, const MachineSource& machine,
                   const ListReader& readList);
int32_t RunVerdict(const AdapterEntry& selected);

}  // namespace gpuvet
