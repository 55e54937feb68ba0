#pragma once

#include <cstdint>

#include "platform/process.h"

// The state every platform's process layer keeps alike: the handlers the run
// installed, and the code that a foreign end of the process is turned into.
namespace gpuvet::platform {

void KeepInvalidParameterHandler(ProcessHandler handler);
void KeepPureCallHandler(ProcessHandler handler);
// Calls the installed handler, which ends the process; without one, the process
// ends quietly, never with an abort or a core dump.
[[noreturn]] void EndWithPureCallHandler();

// Arms the guard with the code that a foreign end of the process gives; every
// code is a valid one, 0 included, so whether the guard is armed is kept apart.
void KeepGuardedCode(int32_t code);
int32_t GuardedCode();
bool ProcessEndGuarded();

}  // namespace gpuvet::platform
