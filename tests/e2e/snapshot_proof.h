#pragma once

#include <string>
#include <vector>

#include "fixture_machine.h"

namespace gpuvet::e2e {

// Takes a snapshot of the machine with gpuvet-lists and runs gpuvet's verdict
// over it with the same arguments: the status and every line must be those of
// the live run (the platform handles, addresses of another process, aside).
// Runs that the recorded machine can't repeat are passed over: those with a
// result folder (the verdict over a snapshot reads none), a blank run, a run
// cut off by the watchdog, or one that a vendor library ended. The machine's
// OpenCL call log is left as the live run left it.
void ExpectSnapshotGivesTheSameRun(const FixtureMachine& machine, const std::vector<std::string>& args,
                                   const RunResult& live);

}  // namespace gpuvet::e2e
