// The order of device keys: bytes, field by field, the vendor id as an unsigned
// number; and the trimming of the texts they are made of.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "opencl/cl_device_key.h"
#include "opencl/device_census.h"

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
      {"top bit of the vendor id is a large number", Key(0x7fffffff, "A"), Key(0x80000000u, "A")},
      {"upper case before lower case", Key(1, "Radeon"), Key(1, "radeon")},
      {"a prefix before its extensions", Key(1, "GTX"), Key(1, "GTX 1080")},
      {"version texts are not numbers", Key(1, "A", "OpenCL C 1.10"), Key(1, "A", "OpenCL C 1.2")},
      {"driver version decides last", Key(1, "A", "C", "V", "391.35"), Key(1, "A", "C", "V", "391.4")},
      {"bytes compare unsigned", Key(1, "A\x7f"), Key(1, "A\x80")},
      {"an earlier field outweighs later ones", Key(1, "A", "C", "Z", "Z"), Key(1, "A", "D", "A", "A")},
  };
  for (const auto& c : cases) {
    EXPECT_TRUE(ClDeviceKeyLess(c.smaller, c.larger)) << c.what;
    EXPECT_FALSE(ClDeviceKeyLess(c.larger, c.smaller)) << c.what;
    EXPECT_FALSE(ClDeviceKeyEqual(c.smaller, c.larger)) << c.what;
  }
  const ClDeviceKey key = Key(0x10de, "GeForce");
  EXPECT_FALSE(ClDeviceKeyLess(key, key));
  EXPECT_TRUE(ClDeviceKeyEqual(key, ClDeviceKey(key)));
}

TEST(SortUnique, FoldsEqualDevicesAndSortsTheRest) {
  const ClDeviceKey olderDriver = Key(0x10de, "B", "OpenCL C 1.2", "OpenCL 1.2", "0.9");
  std::vector<ClDeviceKey> keys = {Key(0x10de, "B"), Key(0x1002, "A"), Key(0x10de, "B"), olderDriver};
  SortUnique(keys);
  const std::vector<ClDeviceKey> expected = {Key(0x1002, "A"), olderDriver, Key(0x10de, "B")};
  EXPECT_TRUE(std::equal(keys.begin(), keys.end(), expected.begin(), expected.end(), ClDeviceKeyEqual));
}

TEST(TrimBlanks, ErasesOnlyBlanksAtBothEnds) {
  const std::pair<std::string, std::string> cases[] = {
      {"  GeForce GTX  1080 ", "GeForce GTX  1080"},  // blanks inside stay
      {"   ", ""},
      {" \t x \n ", "\t x \n"},  // a tab or a line end is no blank
      {std::string(" a\0b ", 5), std::string("a\0b", 3)},
  };
  for (const auto& [in, out] : cases) {
    EXPECT_EQ(TrimBlanks(in), out) << "'" << in << "'";
  }
}

}  // namespace
}  // namespace gpuvet
