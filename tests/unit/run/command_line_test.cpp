#include "command_line.h"

#include <gtest/gtest.h>

#include <string>
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

struct ParseCase {
  const char* name;
  std::vector<std::string> args;
  RunOptions expected;
};

RunOptions Options(std::string black, std::string white, std::string result, bool recheck, int32_t gpu, bool noTest) {
  return RunOptions{std::move(black), std::move(white), std::move(result), recheck, gpu, noTest};
}

class ParseTest : public ::testing::TestWithParam<ParseCase> {};

TEST_P(ParseTest, FillsTheOptions) {
  const RunOptions parsed = Parse(GetParam().args);
  const RunOptions& expected = GetParam().expected;
  EXPECT_EQ(parsed.blackListPath, expected.blackListPath);
  EXPECT_EQ(parsed.whiteListPath, expected.whiteListPath);
  EXPECT_EQ(parsed.resultDir, expected.resultDir);
  EXPECT_EQ(parsed.recheck, expected.recheck);
  EXPECT_EQ(parsed.gpuIndex, expected.gpuIndex);
  EXPECT_EQ(parsed.noTest, expected.noTest);
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, ParseTest,
    ::testing::Values(
        ParseCase{"NoArguments", {}, Options("", "", "", false, -1, false)},
        ParseCase{"UnknownOnly", {"--foo", "bar", "--gpu=1", "--gp"}, Options("", "", "", false, -1, false)},
        ParseCase{"AllValues",
                  {"--blacklist", "B.xml", "--whitelist", "W.xml", "--gpu", "2", "--recheck", "1", "--result", "D"},
                  Options("B.xml", "W.xml", "D", true, 2, false)},
        ParseCase{"NamesIgnoreCaseValuesKeepIt", {"--NoTest", "--GPU", "3", "--BlackList", "Mixed.XML"},
                  Options("Mixed.XML", "", "", false, 3, true)},
        // A value equal to a name tested later in the pass also acts as that option.
        ParseCase{"ValueIsALaterOption", {"--blacklist", "--whitelist", "third"},
                  Options("--whitelist", "third", "", false, -1, false)},
        // A value equal to a name tested earlier is only a value.
        ParseCase{"ValueIsAnEarlierOption", {"--whitelist", "--blacklist", "third"},
                  Options("", "--blacklist", "", false, -1, false)},
        ParseCase{"RecheckTakesTheNextOptionAsValue", {"--recheck", "--gpu", "4"}, Options("", "", "", false, -1, false)},
        ParseCase{"LastValueWins", {"--gpu", "1", "--gpu", "5", "--recheck", "1", "--recheck", "0"},
                  Options("", "", "", false, 5, false)},
        ParseCase{"NegativeGpu", {"--gpu", "-5"}, Options("", "", "", false, -5, false)},
        ParseCase{"GpuNotANumberIsZero", {"--gpu", "abc"}, Options("", "", "", false, 0, false)},
        ParseCase{"GpuDigitsThenLetters", {"--gpu", " 12ab"}, Options("", "", "", false, 12, false)},
        ParseCase{"GpuSaturates", {"--gpu", "99999999999"}, Options("", "", "", false, 2147483647, false)},
        ParseCase{"RecheckYesIsFalse", {"--recheck", "yes"}, Options("", "", "", false, -1, false)},
        ParseCase{"EmptyResultStaysEmpty", {"--result", ""}, Options("", "", "", false, -1, false)},
        ParseCase{"Utf8PathKeptByteForByte", {"--result", "/tmp/r\xc3\xa9sultats \xe2\x82\xac"},
                  Options("", "", "/tmp/r\xc3\xa9sultats \xe2\x82\xac", false, -1, false)},
        ParseCase{"LongestPathAccepted", {"--whitelist", std::string(2047, 'w')},
                  Options("", std::string(2047, 'w'), "", false, -1, false)}),
    [](const auto& info) { return std::string(info.param.name); });

void PrintTo(const ParseCase& parseCase, std::ostream* out) {
  *out << parseCase.name;
}

TEST(ParseCommandLineOutput, HelpPrintsTheUsageEveryTimeEvenAsAValue) {
  ::testing::internal::CaptureStdout();
  const RunOptions parsed = Parse({"--help", "--result", "--help"});
  const std::string usage =
      "gpuvet.exe\ngpuvet.exe [--notest] [--details] [--blankrun] [--recheck] [--result][--help]\n";
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), usage + usage);
  EXPECT_EQ(parsed.resultDir, "--help");
}

class ParseDeathTest : public ::testing::TestWithParam<std::vector<std::string>> {
 protected:
  void SetUp() override { platform::SetInvalidParameterHandler(OnInvalidParameter); }
};

// A value option that stands last, or a path too long for the buffer, ends the
// process with the invalid parameter code.
TEST_P(ParseDeathTest, EndsWithInvalidParameter) {
  constexpr int kInvalidParameterStatus = static_cast<uint8_t>(-1000);
  EXPECT_EXIT(Parse(GetParam()), ::testing::ExitedWithCode(kInvalidParameterStatus), "");
}

INSTANTIATE_TEST_SUITE_P(InvalidParameters, ParseDeathTest,
                         ::testing::Values(std::vector<std::string>{"--blacklist"},
                                           std::vector<std::string>{"--notest", "--whitelist"},
                                           std::vector<std::string>{"--gpu", "1", "--gpu"},
                                           std::vector<std::string>{"--recheck"},
                                           std::vector<std::string>{"--result"},
                                           std::vector<std::string>{"--result", std::string(2048, 'r')}));

}  // namespace
}  // namespace gpuvet
