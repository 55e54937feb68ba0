#pragma once

#include <cstdint>
#include <string>

namespace gpuvet {

// The process-wide settings of a run. ParseCommandLine is the only writer; after
// it has returned the record is read-only.
struct RunOptions {
  std::string blackListPath;
  std::string whiteListPath;
  std::string resultDir;
  bool recheck = false;
  int32_t gpuIndex = -1;  // negative: no adapter was named
  bool noTest = false;
};

extern RunOptions g_runOptions;

}  // namespace gpuvet
