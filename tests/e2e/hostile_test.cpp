// Runs of the real binary against what a host or a vendor may do to it: a log
// that nobody reads or whose pipe is closed, and an OpenCL library that ends
// the process its own way, during the run or while the process ends.
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

// Once the run's code is decided, a vendor that crashes, aborts or exits while
// the process ends (in its destructor or an exit handler) leaves that code:
// a black-listed device stays refused.
TEST_F(HostileTest, VendorThatEndsTheProcessAfterTheRunLeavesTheRunsCode) {
  const std::string blackList = machine_.WriteFile("lists/black.xml", ListFileText("BlackList", {NvidiaDevice()}));
  for (const int32_t code : {kIcdCrash, kIcdAbort, kIcdExitZero}) {
    for (const bool inDestructor : {true, false}) {
      SCOPED_TRACE(std::to_string(code) + (inDestructor ? " in the destructor" : " in an exit handler"));
      IcdConfig config;
      config.platforms.emplace_back().devices = {NvidiaDevice()};
      (inDestructor ? config.destructorFault : config.exitHandlerFault) = code;
      UseTestIcd(machine_, config);
      const RunResult run = machine_.RunGpuvet({"--gpu", "0", "--blacklist", blackList});
      EXPECT_EQ(run.status, kStatusInBlackList) << run.out << run.err;
      EXPECT_THAT(run.out, EndsWith("in blacklist!\n"));
    }
  }
}

// A host that closes the pipe after the first line changes nothing: the same
// status, the same stored verdict and file as a run whose log was read to the
// end. The file's dump is larger than a pipe holds, so the run certainly
// writes after the close.
TEST_F(HostileTest, HostThatClosesThePipeChangesNothing) {
  IcdConfig config;
  config.platforms.emplace_back().devices = {NvidiaDevice()};
  UseTestIcd(machine_, config);
  const std::string host = "{\"Host\": \"" + std::string(1 << 20, 'x') + "\"}";
  RunResult runs[2];
  for (const int closed : {0, 1}) {
    const std::string folder = closed != 0 ? "closed" : "read";
    machine_.WriteFile(folder + "/gpuvet.json", host);
    const std::string reader = closed != 0 ? "head -n 1 > /dev/null" : "cat > /dev/null";
    runs[closed] = machine_.Run({"/bin/bash", "-c", "\"$0\" \"$@\" | " + reader + "; echo \"status ${PIPESTATUS[0]}\"",
                                 GpuvetBinary(), "--gpu", "0", "--result", machine_.PathOf(folder)});
  }
  EXPECT_EQ(runs[1].out, runs[0].out);
  EXPECT_EQ(runs[0].out, "status 13\n");  // no driver bound: an old driver
  EXPECT_TRUE(ReadWhole(machine_.PathOf("closed/gpuvet.json")) == ReadWhole(machine_.PathOf("read/gpuvet.json")));
  EXPECT_THAT(ReadWhole(machine_.PathOf("closed/gpuvet.json")), HasSubstr("\"checked\": 1"));
}

}  // namespace
}  // namespace gpuvet::e2e
