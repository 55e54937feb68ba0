#include "exit_watchdog.h"

#include <chrono>

#include "platform/process.h"
#include "print.h"

namespace gpuvet {
namespace {

constexpr std::chrono::seconds kTick{1};
// How long the timeout line may take to go out before the process ends without it.
constexpr std::chrono::milliseconds kLineGrace{500};
constexpr std::chrono::milliseconds kLinePoll{10};

// The line goes out on a thread of its own: standard output may be blocked, by
// a host that stopped reading or by the main thread stuck in a write under the
// stream's lock, and the bound must hold whatever it does.
void PrintTimeoutLine() {
  const auto printed = std::make_shared<std::atomic<bool>>(false);
  try {
    std::thread([printed] {
      Print("Timeout exit:  GPUVET_NOT_IN_WHITELIST\n");
      printed->store(true);
    }).detach();
  } catch (...) {
    return;  // no thread, no line
  }
  const auto deadline = std::chrono::steady_clock::now() + kLineGrace;
  while (!printed->load() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(kLinePoll);
  }
}

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
  PrintTimeoutLine();
  // The process ends here, on this thread, without running exit handlers, so the
  // main thread never meets destroyed process-wide objects.
  platform::ExitProcessNow(watchdog->exitCode);
}

}  // namespace gpuvet
