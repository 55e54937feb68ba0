#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

namespace gpuvet {

// Bounds the length of a run: a second thread counts whole-second ticks and,
// when they are used up with done still clear, prints one line and ends the
// process with exitCode.
class ExitWatchdog {
 public:
  ExitWatchdog(int32_t exitCode, int32_t tickCount);
  ~ExitWatchdog();
  ExitWatchdog(const ExitWatchdog&) = delete;
  ExitWatchdog& operator=(const ExitWatchdog&) = delete;

  void Start();
  void Stop();

  const int32_t exitCode;
  const int32_t tickCount;
  std::atomic<bool> done{false};
  std::shared_ptr<std::thread> thread;
};

void WatchdogMain(ExitWatchdog* watchdog);

// The watchdog of a run: the code of a white list refusal after nine seconds.
constexpr int32_t kWatchdogTickCount = 9;

}  // namespace gpuvet
