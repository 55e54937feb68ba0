// Device keys: their order (bytes, field by field, the vendor id as an unsigned
// number), the trimming of their texts, and linking an adapter to one of them.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "exit_codes.h"
#include "opencl/cl_device_key.h"
#include "opencl/device_census.h"
#include "opencl/match_cl_device.h"

namespace gpuvet {
namespace {

ClDeviceKey Key(uint32_t vid, const std::string& name, const std::string& cVersion = "OpenCL C 1.2",
                const std::string& deviceVersion = "OpenCL 1.2", const std::string& driver = "1.0") {
  return ClDeviceKey{vid, name, cVersion, deviceVersion, driver};
}

TEST(ClDeviceKeyLess, OrdersByBytesFieldByField) {
  const struct {
    const char* what;
    ClDeviceKey smaller;
    ClDeviceKey larger;
  } cases[] = {
      {"vendor id first, whatever the names", Key(0x1002, "Zeta"), Key(0x10de, "Alpha")},
      {"a prefix before its extensions", Key(1, "GTX"), Key(1, "GTX 1080")},
      {"bytes compare unsigned", Key(1, "A\x7f"), Key(1, "A\x80")},
      {"the name before the OpenCL C version", Key(1, "A", "Z"), Key(1, "B", "A")},
      {"the OpenCL C version before the device version", Key(1, "A", "C", "Z", "Z"), Key(1, "A", "D", "A", "A")},
      {"the device version before the driver version", Key(1, "A", "C", "V1", "Z"), Key(1, "A", "C", "V2", "A")},
      {"driver version decides last", Key(1, "A", "C", "V", "391.35"), Key(1, "A", "C", "V", "391.4")},
  };
  for (const auto& c : cases) {
    EXPECT_TRUE(ClDeviceKeyLess(c.smaller, c.larger)) << c.what;
    EXPECT_FALSE(ClDeviceKeyLess(c.larger, c.smaller)) << c.what;
    EXPECT_FALSE(ClDeviceKeyEqual(c.smaller, c.larger)) << c.what;
  }
  const ClDeviceKey key = Key(0x10de, "GeForce");
  EXPECT_FALSE(ClDeviceKeyLess(key, key));
  EXPECT_TRUE(ClDeviceKeyEqual(key, ClDeviceKey(key)));

  const ClDeviceKey olderDriver = Key(0x10de, "B", "OpenCL C 1.2", "OpenCL 1.2", "0.9");
  std::vector<ClDeviceKey> keys = {Key(0x10de, "B"), Key(0x1002, "A"), Key(0x10de, "B"), olderDriver};
  SortUnique(keys);
  const std::vector<ClDeviceKey> expected = {Key(0x1002, "A"), olderDriver, Key(0x10de, "B")};
  EXPECT_TRUE(std::equal(keys.begin(), keys.end(), expected.begin(), expected.end(), ClDeviceKeyEqual));
}

// Blanks inside stay; a tab or a line end is no blank.
TEST(TrimBlanks, ErasesOnlyBlanksAtBothEnds) {
  for (const auto& [in, out] : {std::pair<const char*, const char*>{"  GeForce GTX  1080 ", "GeForce GTX  1080"},
                                {"   ", ""}, {" \t x \n ", "\t x \n"}}) {
    EXPECT_EQ(TrimBlanks(in), out) << "'" << in << "'";
  }
}

// The census table is in ascending order; the first fitting row is taken whole.
TEST(MatchClDevice, TakesTheFirstFittingRowWhole) {
  const std::vector<ClDeviceKey> census = {Key(0x1002, "Ellesmere"), Key(0x10de, "GeForce GT 710"),
                                           Key(0x10de, "GeForce GTX 1080"), Key(0x8086, "Intel(R) UHD Graphics 630")};
  const ClDeviceKey previous = Key(7, "previous", "C", "V");
  const auto adapter = [](uint32_t vendor, const std::string& name) { return AdapterEntry{vendor, 1, name, "", ""}; };
  const struct {
    const char* what;
    int32_t selector;
    AdapterEntry adapter;
    std::optional<ClDeviceKey> expected;  // nullopt: no row fits, the target stays
  } cases[] = {
      {"device name inside the adapter's", 0, adapter(0x1234, "GP104 [GeForce GTX 1080]"), census[2]},
      {"adapter name inside the device's", 0, adapter(0x1234, "GTX 1080"), census[2]},
      {"vendor alone, first of that vendor", 0, adapter(0x10de, "Quadro"), census[1]},
      {"vendor fits before a better name later", 0, adapter(0x1002, "GeForce GT 710"), census[0]},
      {"empty adapter name fits the first row", 0, adapter(0x1234, ""), census[0]},
      {"case differs, vendor differs", 0, adapter(0x1234, "geforce gtx 1080"), std::nullopt},
      // Only the sign counts: a negative selector takes the adapter's name and skips the table.
      {"negative selector", -5, adapter(0x10de, "GeForce"), Key(7, "GeForce", "C", "V")},
  };
  ClDeviceTable = census;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ClDeviceKey target = previous;
    EXPECT_EQ(MatchClDevice(c.selector, c.adapter, target), c.expected ? GPUVET_OK : GPUVET_NO_PLATFORM);
    EXPECT_TRUE(ClDeviceKeyEqual(target, c.expected.value_or(previous)));
  }
  ClDeviceTable.clear();
}

}  // namespace
}  // namespace gpuvet
