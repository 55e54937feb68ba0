#include "exit_watchdog.h"

#include <chrono>

#include "platform/process.h"
#include "print.h"

namespace gpuvet {
namespace {

constexpr std::chrono::seconds kTick{1};

}  // namespace

ExitWatchdog::ExitWatchdog(int32_t code, int32_t ticks) : exitCode(code), tickCount(ticks) {}

ExitWatchdog::~ExitWatchdog() {
  Stop();
}

void ExitWatchdog::Start() {
  if (thread) {
    return;
  }
  done.store(false);
  // A thread that can't be made leaves the run without a time limit; nothing is said.
  try {
    thread = std::make_shared<std::thread>(WatchdogMain, this);
  } catch (...) {
    thread.reset();
  }
}

void ExitWatchdog::Stop() {
  done.exchange(true);
  // The sleeping thread is not woken: it sees done when its current tick is over.
  if (thread && thread->joinable()) {
    thread->join();
  }
  thread.reset();
}

void WatchdogMain(ExitWatchdog* watchdog) {
  int32_t count = watchdog->tickCount;
  while (!watchdog->done.load() && count > 0) {
    // The clock is read anew for each tick, so the limit is the ticks plus the loop's own time.
    std::this_thread::sleep_until(std::chrono::steady_clock::now() + kTick);
    --count;
  }
  // A stop during the last tick still wins.
  if (watchdog->done.load()) {
    return;
  }
  Print("Timeout exit:  GPUVET_NOT_IN_WHITELIST\n");
  // The process ends here, on this thread, without running exit handlers, so the
  // main thread never meets destroyed process-wide objects.
  platform::ExitProcessNow(watchdog->exitCode);
}

}  // namespace gpuvet
