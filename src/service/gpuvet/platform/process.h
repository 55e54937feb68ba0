#pragma once

#include <cstdint>

// How the tool sets up and ends its process. Declarations only; each platform
// folder implements them.
namespace gpuvet::platform {

using ProcessHandler = void (*)();

// Keeps the operating system from showing any error dialog for this process.
void SetErrorMode(uint32_t mode);
// The handler that runtime functions call when handed an invalid argument.
void SetInvalidParameterHandler(ProcessHandler handler);
// The handler that a call of a pure virtual function reaches.
void SetPureCallHandler(ProcessHandler handler);
// Hands an invalid argument to the installed handler (the runtime's own reaction).
void ReportInvalidParameter();

// Ends the process at once with the code: no exit handlers, no static
// destructors and no flush run, so a second thread may call it while the main
// thread still works on process-wide objects, or is blocked in a write.
[[noreturn]] void ExitProcessNow(int32_t code);

// From here on, until AllowProcessEnd, the process may end only by the tool's
// own hand. A vendor library runs inside it and may crash, abort or call exit
// of its own; any such end writes one line, "exception: %s\n" with what
// happened, and ends the process with `code` instead, never with a pass or a
// core dump.
void GuardProcessEnd(int32_t code);
// The tool ends the process itself from here on: exit is no longer foreign.
void AllowProcessEnd();

}  // namespace gpuvet::platform
