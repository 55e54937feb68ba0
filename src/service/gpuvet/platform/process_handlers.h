#pragma once

#include <cstdint>

#include "platform/process.h"

// The state every platform's process layer keeps alike: the handlers the run
// installed, and the code that a foreign end of the process is turned into.
namespace gpuvet::platform {

// The guarded code while the tool itself may end the process.
constexpr int32_t kNotGuarded = 0;

void KeepInvalidParameterHandler(ProcessHandler handler);
void KeepPureCallHandler(ProcessHandler handler);
// Calls the installed handler, which ends the process; without one, the process
// ends quietly, never with an abort or a core dump.
[[noreturn]] void EndWithPureCallHandler();

void KeepGuardedCode(int32_t code);
int32_t GuardedCode();

}  // namespace gpuvet::platform
