// Linking an adapter to a census row: a name in either direction or the vendor,
// first row in table order.
#include <gtest/gtest.h>

#include <vector>

#include "opencl/cl_device_key.h"
#include "opencl/match_cl_device.h"
#include "verdict/exit_codes.h"

namespace gpuvet {
namespace {

constexpr uint32_t kNvidia = 0x10de;
constexpr uint32_t kAmd = 0x1002;
constexpr uint32_t kIntel = 0x8086;

ClDeviceKey Row(uint32_t vid, const std::string& name) {
  return ClDeviceKey{vid, name, "OpenCL C 1.2", "OpenCL 1.2 " + name, "1.0"};
}

AdapterEntry Adapter(uint32_t venId, const std::string& name) {
  AdapterEntry adapter;
  adapter.venID = venId;
  adapter.devID = 0x1b80;
  adapter.devName = name;
  return adapter;
}

class MatchClDeviceTest : public ::testing::Test {
 protected:
  void SetUp() override { ClDeviceTable.clear(); }
  void TearDown() override { ClDeviceTable.clear(); }

  void UseTable(std::vector<ClDeviceKey> rows) {
    SortUnique(rows);
    ClDeviceTable = rows;
  }
};

TEST_F(MatchClDeviceTest, FirstFittingRowInTableOrder) {
  UseTable({Row(kIntel, "Intel(R) UHD Graphics 630"), Row(kAmd, "Ellesmere"), Row(kNvidia, "GeForce GTX 1080"),
            Row(kNvidia, "GeForce GT 710")});
  const struct {
    const char* what;
    AdapterEntry adapter;
    std::string expectedName;  // empty: no row fits
  } cases[] = {
      {"device name inside the adapter name", Adapter(0x1234, "GP104 [GeForce GTX 1080]"), "GeForce GTX 1080"},
      {"adapter name inside the device name", Adapter(0x1234, "GTX 1080"), "GeForce GTX 1080"},
      {"device name inside, other vendor", Adapter(0x1234, "Radeon RX 480 (Ellesmere)"), "Ellesmere"},
      {"vendor alone, first of that vendor in table order", Adapter(kNvidia, "Quadro"), "GeForce GT 710"},
      {"vendor fits before a better name later in the table", Adapter(kAmd, "GeForce GT 710"), "Ellesmere"},
      {"the empty adapter name fits the first row", Adapter(0x1234, ""), "Ellesmere"},
      {"case differs, vendor differs", Adapter(0x1234, "geforce gtx 1080"), ""},
      {"unknown vendor, unrelated name", Adapter(0x1234, "Matrox G200eR2"), ""},
  };
  for (const auto& c : cases) {
    ClDeviceKey target = Row(7, "previous");
    const int32_t code = MatchClDevice(0, c.adapter, target);
    if (c.expectedName.empty()) {
      EXPECT_EQ(code, GPUVET_NO_PLATFORM) << c.what;
      EXPECT_TRUE(ClDeviceKeyEqual(target, Row(7, "previous"))) << c.what << ": target unchanged";
    } else {
      EXPECT_EQ(code, GPUVET_OK) << c.what;
      EXPECT_EQ(target.DeviceName, c.expectedName) << c.what;
    }
  }
}

TEST_F(MatchClDeviceTest, CopiesEveryFieldOfTheRow) {
  UseTable({ClDeviceKey{kNvidia, "GeForce", "OpenCL C 1.2", "OpenCL 3.0 CUDA", "535.1"}});
  ClDeviceKey target;
  ASSERT_EQ(MatchClDevice(5, Adapter(kNvidia, "x"), target), GPUVET_OK);
  EXPECT_TRUE(ClDeviceKeyEqual(target, ClDeviceTable.front()));
}

TEST_F(MatchClDeviceTest, AnEmptyDeviceNameFitsAtItsPlace) {
  UseTable({Row(kAmd, "Ellesmere"), Row(kNvidia, "")});
  ClDeviceKey target;
  ASSERT_EQ(MatchClDevice(0, Adapter(kIntel, "Intel(R) HD Graphics"), target), GPUVET_OK);
  EXPECT_EQ(target.VID, kNvidia);
  EXPECT_EQ(target.DeviceName, "");
}

TEST_F(MatchClDeviceTest, EmptyTableWithASelectorFails) {
  ClDeviceKey target = Row(kAmd, "kept");
  EXPECT_EQ(MatchClDevice(0, Adapter(kAmd, "kept"), target), GPUVET_NO_PLATFORM);
  EXPECT_TRUE(ClDeviceKeyEqual(target, Row(kAmd, "kept")));
}

TEST_F(MatchClDeviceTest, NegativeSelectorTakesOnlyTheAdapterName) {
  for (const bool withTable : {false, true}) {
    if (withTable) {
      UseTable({Row(kNvidia, "GeForce")});
    }
    ClDeviceKey target = Row(kAmd, "Ellesmere");
    ASSERT_EQ(MatchClDevice(-1, Adapter(kNvidia, "GeForce"), target), GPUVET_OK);
    EXPECT_EQ(target.VID, kAmd);
    EXPECT_EQ(target.DeviceName, "GeForce");
    EXPECT_EQ(target.OpenCLCVersion, "OpenCL C 1.2");
    EXPECT_EQ(target.DeviceVersion, "OpenCL 1.2 Ellesmere");
    EXPECT_EQ(target.DriverVersion, "1.0");
  }
}

}  // namespace
}  // namespace gpuvet
