// lint --fleet: the items that decide no machine of a fleet, by gpuvet's own
// decisions on each recorded machine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "fleet/snapshot.h"
#include "lists/fleet_lint.h"

namespace gpuvet::lists {
namespace {

using ::testing::ElementsAreArray;

std::string Item(const std::string& name, const std::string& driver) {
  return "<Item><VID>4318</VID><DeviceName>" + name +
         "</DeviceName><OpenCLCVersion>OpenCL C 1.2</OpenCLCVersion><DeviceVersion>OpenCL 3.0 CUDA</DeviceVersion>"
         "<DriverVersion>" + driver + "</DriverVersion></Item>\n";
}

// Two machines with one GTX 1650 each, drivers 525.125.06 and 470.1.
TEST(FleetLint, FlagsTheItemsThatDecideNoMachine) {
  const std::string dir = ::testing::TempDir() + "gpuvet_fleet_lint_" + std::to_string(getpid());
  std::ofstream fleet(dir + ".jsonl");
  for (const char* driver : {"525.125.06", "470.1"}) {
    fleet::MachineRecord machine;
    machine.adapters = {{0x10de, 0x1f82, "TU117 [GeForce GTX 1650]", "", "2012"}};
    CensusPlatform platform;
    platform.gpuCount = 1;
    platform.handle = "0x1";
    platform.profile = platform.version = platform.name = platform.vendor = platform.icdSuffix =
        platform.extensions = "x";
    const ClDeviceKey key{0x10de, "GTX 1650", "OpenCL C 1.2", "OpenCL 3.0 CUDA", driver};
    platform.devices.push_back({4, key.DeviceName, key.DeviceVersion, key.DriverVersion, key.VID,
                                key.OpenCLCVersion, "e", key});
    machine.census.platformCount = 1;
    machine.census.platforms = {platform};
    fleet << fleet::SnapshotJson(machine, "test", "now") << "\n";
  }
  fleet.close();

  const struct {
    const char* what;
    std::string list;
    std::vector<int> flaggedLines;
  } cases[] = {
      // Line 2 equals the first machine's device, line 3 no device of the fleet.
      {"black list", "<BlackList>\n" + Item("GTX 1650", "525.125.06") + Item("GTX 1650", "999"), {3}},
      // Both machines are admitted by the least driver; the item above it admits only the first
      // machine, after the least has: it decides nothing. Another name admits no device.
      {"white list", "<WhiteList>\n" + Item("GTX 1650", "525") + Item("GTX 1650", "4") + Item("GTX 1080", "1"),
       {2, 4}},
  };
  for (const auto& c : cases) {
    const std::string path = dir + ".xml";
    std::ofstream(path) << c.list << (c.list[1] == 'B' ? "</BlackList>\n" : "</WhiteList>\n");
    uint64_t unreadable = 0;
    std::vector<int> lines;
    for (const Finding& finding : FleetFindings({path}, ListKind::kEither, {dir + ".jsonl"}, -1, unreadable)) {
      lines.push_back(finding.line);
      EXPECT_EQ(finding.check, "fleet-undecided");
    }
    EXPECT_THAT(lines, ElementsAreArray(c.flaggedLines)) << c.what;
    EXPECT_EQ(unreadable, 0u);
    std::remove(path.c_str());
  }
  std::remove((dir + ".jsonl").c_str());
}

}  // namespace
}  // namespace gpuvet::lists
