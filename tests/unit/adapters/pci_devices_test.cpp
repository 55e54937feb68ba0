#include "platform/linux/pci_devices.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace platform::sysfs {
namespace {

namespace fs = std::filesystem;

class PciDevicesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() / ("gpuvet-pci-" + std::to_string(::getpid()) + "-" +
                                         ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(root_);
  }
  void TearDown() override { fs::remove_all(root_); }

  void Write(const std::string& relative, const std::string& content) {
    fs::create_directories((root_ / relative).parent_path());
    std::ofstream(root_ / relative) << content;
  }
  void AddEntry(const std::string& address, const char* classCode, const char* vendor, const char* device) {
    Write(address + "/class", classCode);
    Write(address + "/vendor", vendor);
    Write(address + "/device", device);
  }
  std::vector<PciDisplayDevice> List() {
    const auto devices = ListDisplayDevices(root_.string(), [this](const std::string& line) { skips_.push_back(line); });
    EXPECT_TRUE(devices.has_value());
    return devices.value_or(std::vector<PciDisplayDevice>{});
  }

  fs::path root_;
  std::vector<std::string> skips_;
};

TEST_F(PciDevicesTest, KeepsDisplayClassesInAddressOrder) {
  AddEntry("0000:65:00.0", "0x030200\n", "0x10de\n", "0x1b80\n");  // 3D controller
  AddEntry("0000:00:02.0", "0x030000\n", "0x8086\n", "0x3e92\n");  // VGA
  AddEntry("0000:00:1f.3", "0x040300\n", "0x8086\n", "0xa348\n");  // audio
  AddEntry("0000:04:00.0", "0x038000\n", "0x1002\n", "0x15d8\n");  // other display
  AddEntry("0000:00:00.0", "0x060000\n", "0x8086\n", "0x0d57\n");  // host bridge
  const std::vector<PciDisplayDevice> devices = List();
  ASSERT_EQ(devices.size(), 3u);
  EXPECT_EQ(devices[0].address, "0000:00:02.0");
  EXPECT_EQ(devices[0].vendorId, 0x8086u);
  EXPECT_EQ(devices[0].deviceId, 0x3e92u);
  EXPECT_EQ(devices[1].address, "0000:04:00.0");
  EXPECT_EQ(devices[2].address, "0000:65:00.0");
  EXPECT_EQ(devices[2].entryDir, (root_ / "0000:65:00.0").string());
  EXPECT_TRUE(skips_.empty());
}

TEST_F(PciDevicesTest, PassesOverMalformedEntriesWithOneLineEach) {
  AddEntry("0000:01:00.0", "0x030000\n", "0x10de\n", "0x1b80\n");
  AddEntry("0000:02:00.0", "", "0x10de\n", "0x1b80\n");
  AddEntry("0000:03:00.0", "0x030000\n", "nvidia\n", "0x1b80\n");
  AddEntry("0000:04:00.0", "0x030000\n", "0x10de\n", "0x1ffffffff\n");
  fs::create_directories(root_ / "0000:05:00.0");
  const std::vector<PciDisplayDevice> devices = List();
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(devices[0].address, "0000:01:00.0");
  EXPECT_EQ(skips_, (std::vector<std::string>{"skipping 0000:02:00.0: class unreadable",
                                              "skipping 0000:03:00.0: vendor unreadable",
                                              "skipping 0000:04:00.0: device unreadable",
                                              "skipping 0000:05:00.0: class unreadable"}));
}

TEST_F(PciDevicesTest, FollowsSymbolicLinksLikeSysfs) {
  AddEntry("devices/pci0000:00/0000:00:02.0", "0x030000\n", "0x8086\n", "0x3e92\n");
  fs::create_directories(root_ / "bus");
  fs::create_directory_symlink(root_ / "devices/pci0000:00/0000:00:02.0", root_ / "bus/0000:00:02.0");
  const auto devices = ListDisplayDevices((root_ / "bus").string(), [](const std::string&) {});
  ASSERT_TRUE(devices.has_value());
  ASSERT_EQ(devices->size(), 1u);
  EXPECT_EQ((*devices)[0].deviceId, 0x3e92u);
}

TEST_F(PciDevicesTest, UnreadableFolderGivesNoList) {
  EXPECT_FALSE(ListDisplayDevices((root_ / "missing").string(), [](const std::string&) {}).has_value());
}

TEST(LookupDeviceName, KnownAndUnknownIds) {
  EXPECT_EQ(LookupDeviceName(0x10de, 0x1b80), "GP104 [GeForce GTX 1080]");
  EXPECT_EQ(LookupDeviceName(0x1234, 0xfff0), "Device fff0");
}

}  // namespace
}  // namespace platform::sysfs
