// The adapter list, the selection and the command line, through the real binary
// on fixture PCI trees.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "e2e_support.h"

namespace gpuvet::e2e {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kUsage =
    "gpuvet.exe\ngpuvet.exe [--notest] [--details] [--blankrun] [--recheck] [--result][--help]\n";

// The adapter lines of a run's output: the list block and the selection's copy.
std::vector<std::string> AdapterLines(const std::string& out) {
  std::vector<std::string> lines;
  for (const std::string& line : Lines(out)) {
    if (line.rfind("   ", 0) == 0 && line.find(", device_id :0x") != std::string::npos) {
      lines.push_back(line);
    }
  }
  return lines;
}

// "vendor:device" in lower-case hex, as lspci shows the ids.
std::string IdsOfLine(const std::string& adapterLine) {
  unsigned device = 0;
  unsigned vendor = 0;
  std::sscanf(adapterLine.c_str() + adapterLine.find(", device_id :0x"), ", device_id :0x%X, vendor_id:0x%X", &device,
              &vendor);
  char ids[16];
  std::snprintf(ids, sizeof ids, "%04x:%04x", vendor, device);
  return ids;
}

class AdaptersTest : public ::testing::Test {
 protected:
  void SetUp() override { GPUVET_REQUIRE_NAMESPACE(); }
  FixtureMachine machine_;
};

TEST_F(AdaptersTest, ListsDisplayAdaptersInPciAddressOrderLikeLspci) {
  machine_.AddPciDevice({"0000:65:00.0", 0x030200, 0x10de, 0x1b80});  // 3D controller
  machine_.AddPciDevice({"0000:00:1f.3", 0x040300, 0x8086, 0xa348});  // audio: not a display adapter
  machine_.AddPciDevice(kIntelAdapter);
  machine_.AddPciDevice({"0000:04:00.0", 0x038000, 0x1002, 0x15d8});  // other display controller
  machine_.AddPciDevice(kAmdAdapter);
  machine_.AddPciDevice({"0000:05:00.0", 0x030000, 0x1234, 0x2330});  // ids unknown to the database

  const RunResult result = machine_.RunGpuvet({"--gpu", "4"});
  const std::vector<std::string> lines = AdapterLines(result.out);

  // Display adapters (class 03xx) as lspci shows them: their ids, and their names without the ids.
  const std::vector<std::string> numeric = Lines(machine_.Run({"/usr/bin/lspci", "-mm", "-nn"}).out);
  const std::vector<std::string> named = Lines(machine_.Run({"/usr/bin/lspci", "-mm"}).out);
  static const std::regex numericEntry(R"re(^\S+ "[^"]*\[03..\]" "[^"]*\[(\w{4})\]" "[^"]*\[(\w{4})\]")re");
  static const std::regex namedEntry(R"re(^\S+ "[^"]*" "[^"]*" "([^"]*)")re");
  std::vector<std::pair<std::string, std::string>> expected;
  for (std::size_t i = 0; i < numeric.size() && i < named.size(); ++i) {
    std::smatch ids;
    std::smatch name;
    if (std::regex_search(numeric[i], ids, numericEntry) && std::regex_search(named[i], name, namedEntry)) {
      expected.emplace_back(ids.str(1) + ":" + ids.str(2), name.str(1));
    }
  }
  ASSERT_EQ(expected.size(), 5u) << "lspci saw other devices than the fixture's";
  ASSERT_EQ(lines.size(), expected.size() + 1);  // the list, then the selection's copy of the last
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(IdsOfLine(lines[i]), expected[i].first);
    EXPECT_THAT(lines[i], StartsWith("   " + expected[i].second + ", device_id :0x"));
    EXPECT_THAT(lines[i], MatchesRegex("   .+, device_id :0x[0-9A-F]{4}, vendor_id:0x[0-9A-F]{4}  ver:.*  date:.*"));
  }
  EXPECT_EQ(lines.back(), lines[4]);
  EXPECT_EQ(result.status, kStatusNoPlatform);
}

struct SelectionCase {
  const char* name;
  std::vector<PciFixtureDevice> devices;
  std::vector<std::string> args;
  std::string indexLine;
  std::string selected;  // the ids of the selected adapter, or the selection's error line
};

void PrintTo(const SelectionCase& selectionCase, std::ostream* out) {
  *out << selectionCase.name;
}

class SelectionTest : public AdaptersTest, public ::testing::WithParamInterface<SelectionCase> {};

TEST_P(SelectionTest, SelectsTheExpectedAdapter) {
  const SelectionCase& param = GetParam();
  for (const PciFixtureDevice& device : param.devices) {
    machine_.AddPciDevice(device);
  }
  const RunResult result = machine_.RunGpuvet(param.args);
  const std::vector<std::string> lines = Lines(result.out);
  const auto indexLine = std::find(lines.begin(), lines.end(), param.indexLine);
  ASSERT_NE(indexLine, lines.end()) << result.out;
  ASSERT_NE(indexLine + 1, lines.end());
  if (param.selected.rfind("error", 0) == 0) {
    EXPECT_EQ(indexLine[1], param.selected);
    EXPECT_EQ(indexLine + 2, lines.end()) << "nothing follows a failed selection";
  } else {
    EXPECT_EQ(IdsOfLine(indexLine[1]), param.selected);
  }
  EXPECT_EQ(result.status, kStatusNoPlatform);
}

const PciFixtureDevice kSecondIntel{"0000:00:03.0", 0x030000, 0x8086, 0x3e92};
const PciFixtureDevice kHostBridge{"0000:00:00.0", 0x060000, 0x8086, 0x0d57};

INSTANTIATE_TEST_SUITE_P(
    Selections, SelectionTest,
    ::testing::Values(
        SelectionCase{"IntelFirstPicksTheNext", {kIntelAdapter, kAmdAdapter, kNvidiaAdapter}, {}, "Adapter: -1", "1002:67df"},
        SelectionCase{"OnlyIntelPicksTheFirst", {kIntelAdapter, kSecondIntel}, {}, "Adapter: -1", "8086:3e92"},
        SelectionCase{"NoDisplayAdapterFails", {kHostBridge}, {}, "Adapter: -1", "error  index [-1] infos.size[0]"},
        SelectionCase{"IndexZeroTakesIntel", {kIntelAdapter, kAmdAdapter}, {"--gpu", "0"}, "Adapter: 0", "8086:3e92"},
        SelectionCase{"NegativeIndexActsAsNone", {kIntelAdapter, kAmdAdapter}, {"--GPU", "-5"}, "Adapter: -5", "1002:67df"},
        SelectionCase{"NonNumberIsIndexZero", {kIntelAdapter, kAmdAdapter}, {"--gpu", "abc"}, "Adapter: 0", "8086:3e92"},
        SelectionCase{"LastIndexSelectsTheLast", {kIntelAdapter, kAmdAdapter}, {"--gpu", "1"}, "Adapter: 1", "1002:67df"},
        SelectionCase{"IndexEqualToCountFails", {kIntelAdapter, kAmdAdapter}, {"--gpu", "2"}, "Adapter: 2",
                      "error  index [2] infos.size[2]"},
        SelectionCase{"IndexBeyondRangeSaturatesAndFails", {kAmdAdapter}, {"--gpu", "99999999999"},
                      "Adapter: 2147483647", "error  index [2147483647] infos.size[1]"}),
    [](const auto& info) { return std::string(info.param.name); });

// Runs on a machine without usable adapters, whose whole output is known.
struct CommandLineCase {
  std::string name;
  std::vector<std::string> args;
  std::string out;
  int status;
  bool withMalformedEntries = false;
};

void PrintTo(const CommandLineCase& commandLineCase, std::ostream* out) {
  *out << commandLineCase.name;
}

std::vector<CommandLineCase> CommandLineCases() {
  std::vector<CommandLineCase> cases = {
      {"NoTestEndsBeforeTheAdapters", {"--NoTest", "--gpu", "0"}, "no test!\n", kStatusNoTest},
      {"HelpPrintsTheUsageEachTime", {"--help", "--notest", "--help"}, std::string(kUsage) + kUsage + "no test!\n",
       kStatusNoTest},
      {"HelpLetsTheRunGoOn", {"--help"}, std::string(kUsage) + "\nAdapter: -1\nerror  index [-1] infos.size[0]\n",
       kStatusNoPlatform},
      {"OverlongPathIsInvalid", {"--result", std::string(2048, 'd')}, "_invalid_parameter\n",
       kStatusInvalidParameter},
      {"MalformedEntriesArePassedOverWithALogLine", {},
       "qdx_log_callback -- skipping 0000:05:00.0: class unreadable\n"
       "qdx_log_callback -- skipping 0000:06:00.0: vendor unreadable\n\nAdapter: -1\nerror  index [-1] infos.size[0]\n",
       kStatusNoPlatform, true}};
  for (const char* option : {"blacklist", "whitelist", "gpu", "recheck", "result"}) {
    cases.push_back({std::string("ValueOptionLast_") + option, {"--help", "--notest", std::string("--") + option},
                     std::string(kUsage) + "_invalid_parameter\n", kStatusInvalidParameter});
  }
  return cases;
}

class CommandLineTest : public AdaptersTest, public ::testing::WithParamInterface<CommandLineCase> {};

TEST_P(CommandLineTest, PrintsAndEndsAsExpected) {
  if (GetParam().withMalformedEntries) {
    machine_.MakeDir("pci/devices/0000:05:00.0");  // no class file
    machine_.AddPciDevice({"0000:06:00.0", 0x030000, 0x10de, 0x1b80});
    machine_.WriteFile("pci/devices/0000:06:00.0/vendor", "garbage\n");
  }
  const RunResult result = machine_.RunGpuvet(GetParam().args);
  EXPECT_EQ(result.out, GetParam().out);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.status, GetParam().status);
}

INSTANTIATE_TEST_SUITE_P(CommandLines, CommandLineTest, ::testing::ValuesIn(CommandLineCases()),
                         [](const auto& info) { return info.param.name; });

TEST_F(AdaptersTest, BlankRunCountsSecondsUntilEnded) {
  const RunResult result = machine_.RunGpuvet({"--blankrun", "--notest"}, 2);
  EXPECT_TRUE(result.timedOut);
  EXPECT_THAT(result.out, StartsWith("0 s\n1 s\n"));
  EXPECT_THAT(result.out, Not(HasSubstr("no test!")));
}

}  // namespace
}  // namespace gpuvet::e2e
