#include "platform/process_handlers.h"

#include <atomic>
#include <cstdlib>

namespace gpuvet::platform {
namespace {

std::atomic<ProcessHandler> g_invalidParameterHandler{nullptr};
std::atomic<ProcessHandler> g_pureCallHandler{nullptr};
std::atomic<int32_t> g_guardedCode{0};
std::atomic<bool> g_guarded{false};

[[noreturn]] void EndWithHandler(const std::atomic<ProcessHandler>& handler) {
  if (const ProcessHandler installed = handler.load()) {
    installed();
  }
  ExitProcessNow(EXIT_FAILURE);
}

}  // namespace

void KeepInvalidParameterHandler(ProcessHandler handler) {
  g_invalidParameterHandler.store(handler);
}

void KeepPureCallHandler(ProcessHandler handler) {
  g_pureCallHandler.store(handler);
}

void EndWithPureCallHandler() {
  EndWithHandler(g_pureCallHandler);
}

void ReportInvalidParameter() {
  EndWithHandler(g_invalidParameterHandler);
}

void KeepGuardedCode(int32_t code) {
  g_guardedCode.store(code);
  g_guarded.store(true);
}

int32_t GuardedCode() {
  return g_guardedCode.load();
}

bool ProcessEndGuarded() {
  return g_guarded.load();
}

void AllowProcessEnd() {
  g_guarded.store(false);
}

}  // namespace gpuvet::platform
