#include "command_line.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <thread>

#include "opencl/device_census.h"
#include "platform/process.h"
#include "platform/runtime_text.h"
#include "print.h"

namespace gpuvet {
namespace {

// One pass of tests in a fixed order, none of which ends the pass: after a value
// option has taken its value, the index stands on the value, and the tests that
// follow in the same pass look at the value itself. A value option that stands
// last leaves the index on argv[argc], whose null pointer the next comparison
// hands to the invalid parameter handler. Both are deliberate: hosts rely on them.
class Pass {
 public:
  Pass(int argc, const char* const* argv) : argc_(argc), argv_(argv) {}

  CommandLine Run() {
    if (argc_ < 2) {
      return line_;
    }
    RunOptions& options = line_.options;
    for (index_ = 1; index_ < argc_; ++index_) {
      if (Is("--notest")) {
        options.noTest = true;
      }
      if (Is("--details")) {
        line_.actions.push_back(CommandLineAction::kDetails);
      }
      if (Is("--blacklist") && TakeValue() && !TakePath(options.blackListPath)) {
        return line_;
      }
      if (Is("--whitelist") && TakeValue() && !TakePath(options.whiteListPath)) {
        return line_;
      }
      if (Is("--gpu") && TakeValue()) {
        options.gpuIndex = platform::TextToInt(argv_[index_]);
      }
      if (Is("--recheck") && TakeValue()) {
        options.recheck = platform::TextToInt(argv_[index_]) != 0;
      }
      if (Is("--result") && TakeValue() && !TakePath(options.resultDir)) {
        return line_;
      }
      if (Is("--blankrun")) {
        return End(CommandLineAction::kBlankRun);
      }
      if (Is("--help")) {
        line_.actions.push_back(CommandLineAction::kHelp);
      }
      if (index_ >= argc_) {
        // The value option stood last: the next comparison meets argv[argc].
        return End(CommandLineAction::kInvalidParameter);
      }
    }
    return line_;
  }

 private:
  // Past the last element there is nothing to compare; the caller has stopped by then.
  bool Is(const char* name) const {
    return index_ < argc_ && platform::CompareIgnoreCase(argv_[index_], name) == 0;
  }
  // Steps onto the value; false when the option stood last.
  bool TakeValue() { return ++index_ < argc_; }
  // False, with the pass ended, when the value is too long for the path buffer.
  bool TakePath(std::string& target) {
    if (platform::NarrowPathValue(argv_[index_], target)) {
      return true;
    }
    End(CommandLineAction::kInvalidParameter);
    return false;
  }
  CommandLine End(CommandLineAction action) {
    line_.actions.push_back(action);
    return line_;
  }

  const int argc_;
  const char* const* argv_;
  int index_ = 1;
  CommandLine line_;
};

}  // namespace

CommandLine ReadCommandLine(int argc, const char* const* argv) {
  return Pass(argc, argv).Run();
}

int ParseCommandLine(int argc, char** argv) { return ParseCommandLine(argc, argv, ThisMachine()); }

int ParseCommandLine(int argc, char** argv, const MachineSource& machine) {
  const CommandLine line = ReadCommandLine(argc, argv);
  g_runOptions = line.options;
  for (const CommandLineAction action : line.actions) {
    switch (action) {
      case CommandLineAction::kDetails:
        AddCensusToTable(*machine.takeCensus());
        break;
      case CommandLineAction::kHelp:
        PrintUsage();
        break;
      case CommandLineAction::kBlankRun:
        BlankRun();
      case CommandLineAction::kInvalidParameter:
        platform::ReportInvalidParameter();
        return 1;
    }
  }
  return 1;
}

void PrintUsage() {
  Print("gpuvet.exe\n");
  Print("gpuvet.exe [--notest] [--details] [--blankrun] [--recheck] [--result][--help]\n");
}

void BlankRun() {
  for (int32_t seconds = 0;; ++seconds) {
    Print("%d s\n", seconds);
    std::fflush(stdout);  // the host reads the count as it goes
    std::this_thread::sleep_until(std::chrono::steady_clock::now() + std::chrono::seconds(1));
  }
}

}  // namespace gpuvet
