#pragma once

#include <cstdint>

#include "command_line.h"

namespace gpuvet::lists {

// explain's status when gpuvet's command line asks for --blankrun, which gives
// no verdict at all; no status of gpuvet's reads as 3.
constexpr int32_t kNoVerdict = 3;

// Runs gpuvet's command line with gpuvet's own steps and says why it came out
// as it did; writes no result file. Returns the code gpuvet gives.
int32_t Explain(const CommandLine& line, bool json);

}  // namespace gpuvet::lists
