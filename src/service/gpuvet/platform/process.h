#pragma once

#include <cstdint>

// How the tool sets up and ends its process. Declarations only; each platform
// folder implements them.
namespace platform {

using ProcessHandler = void (*)();

// Keeps the operating system from showing any error dialog for this process.
void SetErrorMode(uint32_t mode);
// The handler that runtime functions call when handed an invalid argument.
void SetInvalidParameterHandler(ProcessHandler handler);
// The handler that a call of a pure virtual function reaches.
void SetPureCallHandler(ProcessHandler handler);
// Hands an invalid argument to the installed handler (the runtime's own reaction).
void ReportInvalidParameter();

// Flushes standard output and ends the process at once with the code: no exit
// handlers and no static destructors run, so a second thread may call it while
// the main thread still works on process-wide objects.
[[noreturn]] void ExitProcessNow(int32_t code);

}  // namespace platform
