#include "platform/process.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace platform {
namespace {

std::atomic<ProcessHandler> g_invalidParameterHandler{nullptr};
std::atomic<ProcessHandler> g_pureCallHandler{nullptr};

// Without a handler, a runtime failure ends the process quietly, never with an
// abort or a core dump.
[[noreturn]] void EndWithHandler(const std::atomic<ProcessHandler>& handler) {
  if (const ProcessHandler installed = handler.load()) {
    installed();
  }
  std::_Exit(EXIT_FAILURE);
}

}  // namespace

void SetErrorMode(uint32_t /*mode*/) {
  // Linux shows no error dialogs: there is nothing to switch off.
}

void SetInvalidParameterHandler(ProcessHandler handler) {
  g_invalidParameterHandler.store(handler);
}

void SetPureCallHandler(ProcessHandler handler) {
  g_pureCallHandler.store(handler);
}

void ReportInvalidParameter() {
  EndWithHandler(g_invalidParameterHandler);
}

void ExitProcessNow(int32_t code) {
  std::fflush(stdout);
  _exit(code);
}

}  // namespace platform

// The C++ runtime calls this for a pure virtual call; the tool's handler takes it
// instead of the runtime's terminate.
extern "C" void __cxa_pure_virtual() {
  platform::EndWithHandler(platform::g_pureCallHandler);
}
