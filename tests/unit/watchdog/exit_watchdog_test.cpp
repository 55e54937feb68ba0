#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "exit_watchdog.h"
#include "verdict/exit_codes.h"

namespace gpuvet {
namespace {

constexpr const char* kTimeoutLine = "^Timeout exit:  GPUVET_NOT_IN_WHITELIST\n$";
constexpr const char* kNothing = "^$";

// Death tests re-run the binary for the child, so the child starts single-threaded.
class ExitWatchdogTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// The child's standard output goes where a death test looks: standard error.
void SendOutputToErrorStream() {
  std::fflush(stdout);
  dup2(STDERR_FILENO, STDOUT_FILENO);
}

// Runs a watchdog to its own end; it ends the process if it fires.
void RunWatchdogUntilItEnds(int32_t exitCode, int32_t tickCount) {
  SendOutputToErrorStream();
  ExitWatchdog watchdog(exitCode, tickCount);
  watchdog.Start();
  watchdog.thread->join();
  std::exit(EXIT_SUCCESS);
}

struct FireCase {
  int32_t exitCode;
  int32_t tickCount;
};

class ExitWatchdogFireTest : public ExitWatchdogTest, public ::testing::WithParamInterface<FireCase> {};

TEST_P(ExitWatchdogFireTest, CountUsedUpPrintsTheLineAndExitsWithTheCode) {
  const FireCase& param = GetParam();
  EXPECT_EXIT(RunWatchdogUntilItEnds(param.exitCode, param.tickCount), ::testing::ExitedWithCode(param.exitCode),
              kTimeoutLine);
}

INSTANTIATE_TEST_SUITE_P(Counts, ExitWatchdogFireTest,
                         ::testing::Values(FireCase{GPUVET_NOT_IN_WHITELIST, 0}, FireCase{GPUVET_NOT_IN_WHITELIST, -5},
                                           FireCase{42, 1}));

TEST_F(ExitWatchdogTest, StopAfterAQuickStartEndsQuietly) {
  ExitWatchdog watchdog(GPUVET_NOT_IN_WHITELIST, kWatchdogTickCount);
  testing::internal::CaptureStdout();
  watchdog.Start();
  ASSERT_TRUE(watchdog.thread);
  watchdog.Stop();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(watchdog.done.load());
  EXPECT_FALSE(watchdog.thread);
}

TEST_F(ExitWatchdogTest, StopWithoutStartFindsNoThread) {
  ExitWatchdog watchdog(GPUVET_NOT_IN_WHITELIST, kWatchdogTickCount);
  watchdog.Stop();
  EXPECT_TRUE(watchdog.done.load());
  EXPECT_FALSE(watchdog.thread);
}

TEST_F(ExitWatchdogTest, DoneSetBeforeTheFirstReadEndsWithoutFiring) {
  const auto runWithDoneSet = [] {
    SendOutputToErrorStream();
    ExitWatchdog watchdog(GPUVET_NOT_IN_WHITELIST, 0);
    watchdog.done.store(true);
    WatchdogMain(&watchdog);
    std::exit(EXIT_SUCCESS);
  };
  EXPECT_EXIT(runWithDoneSet(), ::testing::ExitedWithCode(EXIT_SUCCESS), kNothing);
}

TEST_F(ExitWatchdogTest, SecondStartAddsNoThreadAndKeepsDone) {
  ExitWatchdog watchdog(GPUVET_NOT_IN_WHITELIST, kWatchdogTickCount);
  watchdog.Start();
  const std::thread* first = watchdog.thread.get();
  watchdog.done.store(true);
  watchdog.Start();
  EXPECT_EQ(watchdog.thread.get(), first);
  EXPECT_TRUE(watchdog.done.load());
  watchdog.Stop();
}

TEST_F(ExitWatchdogTest, DestructorStopsAndJoins) {
  const auto runAndLeaveScope = [] {
    SendOutputToErrorStream();
    {
      ExitWatchdog watchdog(GPUVET_NOT_IN_WHITELIST, 1);
      watchdog.Start();
    }
    // Had the thread been left running it would fire after its tick.
    sleep(2);
    std::exit(EXIT_SUCCESS);
  };
  EXPECT_EXIT(runAndLeaveScope(), ::testing::ExitedWithCode(EXIT_SUCCESS), kNothing);
}

}  // namespace
}  // namespace gpuvet
