// Linking an adapter to a census row: a name in either direction or the vendor,
// first row in table order.
#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "opencl/match_cl_device.h"
#include "verdict/exit_codes.h"

namespace gpuvet {
namespace {

constexpr uint32_t kNvidia = 0x10de;
constexpr uint32_t kAmd = 0x1002;
constexpr uint32_t kIntel = 0x8086;
constexpr uint32_t kOtherVendor = 0x1234;

ClDeviceKey Row(uint32_t vid, const std::string& name) {
  return ClDeviceKey{vid, name, "OpenCL C 1.2", "OpenCL 1.2 " + name, "1.0"};
}

AdapterEntry Adapter(uint32_t venId, const std::string& name) {
  return AdapterEntry{venId, 0x1b80, name, "", ""};
}

class MatchClDeviceTest : public ::testing::Test {
 protected:
  void TearDown() override { ClDeviceTable.clear(); }
};

// The tables are in ascending order, as a census leaves them.
TEST_F(MatchClDeviceTest, TakesTheFirstFittingRowWhole) {
  ClDeviceTable = {Row(kAmd, "Ellesmere"), Row(kNvidia, "GeForce GT 710"), Row(kNvidia, "GeForce GTX 1080"),
                   Row(kIntel, "Intel(R) UHD Graphics 630")};
  const struct {
    const char* what;
    AdapterEntry adapter;
    std::optional<ClDeviceKey> expected;  // nullopt: no row fits
  } cases[] = {
      {"device name inside the adapter name", Adapter(kOtherVendor, "GP104 [GeForce GTX 1080]"),
       Row(kNvidia, "GeForce GTX 1080")},
      {"adapter name inside the device name", Adapter(kOtherVendor, "GTX 1080"), Row(kNvidia, "GeForce GTX 1080")},
      {"vendor alone, first of that vendor", Adapter(kNvidia, "Quadro"), Row(kNvidia, "GeForce GT 710")},
      {"vendor fits before a better name later", Adapter(kAmd, "GeForce GT 710"), Row(kAmd, "Ellesmere")},
      {"the empty adapter name fits the first row", Adapter(kOtherVendor, ""), Row(kAmd, "Ellesmere")},
      {"case differs, vendor differs", Adapter(kOtherVendor, "geforce gtx 1080"), std::nullopt},
  };
  for (const auto& c : cases) {
    ClDeviceKey target = Row(7, "previous");
    EXPECT_EQ(MatchClDevice(0, c.adapter, target), c.expected ? GPUVET_OK : GPUVET_NO_PLATFORM) << c.what;
    EXPECT_TRUE(ClDeviceKeyEqual(target, c.expected.value_or(Row(7, "previous")))) << c.what;
  }
}

TEST_F(MatchClDeviceTest, AnEmptyDeviceNameFitsAtItsPlace) {
  ClDeviceTable = {Row(kAmd, "Ellesmere"), Row(kNvidia, "")};
  ClDeviceKey target;
  ASSERT_EQ(MatchClDevice(0, Adapter(kIntel, "Intel(R) HD Graphics"), target), GPUVET_OK);
  EXPECT_TRUE(ClDeviceKeyEqual(target, Row(kNvidia, "")));
}

TEST_F(MatchClDeviceTest, EmptyTableWithASelectorFails) {
  ClDeviceKey target = Row(kAmd, "kept");
  EXPECT_EQ(MatchClDevice(0, Adapter(kAmd, "kept"), target), GPUVET_NO_PLATFORM);
  EXPECT_TRUE(ClDeviceKeyEqual(target, Row(kAmd, "kept")));
}

// Only the name changes; the table, empty or not, is not looked at.
TEST_F(MatchClDeviceTest, NegativeSelectorTakesOnlyTheAdapterName) {
  for (const std::vector<ClDeviceKey>& table : {std::vector<ClDeviceKey>{}, {Row(kNvidia, "GeForce")}}) {
    ClDeviceTable = table;
    ClDeviceKey target = Row(kAmd, "Ellesmere");
    ASSERT_EQ(MatchClDevice(-1, Adapter(kNvidia, "GeForce"), target), GPUVET_OK);
    ClDeviceKey expected = Row(kAmd, "Ellesmere");
    expected.DeviceName = "GeForce";
    EXPECT_TRUE(ClDeviceKeyEqual(target, expected));
  }
}

}  // namespace
}  // namespace gpuvet
