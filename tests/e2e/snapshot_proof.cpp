#include "snapshot_proof.h"

#include <gtest/gtest.h>
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>

namespace gpuvet::e2e {
namespace {

constexpr const char* kCallLogFile = "opencl/test_icd_calls.log";
constexpr const char* kSnapshotFile = "proof-snapshot.json";

bool Repeatable(const std::vector<std::string>& args, const RunResult& live) {
  const bool unrepeatableOption = std::any_of(args.begin(), args.end(), [](const std::string& arg) {
    return strcasecmp(arg.c_str(), "--result") == 0 || strcasecmp(arg.c_str(), "--blankrun") == 0;
  });
  static const std::regex vendorEnded(R"(exception: [^0-9])");
  return !unrepeatableOption && !live.timedOut && live.out.find("Timeout exit:") == std::string::npos &&
         !std::regex_search(live.out, vendorEnded);
}

std::string WithoutHandles(const std::string& out) {
  static const std::regex handle(R"(platform\[(\d+), [^\]]*\])");
  return std::regex_replace(out, handle, "platform[$1, P]");
}

std::string ReadWhole(const std::string& path, bool& exists) {
  std::ifstream file(path, std::ios::binary);
  exists = static_cast<bool>(file);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace

void ExpectSnapshotGivesTheSameRun(const FixtureMachine& machine, const std::vector<std::string>& args,
                                   const RunResult& live) {
  if (!Repeatable(args, live)) {
    return;
  }
  bool logged = false;
  const std::string callLog = ReadWhole(machine.PathOf(kCallLogFile), logged);

  const std::string snapshot = machine.PathOf(kSnapshotFile);
  const RunResult taken = machine.Run({GpuvetListsBinary(), "snapshot", "-o", snapshot});
  EXPECT_EQ(taken.status, 0) << taken.err;
  std::vector<std::string> verdict = {GpuvetListsBinary(), "verdict", "--snapshot", snapshot};
  verdict.insert(verdict.end(), args.begin(), args.end());
  const RunResult replayed = machine.Run(verdict);
  EXPECT_EQ(replayed.status, live.status) << "over the snapshot, with the arguments of the live run";
  EXPECT_EQ(WithoutHandles(replayed.out), WithoutHandles(live.out)) << "over the snapshot";
  EXPECT_EQ(replayed.err, live.err) << "over the snapshot";
  std::remove(snapshot.c_str());

  if (logged) {
    std::ofstream(machine.PathOf(kCallLogFile), std::ios::binary | std::ios::trunc) << callLog;
  } else {
    std::remove(machine.PathOf(kCallLogFile).c_str());
  }
}

}  // namespace gpuvet::e2e
