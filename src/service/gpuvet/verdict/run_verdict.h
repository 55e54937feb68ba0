#pragma once

#include <cstdint>

#include "adapters/adapter_entry.h"

namespace gpuvet {

// A driver dated before this year is old.
constexpr int32_t MinDriverYear = 2018;

// The test itself: platform count, census, match, black list, driver year,
// white list. Returns the verdict code.
int32_t RunVerdict(const AdapterEntry& selected);

}  // namespace gpuvet
