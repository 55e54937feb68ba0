// Linking an adapter to a census row: a name in either direction or the vendor,
// first row in table order.
#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "opencl/match_cl_device.h"
#include "exit_codes.h"

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

// The tables are in ascending order, as a census leaves them.
TEST(MatchClDevice, TakesTheFirstFittingRowWhole) {
  const std::vector<ClDeviceKey> census = {Row(kAmd, "Ellesmere"), Row(kNvidia, "GeForce GT 710"),
                                           Row(kNvidia, "GeForce GTX 1080"), Row(kIntel, "Intel(R) UHD Graphics 630")};
  const ClDeviceKey previous = Row(7, "previous");
  const ClDeviceKey previousRenamed{7, "GeForce", previous.OpenCLCVersion, previous.DeviceVersion, "1.0"};
  const struct {
    const char* what;
    int32_t selector;
    std::vector<ClDeviceKey> table;
    AdapterEntry adapter;
    std::optional<ClDeviceKey> expected;  // nullopt: no row fits, the target stays
  } cases[] = {
      {"device name inside the adapter's", 0, census, Adapter(kOtherVendor, "GP104 [GeForce GTX 1080]"),
       Row(kNvidia, "GeForce GTX 1080")},
      {"adapter name inside the device's", 0, census, Adapter(kOtherVendor, "GTX 1080"),
       Row(kNvidia, "GeForce GTX 1080")},
      {"vendor alone, first of that vendor", 0, census, Adapter(kNvidia, "Quadro"), Row(kNvidia, "GeForce GT 710")},
      {"vendor fits before a better name later", 0, census, Adapter(kAmd, "GeForce GT 710"), Row(kAmd, "Ellesmere")},
      {"empty adapter name fits the first row", 0, census, Adapter(kOtherVendor, ""), Row(kAmd, "Ellesmere")},
      {"case differs, vendor differs", 0, census, Adapter(kOtherVendor, "geforce gtx 1080"), std::nullopt},
      {"empty device name fits at its place", 0, {Row(kAmd, "Ellesmere"), Row(kNvidia, "")},
       Adapter(kIntel, "Intel(R) HD Graphics"), Row(kNvidia, "")},
      {"empty table", 0, {}, Adapter(kAmd, "Ellesmere"), std::nullopt},
      // A negative selector takes only the adapter's name and skips the table.
      {"negative selector, empty table", -1, {}, Adapter(kNvidia, "GeForce"), previousRenamed},
      {"negative selector, fitting table", -5, census, Adapter(kNvidia, "GeForce"), previousRenamed},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ClDeviceTable = c.table;
    ClDeviceKey target = previous;
    EXPECT_EQ(MatchClDevice(c.selector, c.adapter, target), c.expected ? GPUVET_OK : GPUVET_NO_PLATFORM);
    EXPECT_TRUE(ClDeviceKeyEqual(target, c.expected.value_or(previous)));
  }
  ClDeviceTable.clear();
}

}  // namespace
}  // namespace gpuvet
