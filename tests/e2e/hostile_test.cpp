// Runs of the real binary against what a host or a vendor may do to it: a log
// that nobody reads, and an OpenCL library that ends the process its own way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "e2e_support.h"

namespace gpuvet::e2e {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

class HostileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    GPUVET_REQUIRE_NAMESPACE();
    machine_.AddPciDevice(kNvidiaAdapter);
  }
  FixtureMachine machine_;
};

// The result file is printed as it is read, under the watchdog: a file larger
// than a pipe holds blocks the main thread in its write, with the stream's lock
// held, and the watchdog must still end the run by its bound.
TEST_F(HostileTest, ReaderThatNeverReadsCannotHoldTheRunPastItsBound) {
  machine_.WriteFile("results/gpuvet.json", "{\"Host\": \"" + std::string(200000, 'x') + "\"}");
  const RunResult run = machine_.Run({"/bin/bash", "-c", "\"$0\" \"$@\" > >(sleep 15); echo \"status $?\"",
                                      GpuvetBinary(), "--gpu", "0", "--result", machine_.PathOf("results")});
  EXPECT_FALSE(run.timedOut);
  EXPECT_EQ(run.out, "status 11\n");
  EXPECT_LT(run.wallSeconds, 14.0);
}

// Whatever way a vendor library ends the process, the host sees the refusal of
// a timed-out run and one line that says what happened: never a pass, never a
// signal status or a core dump.
TEST_F(HostileTest, VendorThatEndsTheProcessGivesARefusal) {
  const std::pair<int32_t, const char*> cases[] = {
      {kIcdCrash, "exception: signal 11\n"},
      {kIcdAbort, "exception: signal 6\n"},
      {kIcdExitZero, "exception: exit from inside the run\n"},
  };
  for (const auto& [code, line] : cases) {
    SCOPED_TRACE(line);
    IcdConfig config;
    IcdDevice device = NvidiaDevice();
    device.faults.push_back({CL_DEVICE_NAME, code});
    config.platforms.emplace_back().devices = {device};
    UseTestIcd(machine_, config);
    const RunResult run = machine_.RunGpuvet({"--gpu", "0"});
    EXPECT_EQ(run.status, kStatusNotInWhiteList) << run.out << run.err;
    EXPECT_THAT(run.out, EndsWith(line));
    EXPECT_THAT(run.out, HasSubstr("gpuvet begin\n"));
  }
}

}  // namespace
}  // namespace gpuvet::e2e
