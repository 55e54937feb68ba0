#include "exit_watchdog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "verdict/exit_codes.h"

namespace gpuvet {
namespace {

constexpr const char* kTimeoutLine = "^Timeout exit:  GPUVET_NOT_IN_WHITELIST\n$";
constexpr const char* kNothing = "^$";

// The child's standard output goes where a death test looks: standard error.
void SendOutputToErrorStream() {
  std::fflush(stdout);
  dup2(STDERR_FILENO, STDOUT_FILENO);
}

// The count used up prints the line and ends the process with the watchdog's
// code; a count of 0 fires at once.
TEST(ExitWatchdogDeathTest, FiresWithItsCodeOnceTheCountIsUsedUp) {
  // The child is a fresh run of the binary, so that it starts single-threaded.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::pair<int32_t, int32_t> cases[] = {{GPUVET_NOT_IN_WHITELIST, 0}, {42, 1}};
  for (const auto& [code, ticks] : cases) {
    const auto runToTheEnd = [code = code, ticks = ticks] {
      SendOutputToErrorStream();
      ExitWatchdog watchdog(code, ticks);
      watchdog.Start();
      watchdog.thread->join();
      std::exit(EXIT_SUCCESS);
    };
    EXPECT_EXIT(runToTheEnd(), ::testing::ExitedWithCode(code), kTimeoutLine);
  }
}

TEST(ExitWatchdogTest, StopAfterAQuickStartEndsQuietly) {
  ExitWatchdog watchdog(GPUVET_NOT_IN_WHITELIST, kWatchdogTickCount);
  watchdog.Stop();  // before any start: no thread to join
  testing::internal::CaptureStdout();
  watchdog.Start();
  ASSERT_TRUE(watchdog.thread);
  watchdog.Stop();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(watchdog.done.load());
  EXPECT_FALSE(watchdog.thread);
}

TEST(ExitWatchdogTest, SecondStartAddsNoThreadAndKeepsDone) {
  ExitWatchdog watchdog(GPUVET_NOT_IN_WHITELIST, kWatchdogTickCount);
  watchdog.Start();
  const std::thread* first = watchdog.thread.get();
  watchdog.done.store(true);
  watchdog.Start();
  EXPECT_EQ(watchdog.thread.get(), first);
  EXPECT_TRUE(watchdog.done.load());
  watchdog.Stop();
}

// A watchdog that sees done set ends without a word: done set before its first
// read, or a watchdog that goes out of scope, whose destructor stops and joins it.
TEST(ExitWatchdogDeathTest, DoneInTimeEndsQuietly) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto doneBeforeTheFirstRead = [] {
    SendOutputToErrorStream();
    ExitWatchdog watchdog(GPUVET_NOT_IN_WHITELIST, 0);
    watchdog.done.store(true);
    WatchdogMain(&watchdog);
    std::exit(EXIT_SUCCESS);
  };
  EXPECT_EXIT(doneBeforeTheFirstRead(), ::testing::ExitedWithCode(EXIT_SUCCESS), kNothing);
  const auto leaveTheScope = [] {
    SendOutputToErrorStream();
    {
      ExitWatchdog watchdog(GPUVET_NOT_IN_WHITELIST, 1);
      watchdog.Start();
    }
    sleep(2);  // had the thread been left running it would fire after its tick
    std::exit(EXIT_SUCCESS);
  };
  EXPECT_EXIT(leaveTheScope(), ::testing::ExitedWithCode(EXIT_SUCCESS), kNothing);
}

}  // namespace
}  // namespace gpuvet
