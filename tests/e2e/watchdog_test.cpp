// The time limit of a run, through the real binary: an OpenCL query held up by
// the test vendor library against a quick run.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fixture_machine.h"
#include "test_icd_config.h"

namespace gpuvet::e2e {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kTimeoutLine = "Timeout exit:  GPUVET_NOT_IN_WHITELIST\n";
constexpr int kStatusNotInWhiteList = 11;
// Far beyond the watchdog's nine seconds, and beyond the harness's own limit:
// a run that the watchdog does not end is killed by the harness instead.
constexpr unsigned kHeldUpSeconds = 300;
constexpr int kHarnessLimitSeconds = 60;

const PciFixtureDevice kNvidiaGpu{"0000:01:00.0", 0x030000, 0x10de, 0x2204};

IcdConfig OneGpuPlatform() {
  IcdConfig config;
  config.platforms.emplace_back().devices.push_back(IcdDevice{});
  return config;
}

TEST(WatchdogE2eTest, RunHeldUpInTheCensusEndsWithTheTimeoutLine) {
  GPUVET_REQUIRE_NAMESPACE();
  FixtureMachine machine;
  machine.AddPciDevice(kNvidiaGpu);
  IcdConfig config = OneGpuPlatform();
  config.platforms[0].devices[0].faults.push_back({CL_DEVICE_NAME, CL_SUCCESS, 0, kHeldUpSeconds});
  UseTestIcd(machine, config);

  const RunResult run = machine.RunGpuvet({}, kHarnessLimitSeconds);
  EXPECT_FALSE(run.timedOut);
  EXPECT_EQ(run.status, kStatusNotInWhiteList);
  EXPECT_THAT(run.out, EndsWith(kTimeoutLine));
  EXPECT_EQ(run.err, "");
}

TEST(WatchdogE2eTest, QuickRunPrintsNoTimeoutLine) {
  GPUVET_REQUIRE_NAMESPACE();
  FixtureMachine machine;
  machine.AddPciDevice(kNvidiaGpu);
  UseTestIcd(machine, OneGpuPlatform());

  const RunResult run = machine.RunGpuvet({}, kHarnessLimitSeconds);
  EXPECT_FALSE(run.timedOut);
  EXPECT_THAT(run.out, Not(HasSubstr("Timeout exit:")));
  // Through the census to the verdict; without list files nothing refuses with 11.
  EXPECT_THAT(run.out, HasSubstr("check platforms end\n"));
  EXPECT_NE(run.status, kStatusNotInWhiteList);
}

}  // namespace
}  // namespace gpuvet::e2e
