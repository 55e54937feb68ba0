#include "command_line.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <CL/opencl.hpp>
#include <stdexcept>

#include <string>
#include <tuple>
#include <vector>

#include "entry.h"
#include "platform/process.h"
#include "run_options.h"

namespace gpuvet {
namespace {

// Parses the arguments behind a program name, with argv[argc] null as main gets it.
RunOptions Parse(std::vector<std::string> args) {
  g_runOptions = RunOptions{};
  args.insert(args.begin(), "gpuvet");
  std::vector<char*> argv;
  for (std::string& arg : args) {
    argv.push_back(arg.data());
  }
  argv.push_back(nullptr);
  ParseCommandLine(static_cast<int>(args.size()), argv.data());
  return g_runOptions;
}

auto Fields(const RunOptions& o) {
  return std::make_tuple(o.blackListPath, o.whiteListPath, o.resultDir, o.recheck, o.gpuIndex, o.noTest);
}

TEST(ParseCommandLine, FillsTheOptions) {
  const std::string longestPath(2047, 'w');
  const struct {
    std::vector<std::string> args;
    RunOptions expected;
  } cases[] = {
      {{}, {"", "", "", false, -1, false}},
      {{"--foo", "bar", "--gpu=1", "--gp"}, {"", "", "", false, -1, false}},
      {{"--blacklist", "B.xml", "--whitelist", "W.xml", "--gpu", "2", "--recheck", "2", "--result", "D"},
       {"B.xml", "W.xml", "D", true, 2, false}},
      // Names ignore case, values keep it.
      {{"--NoTest", "--GPU", "3", "--BlackList", "Mixed.XML"}, {"Mixed.XML", "", "", false, 3, true}},
      // A value equal to a name tested later in the pass also acts as that option;
      // one equal to a name tested earlier is only a value.
      {{"--blacklist", "--whitelist", "third"}, {"--whitelist", "third", "", false, -1, false}},
      {{"--whitelist", "--blacklist", "third"}, {"", "--blacklist", "", false, -1, false}},
      {{"--recheck", "--gpu", "4"}, {"", "", "", false, -1, false}},
      {{"--gpu", "1", "--gpu", "5", "--recheck", "1", "--recheck", "0"}, {"", "", "", false, 5, false}},
      {{"--gpu", " 12ab", "--recheck", "yes"}, {"", "", "", false, 12, false}},
      {{"--result", "/tmp/r\xc3\xa9sultats"}, {"", "", "/tmp/r\xc3\xa9sultats", false, -1, false}},
      {{"--whitelist", longestPath}, {"", longestPath, "", false, -1, false}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Fields(Parse(c.args)), Fields(c.expected)) << testing::PrintToString(c.args).substr(0, 80);
  }
}

TEST(ParseCommandLine, HelpPrintsTheUsageEveryTimeEvenAsAValue) {
  testing::internal::CaptureStdout();
  const RunOptions parsed = Parse({"--help", "--result", "--help"});
  const std::string usage =
      "gpuvet.exe\ngpuvet.exe [--notest] [--details] [--blankrun] [--recheck] [--result][--help]\n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), usage + usage);
  EXPECT_EQ(parsed.resultDir, "--help");
}

// The reading alone carries out nothing: it finds the actions, in the order a
// run carries them out, and stops where a run would stop.
TEST(ReadCommandLine, FindsTheActionsInOrderAndStopsWhereTheRunStops) {
  using A = CommandLineAction;
  const struct {
    std::vector<std::string> args;
    std::vector<CommandLineAction> actions;
    RunOptions options;
  } cases[] = {
      {{"--details", "--HELP", "--details"}, {A::kDetails, A::kHelp, A::kDetails}, {}},
      {{"--result", "--help", "--gpu", "2"}, {A::kHelp}, {"", "", "--help", false, 2, false}},
      {{"--details", "--blankrun", "--notest", "--help"}, {A::kDetails, A::kBlankRun}, {}},
      {{"--help", "--gpu"}, {A::kHelp, A::kInvalidParameter}, {}},
      {{"--notest", "--recheck"}, {A::kInvalidParameter}, {"", "", "", false, -1, true}},
      {{"--gpu", "1", "--whitelist", std::string(2048, 'w'), "--help"}, {A::kInvalidParameter},
       {"", "", "", false, 1, false}},
      {{"--blacklist", "--blankrun"}, {A::kBlankRun}, {"--blankrun", "", "", false, -1, false}},
  };
  for (const auto& c : cases) {
    std::vector<const char*> argv = {"gpuvet"};
    for (const std::string& arg : c.args) {
      argv.push_back(arg.c_str());
    }
    argv.push_back(nullptr);
    testing::internal::CaptureStdout();
    const CommandLine line = ReadCommandLine(static_cast<int>(argv.size()) - 1, argv.data());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(line.actions, c.actions) << testing::PrintToString(c.args).substr(0, 80);
    EXPECT_EQ(Fields(line.options), Fields(c.options)) << testing::PrintToString(c.args).substr(0, 80);
  }
}

// A value option that stands last, or a path too long for the buffer, ends the
// process with the invalid parameter code.
TEST(ParseCommandLineDeathTest, EndsWithInvalidParameter) {
  constexpr int kInvalidParameterStatus = static_cast<uint8_t>(-1000);
  platform::SetInvalidParameterHandler(OnInvalidParameter);
  for (const std::vector<std::string>& args : {std::vector<std::string>{"--blacklist"}, {"--gpu", "1", "--gpu"},
                                               {"--result"}, {"--result", std::string(2048, 'r')}}) {
    EXPECT_EXIT(Parse(args), testing::ExitedWithCode(kInvalidParameterStatus), "") << args.back().substr(0, 20);
  }
}

// The entry's own endings: an escaping exception, and a pure virtual call. The
// handler's line goes to standard output, which the death test does not see,
// so the child's output is led to its standard error.
struct CallsPureInConstructor {
  CallsPureInConstructor() { Call(); }
  virtual ~CallsPureInConstructor() = default;
  void Call() { Pure(); }
  virtual void Pure() = 0;
};
struct Derived : CallsPureInConstructor {
  void Pure() override {}
};

TEST(EntryDeathTest, EndsInItsOwnWays) {
  constexpr int kPureCallStatus = static_cast<uint8_t>(-1001);
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        platform::SetPureCallHandler(OnPureCall);
        Derived derived;
      },
      testing::ExitedWithCode(kPureCallStatus), "^In _purecall_handler\\.\n$");
  testing::internal::CaptureStdout();
  EXPECT_EQ(EndRunOnEscape([]() -> int32_t { throw std::runtime_error("out of memory"); }), 11);
  EXPECT_EQ(EndRunOnEscape([]() -> int32_t { throw cl::Error(CL_OUT_OF_HOST_MEMORY, "clGetPlatformIDs"); }), -10);
  EXPECT_EQ(EndRunOnEscape([]() -> int32_t { throw 7; }), 11);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "exception: out of memory\nno platform!\nexception: unknown exception\n");
}

}  // namespace
}  // namespace gpuvet
