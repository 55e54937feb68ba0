#pragma once

#include <cstdint>

#include "run_options.h"

namespace gpuvet::lists {

// Runs a verdict with gpuvet's own steps for these options and says why it came
// out as it did; writes no result file. Returns the code gpuvet gives.
int32_t Explain(const RunOptions& options, bool json);

}  // namespace gpuvet::lists
