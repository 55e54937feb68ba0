#include "verdict/white_list.h"

#include <gtest/gtest.h>

#include "list_file_fixture.h"

namespace gpuvet::testing {
namespace {

constexpr const char* kStart = "check before in white list start\n";
constexpr const char* kEnd = "check before in white list end\n\n";

std::string ToCheckLine(const std::string& name, int items, bool admitted) {
  return "    tocheck: " + name + ", white_list: " + std::to_string(items) + ". ok: " + (admitted ? "YES" : "NO") + "\n";
}

ClDeviceKey WithVersions(ClDeviceKey key, const char* deviceVersion, const char* clcVersion, const char* driverVersion) {
  key.DeviceVersion = deviceVersion;
  key.OpenCLCVersion = clcVersion;
  key.DriverVersion = driverVersion;
  return key;
}

class WhiteListTest : public ListFileTest {};

TEST_F(WhiteListTest, VersionsAreMinimumsInByteOrder) {
  const ClDeviceKey nv = NvidiaDevice();
  ClDeviceKey partName = nv;
  partName.DeviceName = "NVIDIA GeForce GTX";
  ClDeviceKey otherCase = nv;
  otherCase.DeviceName = "nvidia geforce gtx 1080";
  ClDeviceKey hexVendor = nv;
  hexVendor.VID = 0;
  struct Case {
    const char* what;
    ClDeviceKey device;
    ClDeviceKey item;
    bool admitted;
  };
  const Case cases[] = {
      {"equal versions", nv, nv, true},
      {"a longer driver version is greater", WithVersions(nv, "3", "1", "391.35"), WithVersions(nv, "3", "1", "391"), true},
      {"a shorter driver version is smaller", WithVersions(nv, "3", "1", "391"), WithVersions(nv, "3", "1", "391.35"), false},
      {"9.17 is at least 10.18", WithVersions(nv, "9.17", "1", "1"), WithVersions(nv, "10.18", "1", "1"), true},
      {"10.18 is below 9.17", WithVersions(nv, "10.18", "1", "1"), WithVersions(nv, "9.17", "1", "1"), false},
      {"OpenCL C version above the device's", WithVersions(nv, "3", "1", "1"), WithVersions(nv, "3", "2", "1"), false},
      {"part of the name", nv, partName, false},
      {"name in another case", nv, otherCase, false},
      {"a vendor id that read as 0", nv, hexVendor, false},
  };
  for (const Case& c : cases) {
    SetTable({c.device});
    const Outcome outcome = Run(IsInWhiteList, WriteFile(ListXml("WhiteList", {c.item})), -1);
    EXPECT_EQ(outcome.result, c.admitted) << c.what;
    EXPECT_EQ(outcome.out, kStart + ToCheckLine(c.device.DeviceName, 1, c.admitted) + kEnd) << c.what;
  }
}

TEST_F(WhiteListTest, LaterLowerItemStillAdmitsAndRepeatsCountOnce) {
  SetTable({NvidiaDevice()});
  const ClDeviceKey above = WithVersions(NvidiaDevice(), "OpenCL 3.1", "OpenCL C 1.2", "391");
  const ClDeviceKey below = WithVersions(NvidiaDevice(), "OpenCL 3.0", "OpenCL C 1.0", "390");
  const Outcome outcome = Run(IsInWhiteList, WriteFile(ListXml("WhiteList", {above, below, below})), -1);
  EXPECT_TRUE(outcome.result);
  EXPECT_EQ(outcome.out, kStart + ToCheckLine(NvidiaDevice().DeviceName, 2, true) + kEnd);
}

TEST_F(WhiteListTest, DeviceUnderTest) {
  const ClDeviceKey intel2 = WithVersions(IntelDevice(), "OpenCL 3.0 NEO", "OpenCL C 3.0", "23.0");
  struct Case {
    const char* what;
    std::initializer_list<ClDeviceKey> table;
    int32_t gpuIndex;
    ClDeviceKey expected;
  };
  const Case cases[] = {
      {"another vendor before Intel", {IntelDevice(), NvidiaDevice()}, -1, NvidiaDevice()},
      {"the lowest other vendor id", {NvidiaDevice(), IntelDevice(), AmdDevice()}, -1, AmdDevice()},
      {"Intel alone: the first in table order", {intel2, IntelDevice()}, -1, IntelDevice()},
      {"the selected device, whatever its vendor", {IntelDevice(), NvidiaDevice()}, 0, IntelDevice()},
  };
  // Every device is listed, so only the choice decides the name on the line.
  const std::string content = ListXml("WhiteList", {IntelDevice(), intel2, NvidiaDevice(), AmdDevice()});
  for (const Case& c : cases) {
    SetTable(c.table);
    SelectedClDevice = c.expected;
    const Outcome outcome = Run(IsInWhiteList, WriteFile(content), c.gpuIndex);
    EXPECT_TRUE(outcome.result) << c.what;
    EXPECT_EQ(outcome.out, kStart + ToCheckLine(c.expected.DeviceName, 4, true) + kEnd) << c.what;
  }
  // The Intel device's item plays no part when another vendor is under test.
  SetTable({IntelDevice(), NvidiaDevice()});
  EXPECT_FALSE(Run(IsInWhiteList, WriteFile(ListXml("WhiteList", {IntelDevice()})), -1).result);
}

TEST_F(WhiteListTest, NoDeviceToTestIsNotAdmitted) {
  // A fresh key would equal the first item; with an empty table there is nothing to compare.
  const Outcome outcome = Run(IsInWhiteList, WriteFile(ListXml("WhiteList", {ClDeviceKey{}, NvidiaDevice()})), -1);
  EXPECT_FALSE(outcome.result);
  EXPECT_EQ(outcome.out, kStart + ToCheckLine("", 2, false) + kEnd);
}

TEST_F(WhiteListTest, UnreadableForeignOrEmptyListAdmitsNoDevice) {
  SetTable({NvidiaDevice()});
  SelectedClDevice = NvidiaDevice();
  const std::string blackRoot = WriteFile(ListXml("BlackList", {NvidiaDevice()}), "black.xml");
  const std::string noItem = WriteFile(ListXml("WhiteList", {}), "none.xml");
  for (const int32_t gpuIndex : {-1, 0}) {
    for (const std::string& path : {MissingPath(), blackRoot}) {
      const Outcome outcome = Run(IsInWhiteList, path, gpuIndex);
      EXPECT_FALSE(outcome.result) << path;
      EXPECT_EQ(outcome.out, kStart) << path;
    }
    const Outcome none = Run(IsInWhiteList, noItem, gpuIndex);
    EXPECT_FALSE(none.result);
    EXPECT_EQ(none.out, kStart + ToCheckLine(NvidiaDevice().DeviceName, 0, false) + kEnd);
  }
}

}  // namespace
}  // namespace gpuvet::testing
