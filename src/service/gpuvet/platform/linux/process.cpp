#include "platform/process.h"
#include "platform/process_handlers.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace gpuvet::platform {
namespace {

std::atomic<bool> g_exitHandlerInstalled{false};

// The leak check of a sanitizer build, which would otherwise run from an exit
// handler that EndProcess skips; null in every other build.
extern "C" __attribute__((weak)) void __lsan_do_leak_check();

// The signals by which a library's fault or abort ends a process.
constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
// Room for the handler's own stack, so that a stack overflow can still be reported.
constexpr std::size_t kAltStackBytes = std::size_t{64} << 10;
alignas(16) char g_altStack[kAltStackBytes];

// Only async-signal-safe calls from here: the line is written straight to the
// descriptor, with the number formatted by hand.
void WriteText(const char* text) {
  std::size_t length = 0;
  while (text[length] != '\0') {
    ++length;
  }
  while (length > 0) {
    const ssize_t written = ::write(STDOUT_FILENO, text, length);
    if (written <= 0) {
      return;
    }
    text += written;
    length -= static_cast<std::size_t>(written);
  }
}

[[noreturn]] void EndForeign(const char* what, int number) {
  char digits[16];
  std::size_t count = 0;
  do {
    digits[count++] = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number > 0 && count < sizeof digits);
  char line[64] = "exception: ";
  std::size_t at = std::strlen(line);
  for (const char* c = what; *c != '\0'; ++c) {
    line[at++] = *c;
  }
  while (count > 0) {
    line[at++] = digits[--count];
  }
  line[at++] = '\n';
  line[at] = '\0';
  WriteText(line);
  ::_exit(GuardedCode());
}

void OnFatalSignal(int signal) {
  EndForeign("signal ", signal);
}

// Runs for every exit; only one that comes while the run is guarded is foreign.
void OnExit() {
  if (ProcessEndGuarded()) {
    WriteText("exception: exit from inside the run\n");
    ::_exit(GuardedCode());
  }
}

}  // namespace

void SetErrorMode(uint32_t /*mode*/) {
  // Linux shows no error dialogs: there is nothing to switch off.
}

void SetInvalidParameterHandler(ProcessHandler handler) {
  KeepInvalidParameterHandler(handler);
}

void SetPureCallHandler(ProcessHandler handler) {
  KeepPureCallHandler(handler);
}

// Straight to the kernel: a runtime that wraps _exit (a sanitizer does) could
// wait for a stream that a blocked write holds.
void ExitProcessNow(int32_t code) {
  ::syscall(SYS_exit_group, code);
  _exit(code);
}

void EndProcess(int32_t code) {
  KeepGuardedCode(code);
  std::fflush(stdout);
  if (__lsan_do_leak_check != nullptr) {
    __lsan_do_leak_check();
  }
  ExitProcessNow(code);
}

// A host may close its end of the pipe at any time: the write fails, the line
// is dropped, and the run goes on as if it had been read.
void GuardProcessEnd(int32_t code) {
  KeepGuardedCode(code);
  ::signal(SIGPIPE, SIG_IGN);
  if (!g_exitHandlerInstalled.exchange(true)) {
    std::atexit(OnExit);
  }
  stack_t altStack{};
  altStack.ss_sp = g_altStack;
  altStack.ss_size = sizeof g_altStack;
  ::sigaltstack(&altStack, nullptr);
  struct sigaction action {};
  action.sa_handler = OnFatalSignal;
  action.sa_flags = SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (const int signal : kFatalSignals) {
    ::sigaction(signal, &action, nullptr);
  }
}

}  // namespace gpuvet::platform

// The C++ runtime calls this for a pure virtual call; the tool's handler takes it
// instead of the runtime's terminate.
extern "C" void __cxa_pure_virtual() {
  gpuvet::platform::EndWithPureCallHandler();
}
