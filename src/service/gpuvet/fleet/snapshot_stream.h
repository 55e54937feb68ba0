#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "fleet/machine_record.h"

namespace gpuvet::fleet {

// Where a snapshot stands: its file ("-" for standard input) and, in JSON
// Lines, its line (0 for a file of one snapshot).
struct SnapshotPlace {
  std::string source;
  uint64_t line = 0;
};
std::string PlaceText(const SnapshotPlace& place);

using MachineHandler = std::function<void(const MachineRecord& record, const SnapshotPlace& place)>;
using UnreadableHandler = std::function<void(const SnapshotPlace& place, const std::string& reason)>;

// Reads every snapshot of the inputs, in order, and hands each machine or each
// failure to read one to its handler. "-" reads JSON Lines from standard
// input, a name that ends in ".jsonl" JSON Lines from that file, any other name
// a file of one snapshot. JSON Lines are read block by block, so memory does
// not grow with the number of machines. An input that can't be opened counts
// as one unreadable snapshot.
// Places in standard input are named stdinName.
void ReadSnapshots(const std::vector<std::string>& inputs, const MachineHandler& onMachine,
                   const UnreadableHandler& onUnreadable, const std::string& stdinName = "-");

}  // namespace gpuvet::fleet
