#include "command_line.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <thread>

#include "opencl/device_census.h"
#include "platform/runtime_text.h"
#include "print.h"
#include "run_options.h"

namespace gpuvet {
namespace {

bool IsOption(const char* element, const char* name) {
  return platform::CompareIgnoreCase(element, name) == 0;
}

}  // namespace

// One pass of tests in a fixed order, none of which ends the pass: after a value
// option has taken its value, the index stands on the value, and the tests that
// follow in the same pass look at the value itself. A value option that stands
// last leaves the index on argv[argc], whose null pointer the next comparison
// hands to the invalid parameter handler. Both are deliberate: hosts rely on them.
int ParseCommandLine(int argc, char** argv) { return ParseCommandLine(argc, argv, ThisMachine()); }

int ParseCommandLine(int argc, char** argv, const MachineSource& machine) {
  if (argc < 2) {
    return 1;
  }
  RunOptions& options = g_runOptions;
  int index = 1;
  while (index < argc) {
    if (IsOption(argv[index], "--notest")) {
      options.noTest = true;
    }
    if (IsOption(argv[index], "--details")) {
      AddCensusToTable(machine.takeCensus());
    }
    if (IsOption(argv[index], "--blacklist") && ++index < argc) {
      platform::StorePathValue(argv[index], options.blackListPath);
    }
    if (IsOption(argv[index], "--whitelist") && ++index < argc) {
      platform::StorePathValue(argv[index], options.whiteListPath);
    }
    if (IsOption(argv[index], "--gpu") && ++index < argc) {
      options.gpuIndex = platform::TextToInt(argv[index]);
    }
    if (IsOption(argv[index], "--recheck") && ++index < argc) {
      options.recheck = platform::TextToInt(argv[index]) != 0;
    }
    if (IsOption(argv[index], "--result") && ++index < argc) {
      platform::StorePathValue(argv[index], options.resultDir);
    }
    if (IsOption(argv[index], "--blankrun")) {
      BlankRun();
    }
    if (IsOption(argv[index], "--help")) {
      Print("gpuvet.exe\n");
      Print("gpuvet.exe [--notest] [--details] [--blankrun] [--recheck] [--result][--help]\n");
    }
    ++index;
  }
  return 1;
}

void BlankRun() {
  for (int32_t seconds = 0;; ++seconds) {
    Print("%d s\n", seconds);
    std::fflush(stdout);  // the host reads the count as it goes
    std::this_thread::sleep_until(std::chrono::steady_clock::now() + std::chrono::seconds(1));
  }
}

}  // namespace gpuvet
