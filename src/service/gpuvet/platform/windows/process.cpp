#include "platform/process.h"
#include "platform/process_handlers.h"

#include <windows.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cwchar>

namespace gpuvet::platform {
namespace {

std::atomic<bool> g_exitHandlerInstalled{false};

// Exception codes of this bit are applications' own, such as a C++ throw.
constexpr DWORD kCustomerCode = 0x20000000;

void __cdecl OnRuntimeInvalidParameter(const wchar_t* /*expression*/, const wchar_t* /*function*/,
                                       const wchar_t* /*file*/, unsigned int /*line*/, uintptr_t /*reserved*/) {
  ReportInvalidParameter();
}

void __cdecl OnRuntimePureCall() {
  EndWithPureCallHandler();
}

// Straight to the standard output handle: the stream's lock may be held by the
// thread that faulted.
void WriteText(const char* text) {
  const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD length = 0;
  while (text[length] != '\0') {
    ++length;
  }
  DWORD written = 0;
  if (output != nullptr && output != INVALID_HANDLE_VALUE) {
    ::WriteFile(output, text, length, &written, nullptr);
  }
}

[[noreturn]] void EndForeign(const char* what) {
  char line[96];
  std::snprintf(line, sizeof line, "exception: %s\r\n", what);
  WriteText(line);
  ExitProcessNow(GuardedCode());
}

[[noreturn]] void EndForeignException(const EXCEPTION_RECORD& record) {
  char what[48];
  std::snprintf(what, sizeof what, "0x%08lX", record.ExceptionCode);
  EndForeign(what);
}

// A fault on any thread, once no handler of the thread took it: no crash box,
// no debugger, the refusal code.
LONG WINAPI OnUnhandledException(EXCEPTION_POINTERS* pointers) {
  if (!ProcessEndGuarded()) {
    return EXCEPTION_CONTINUE_SEARCH;
  }
  EndForeignException(*pointers->ExceptionRecord);
}

// A system exception that can't be continued, before any frame sees it: the
// thread can't go on. Under Wine a native vendor's abort arrives so, raised
// where no frame handler is found, and the process would end with 0.
LONG WINAPI OnNoncontinuableException(EXCEPTION_POINTERS* pointers) {
  const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
  if (!ProcessEndGuarded() || (record.ExceptionFlags & EXCEPTION_NONCONTINUABLE) == 0 ||
      (record.ExceptionCode & kCustomerCode) != 0) {
    return EXCEPTION_CONTINUE_SEARCH;
  }
  EndForeignException(record);
}

// abort, and std::terminate through it.
void OnAbortSignal(int /*signal*/) {
  if (ProcessEndGuarded()) {
    EndForeign("abort");
  }
  ExitProcessNow(EXIT_FAILURE);
}

// Runs for every exit of the runtime; only one that comes while the run is guarded is foreign.
void OnExit() {
  if (ProcessEndGuarded()) {
    EndForeign("exit from inside the run");
  }
}

}  // namespace

void SetErrorMode(uint32_t mode) {
  ::SetErrorMode(mode);
}

void SetInvalidParameterHandler(ProcessHandler handler) {
  KeepInvalidParameterHandler(handler);
  ::_set_invalid_parameter_handler(OnRuntimeInvalidParameter);
}

void SetPureCallHandler(ProcessHandler handler) {
  KeepPureCallHandler(handler);
  ::_set_purecall_handler(OnRuntimePureCall);
}

// TerminateProcess: no exit handlers, no DLL detach and no flush, whatever the
// other threads hold.
void ExitProcessNow(int32_t code) {
  ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(code));
  ::ExitProcess(static_cast<UINT>(code));
}

void EndProcess(int32_t code) {
  KeepGuardedCode(code);
  std::fflush(stdout);
  ExitProcessNow(code);
}

void GuardProcessEnd(int32_t code) {
  KeepGuardedCode(code);
  if (!g_exitHandlerInstalled.exchange(true)) {
    std::atexit(OnExit);
    ::AddVectoredExceptionHandler(1, OnNoncontinuableException);
  }
  std::signal(SIGABRT, OnAbortSignal);
  ::SetUnhandledExceptionFilter(OnUnhandledException);
}

}  // namespace gpuvet::platform

extern "C" void gpuvet_windows_pure_call() {
  gpuvet::platform::EndWithPureCallHandler();
}
