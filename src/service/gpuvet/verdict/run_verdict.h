#pragma once

#include <cstdint>
#include <string>

#include "adapters/adapter_entry.h"

namespace gpuvet {

// A driver dated before this year is old.
constexpr int32_t MinDriverYear = 2018;

// True when the driver date sorts before the year's text, byte by byte.
bool IsOldDriver(const std::string& driverDate);

// The test itself: platform count, census, match, black list, driver year,
// white list. Returns the verdict code.
int32_t RunVerdict(const AdapterEntry& selected);

}  // namespace gpuvet
