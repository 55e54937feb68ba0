#pragma once

#include <string>
#include <vector>

// The fleet commands of gpuvet-lists. Each takes the arguments after its name
// and returns the process status.
namespace gpuvet::fleet {

constexpr int kStatusUnreadableSnapshot = 2;
constexpr int kStatusUsage = 3;

// snapshot [-o FILE]
int SnapshotCommand(const std::vector<std::string>& args);
// verdict --snapshot FILE [gpuvet's options]
int VerdictCommand(const std::vector<std::string>& args);

}  // namespace gpuvet::fleet
