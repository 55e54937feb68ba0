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

// The tool's own end of the process, once its code is decided: the guard is
// armed with that code to the last instruction, standard output is flushed,
// and the process ends without running exit handlers or static destructors,
// so that nothing a vendor library left behind (a destructor, an exit handler,
// a thread) can end it with another status. A vendor's own _exit is the one end
// no process can catch.
[[noreturn]] void EndProcess(int32_t code);

}  // namespace gpuvet::platform
