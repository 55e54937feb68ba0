#include "exit_watchdog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>

#include "exit_codes.h"

namespace gpuvet {
namespace {

constexpr const char* kTimeoutLine = "^Timeout exit:  GPUVET_NOT_IN_WHITELIST\n$";
constexpr const char* kNothing = "^$";

// Runs a death test's child to its end, with its standard output sent where the
// test looks: standard error. A watchdog that fires ends the child first.
void InChild(const std::function<void()>& body) {
  std::fflush(stdout);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  body();
  std::exit(EXIT_SUCCESS);
}

void RunToTheEnd(int32_t exitCode, int32_t tickCount) {
  ExitWatchdog watchdog(exitCode, tickCount);
  watchdog.Start();
  watchdog.thread->join();
}

// The count used up prints the line and ends the process with the watchdog's
// code; a count of 0 fires at once.
TEST(ExitWatchdogDeathTest, FiresWithItsCodeOnceTheCountIsUsedUp) {
  // The child is a fresh run of the binary, so that it starts single-threaded.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(InChild([] { RunToTheEnd(GPUVET_NOT_IN_WHITELIST, 0); }),
              ::testing::ExitedWithCode(GPUVET_NOT_IN_WHITELIST), kTimeoutLine);
  EXPECT_EXIT(InChild([] { RunToTheEnd(42, 1); }), ::testing::ExitedWithCode(42), kTimeoutLine);
}

// Done set before the first read, or a watchdog whose destructor stops it.
TEST(ExitWatchdogDeathTest, DoneInTimeEndsQuietly) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto doneBeforeTheFirstRead = [] {
    ExitWatchdog watchdog(GPUVET_NOT_IN_WHITELIST, 0);
    watchdog.done.store(true);
    WatchdogMain(&watchdog);
  };
  EXPECT_EXIT(InChild(doneBeforeTheFirstRead), ::testing::ExitedWithCode(EXIT_SUCCESS), kNothing);
  const auto leaveTheScope = [] {
    ExitWatchdog(GPUVET_NOT_IN_WHITELIST, 1).Start();  // the destructor stops it at once
    sleep(2);  // had the thread been left running it would fire after its tick
  };
  EXPECT_EXIT(InChild(leaveTheScope), ::testing::ExitedWithCode(EXIT_SUCCESS), kNothing);
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

}  // namespace
}  // namespace gpuvet
