#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lists/finding.h"
#include "lists/lint.h"

namespace gpuvet::lists {

// The items of the list files that decide no machine of the fleet (snapshot
// files, JSON Lines files or "-"), judged by gpuvet's own run on each machine
// with that list alone and gpuIndex: a black list item decides a machine when a
// device under test equals it, a white list item when it is the first that
// admits the device. Snapshots that can't be read are told on standard error
// and counted in `unreadable`.
std::vector<Finding> FleetFindings(const std::vector<std::string>& listFiles, ListKind kind,
                                   const std::vector<std::string>& fleet, int32_t gpuIndex, uint64_t& unreadable);

}  // namespace gpuvet::lists
