// The adapter list, the selection and the command line, through the real binary
// on fixture PCI trees.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "e2e_support.h"

namespace gpuvet::e2e {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kUsage =
    "gpuvet.exe\ngpuvet.exe [--notest] [--details] [--blankrun] [--recheck] [--result][--help]\n";

// The ids as an adapter line shows them.
std::string IdsOf(const PciFixtureDevice& device) {
  char ids[64];
  std::snprintf(ids, sizeof ids, ", device_id :0x%04X, vendor_id:0x%04X  ", device.deviceId, device.vendorId);
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


  // The display adapters (class 03xx) as lspci shows them: ids from -nn, names from the plain listing.
  const std::vector<std::string> numeric = Lines(machine_.Run({"/usr/bin/lspci", "-mm", "-nn"}).out);
  const std::vector<std::string> named = Lines(machine_.Run({"/usr/bin/lspci", "-mm"}).out);
  static const std::regex numericEntry(R"re(^\S+ "[^"]*\[03..\]" "[^"]*\[(\w{4})\]" "[^"]*\[(\w{4})\]")re");
  static const std::regex namedEntry(R"re(^\S+ "[^"]*" "[^"]*" "([^"]*)")re");
  std::vector<std::string> expected;  // no driver: empty version and date
  for (std::size_t i = 0; i < numeric.size() && i < named.size(); ++i) {
    std::smatch ids;
    std::smatch name;
    if (std::regex_search(numeric[i], ids, numericEntry) && std::regex_search(named[i], name, namedEntry)) {
      const PciFixtureDevice shown{"", 0, static_cast<uint32_t>(std::stoul(ids.str(1), nullptr, 16)),
                                   static_cast<uint32_t>(std::stoul(ids.str(2), nullptr, 16))};
      expected.push_back("   " + name.str(1) + IdsOf(shown) + "ver:  date:\n");
    }
  }
  ASSERT_EQ(expected.size(), 5u) << "lspci saw other devices than the fixture's";

  const RunResult result = machine_.RunGpuvet({"--gpu", "4"});
  EXPECT_THAT(result.out, HasSubstr(expected[0] + expected[1] + expected[2] + expected[3] + expected[4] +
                                    "\nAdapter: 4\n" + expected[4]));
  EXPECT_EQ(result.status, kStatusNoPlatform);
}

struct SelectionCase {
  const char* name;
  std::vector<PciFixtureDevice> devices;
  std::vector<std::string> args;
  std::string indexLine;
  std::string selected;  // the IdsOf the selected adapter, or the selection's error line
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
  EXPECT_THAT(indexLine[1], HasSubstr(param.selected));
  if (param.selected.rfind("error", 0) == 0) {
    EXPECT_EQ(indexLine + 2, lines.end()) << "nothing follows a failed selection";
  }
  EXPECT_EQ(result.status, kStatusNoPlatform);
}

const PciFixtureDevice kSecondIntel{"0000:00:03.0", 0x030000, 0x8086, 0x9bc5};
const PciFixtureDevice kHostBridge{"0000:00:00.0", 0x060000, 0x8086, 0x0d57};

INSTANTIATE_TEST_SUITE_P(
    Selections, SelectionTest,
    ::testing::Values(
        SelectionCase{"IntelFirstPicksTheNext", {kIntelAdapter, kAmdAdapter, kNvidiaAdapter}, {}, "Adapter: -1", IdsOf(kAmdAdapter)},
        SelectionCase{"OnlyIntelPicksTheFirst", {kIntelAdapter, kSecondIntel}, {}, "Adapter: -1", IdsOf(kIntelAdapter)},
        SelectionCase{"NoDisplayAdapterFails", {kHostBridge}, {}, "Adapter: -1", "error  index [-1] infos.size[0]"},
        SelectionCase{"IndexZeroTakesIntel", {kIntelAdapter, kAmdAdapter}, {"--gpu", "0"}, "Adapter: 0", IdsOf(kIntelAdapter)},
        SelectionCase{"NegativeIndexActsAsNone", {kIntelAdapter, kAmdAdapter}, {"--GPU", "-5"}, "Adapter: -5", IdsOf(kAmdAdapter)},
        SelectionCase{"NonNumberIsIndexZero", {kIntelAdapter, kAmdAdapter}, {"--gpu", "abc"}, "Adapter: 0", IdsOf(kIntelAdapter)},
        SelectionCase{"LastIndexSelectsTheLast", {kIntelAdapter, kAmdAdapter}, {"--gpu", "1"}, "Adapter: 1", IdsOf(kAmdAdapter)},
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
