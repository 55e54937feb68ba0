// The adapter list, the selection and the command line, through the real binary
// on fixture PCI trees.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "fixture_machine.h"

namespace gpuvet::e2e {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr int kStatusNoPlatform = 246;
constexpr int kStatusNoTest = 255;
constexpr int kStatusInvalidParameter = 24;

const PciFixtureDevice kIntelGpu{"0000:00:02.0", 0x030000, 0x8086, 0x3e92};
const PciFixtureDevice kAmdGpu{"0000:03:00.0", 0x030000, 0x1002, 0x67df};
const PciFixtureDevice kNvidiaGpu{"0000:65:00.0", 0x030200, 0x10de, 0x1b80};

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

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

// The device names lspci shows for the display adapters, in its order, as
// vendor:device ids and names.
struct LspciDevice {
  std::string ids;
  std::string name;
};

std::vector<std::string> QuotedFields(const std::string& line) {
  std::vector<std::string> fields;
  for (std::size_t open = line.find('"'); open != std::string::npos; open = line.find('"', open)) {
    const std::size_t close = line.find('"', open + 1);
    fields.push_back(line.substr(open + 1, close - open - 1));
    open = close + 1;
  }
  return fields;
}

// "Name [10de]" -> "10de"; the bracketed id closes the field.
std::string BracketedId(const std::string& field) {
  const std::size_t open = field.rfind('[');
  return field.substr(open + 1, field.size() - open - 2);
}

std::vector<LspciDevice> LspciDisplayDevices(const FixtureMachine& machine) {
  const RunResult numeric = machine.Run({"/usr/bin/lspci", "-mm", "-nn"});
  const RunResult named = machine.Run({"/usr/bin/lspci", "-mm"});
  const std::vector<std::string> numericLines = Lines(numeric.out);
  const std::vector<std::string> namedLines = Lines(named.out);
  std::vector<LspciDevice> devices;
  for (std::size_t i = 0; i < numericLines.size() && i < namedLines.size(); ++i) {
    const std::vector<std::string> ids = QuotedFields(numericLines[i]);
    const std::vector<std::string> names = QuotedFields(namedLines[i]);
    if (ids.size() >= 3 && names.size() >= 3 && BracketedId(ids[0]).rfind("03", 0) == 0) {
      devices.push_back({BracketedId(ids[1]) + ":" + BracketedId(ids[2]), names[2]});
    }
  }
  return devices;
}

std::string IdsOfLine(const std::string& adapterLine) {
  unsigned device = 0;
  unsigned vendor = 0;
  const std::size_t at = adapterLine.find(", device_id :0x");
  std::sscanf(adapterLine.c_str() + at, ", device_id :0x%X, vendor_id:0x%X", &device, &vendor);
  char ids[16];
  std::snprintf(ids, sizeof ids, "%04x:%04x", vendor, device);
  return ids;
}

class AdaptersTest : public ::testing::Test {
 protected:
  void SetUp() override { GPUVET_REQUIRE_NAMESPACE(); }
  FixtureMachine machine_;
};

TEST_F(AdaptersTest, MachineWithoutDisplayAdaptersFailsTheSelection) {
  machine_.AddPciDevice({"0000:00:00.0", 0x060000, 0x8086, 0x0d57});  // host bridge
  const RunResult result = machine_.RunGpuvet({});
  EXPECT_EQ(result.out, "\nAdapter: -1\nerror  index [-1] infos.size[0]\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.status, kStatusNoPlatform);
}

TEST_F(AdaptersTest, ListsDisplayAdaptersInPciAddressOrderLikeLspci) {
  machine_.AddPciDevice(kNvidiaGpu);
  machine_.AddPciDevice({"0000:00:1f.3", 0x040300, 0x8086, 0xa348});  // audio: not a display adapter
  machine_.AddPciDevice(kIntelGpu);
  machine_.AddPciDevice({"0000:04:00.0", 0x038000, 0x1002, 0x15d8});  // other display controller
  machine_.AddPciDevice(kAmdGpu);
  machine_.AddPciDevice({"0000:05:00.0", 0x030000, 0x1234, 0x2330});  // ids unknown to the database

  const RunResult result = machine_.RunGpuvet({"--gpu", "99"});
  const std::vector<std::string> lines = AdapterLines(result.out);
  const std::vector<LspciDevice> expected = LspciDisplayDevices(machine_);
  ASSERT_EQ(expected.size(), 5u) << "lspci saw other devices than the fixture's";
  ASSERT_EQ(lines.size(), expected.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(IdsOfLine(lines[i]), expected[i].ids) << lines[i];
    EXPECT_THAT(lines[i], StartsWith("   " + expected[i].name + ", device_id :0x")) << lines[i];
  }
  EXPECT_THAT(result.out, HasSubstr("Adapter: 99\nerror  index [99] infos.size[5]\n"));
  EXPECT_EQ(result.status, kStatusNoPlatform);
}

TEST_F(AdaptersTest, AdapterLineFormat) {
  machine_.AddPciDevice(kAmdGpu);
  const RunResult result = machine_.RunGpuvet({"--gpu", "0"});
  const std::vector<std::string> lines = AdapterLines(result.out);
  ASSERT_EQ(lines.size(), 2u);  // the list, then the selection
  EXPECT_THAT(lines[0], ::testing::MatchesRegex("   .+, device_id :0x67DF, vendor_id:0x1002  ver:.*  date:.*"));
  EXPECT_EQ(lines[0], lines[1]);
}

struct SelectionCase {
  const char* name;
  std::vector<PciFixtureDevice> devices;
  std::vector<std::string> args;
  std::string selectedIds;  // empty: the selection fails
  std::string indexLine;
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
  if (param.selectedIds.empty()) {
    EXPECT_THAT(indexLine[1], StartsWith("error  index ["));
    EXPECT_EQ(indexLine + 2, lines.end()) << "nothing follows a failed selection";
  } else {
    EXPECT_EQ(IdsOfLine(indexLine[1]), param.selectedIds);
  }
  EXPECT_EQ(result.status, kStatusNoPlatform);
}

INSTANTIATE_TEST_SUITE_P(
    Selections, SelectionTest,
    ::testing::Values(
        SelectionCase{"IntelFirstPicksTheNextNotTheLast", {kIntelGpu, kAmdGpu, kNvidiaGpu}, {}, "1002:67df", "Adapter: -1"},
        SelectionCase{"OnlyIntelPicksTheFirst", {kIntelGpu, {"0000:00:03.0", 0x030000, 0x8086, 0x3e92}}, {}, "8086:3e92", "Adapter: -1"},
        SelectionCase{"IndexZeroTakesIntel", {kIntelGpu, kAmdGpu}, {"--gpu", "0"}, "8086:3e92", "Adapter: 0"},
        SelectionCase{"NegativeIndexActsAsNone", {kIntelGpu, kAmdGpu}, {"--GPU", "-5"}, "1002:67df", "Adapter: -5"},
        SelectionCase{"NonNumberIsIndexZero", {kIntelGpu, kAmdGpu}, {"--gpu", "abc"}, "8086:3e92", "Adapter: 0"},
        SelectionCase{"LastIndexSelectsTheLast", {kIntelGpu, kAmdGpu}, {"--gpu", "1"}, "1002:67df", "Adapter: 1"},
        SelectionCase{"IndexEqualToCountFails", {kIntelGpu, kAmdGpu}, {"--gpu", "2"}, "", "Adapter: 2"},
        SelectionCase{"IndexBeyondRangeSaturatesAndFails", {kAmdGpu}, {"--gpu", "99999999999"}, "", "Adapter: 2147483647"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(AdaptersTest, NoTestEndsBeforeAnyAdapterIsLookedAt) {
  machine_.AddPciDevice(kAmdGpu);
  const RunResult result = machine_.RunGpuvet({"--NoTest", "--gpu", "0"});
  EXPECT_EQ(result.out, "no test!\n");
  EXPECT_EQ(result.status, kStatusNoTest);
}

TEST_F(AdaptersTest, HelpPrintsTheUsageAndTheRunGoesOn) {
  const RunResult result = machine_.RunGpuvet({"--help", "--notest", "--help"});
  const std::string usage =
      "gpuvet.exe\ngpuvet.exe [--notest] [--details] [--blankrun] [--recheck] [--result][--help]\n";
  EXPECT_EQ(result.out, usage + usage + "no test!\n");
  EXPECT_EQ(result.status, kStatusNoTest);

  const RunResult run = machine_.RunGpuvet({"--help"});
  EXPECT_THAT(run.out, StartsWith(usage + "\nAdapter: -1\n"));
}

TEST_F(AdaptersTest, ValueOptionStandingLastStopsWithInvalidParameter) {
  machine_.AddPciDevice(kAmdGpu);
  for (const char* option : {"--blacklist", "--whitelist", "--gpu", "--recheck", "--result"}) {
    const RunResult result = machine_.RunGpuvet({"--help", "--notest", option});
    EXPECT_EQ(result.out,
              "gpuvet.exe\ngpuvet.exe [--notest] [--details] [--blankrun] [--recheck] [--result][--help]\n"
              "_invalid_parameter\n")
        << option;
    EXPECT_EQ(result.status, kStatusInvalidParameter) << option;
  }
}

TEST_F(AdaptersTest, OverlongPathValueIsAnInvalidParameter) {
  const RunResult result = machine_.RunGpuvet({"--result", std::string(2048, 'd')});
  EXPECT_EQ(result.out, "_invalid_parameter\n");
  EXPECT_EQ(result.status, kStatusInvalidParameter);
}

TEST_F(AdaptersTest, BlankRunCountsSecondsUntilEnded) {
  const RunResult result = machine_.RunGpuvet({"--blankrun", "--notest"}, 2);
  EXPECT_TRUE(result.timedOut);
  EXPECT_THAT(result.out, StartsWith("0 s\n1 s\n"));
  EXPECT_THAT(result.out, Not(HasSubstr("no test!")));
}

TEST_F(AdaptersTest, MalformedEntryIsPassedOverWithALogLine) {
  machine_.AddPciDevice(kAmdGpu);
  machine_.MakeDir("pci/devices/0000:05:00.0");  // no class file
  const std::string broken = machine_.AddPciDevice({"0000:06:00.0", 0x030000, 0x10de, 0x1b80});
  machine_.WriteFile("pci/devices/0000:06:00.0/vendor", "garbage\n");
  const RunResult result = machine_.RunGpuvet({"--gpu", "5"});
  EXPECT_THAT(result.out, HasSubstr("qdx_log_callback -- skipping 0000:05:00.0: class unreadable\n"));
  EXPECT_THAT(result.out, HasSubstr("qdx_log_callback -- skipping 0000:06:00.0: vendor unreadable\n"));
  EXPECT_EQ(AdapterLines(result.out).size(), 1u);
  EXPECT_THAT(result.out, HasSubstr("error  index [5] infos.size[1]\n"));
}

}  // namespace
}  // namespace gpuvet::e2e
