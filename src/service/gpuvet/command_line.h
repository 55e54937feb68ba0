#pragma once

#include "machine_source.h"

namespace gpuvet {

// Walks the arguments once, fills g_runOptions and carries out --details,
// --blankrun and --help on the spot. Returns 1.
// --details takes the census of the machine.
int ParseCommandLine(int argc, char** argv, const MachineSource& machine);
int ParseCommandLine(int argc, char** argv);

// Counts seconds for as long as the process lives.
[[noreturn]] void BlankRun();

}  // namespace gpuvet
