#include "adapters/select_adapter.h"

#include <gtest/gtest.h>

namespace gpuvet {
namespace {

AdapterEntry Adapter(uint32_t vendor, uint32_t device, const char* name) {
  return AdapterEntry{vendor, device, name, "31.0.15.3623", "20230512000000.000000-000"};
}

const AdapterEntry kIntel = Adapter(kIntelVendorId, 0x3e92, "Intel UHD 630");
const AdapterEntry kIntel2 = Adapter(kIntelVendorId, 0x9bc4, "Intel UHD");
const AdapterEntry kAmd = Adapter(0x1002, 0x67df, "Radeon RX 580");
const AdapterEntry kNvidia = Adapter(0x10de, 0x1b80, "GeForce GTX 1080");

struct SelectCase {
  const char* name;
  int32_t gpuIndex;
  AdapterList adapters;
  int32_t result;
  std::string devName;  // of the selected adapter; empty when the selection fails
};

class SelectAdapterTest : public ::testing::TestWithParam<SelectCase> {};

TEST_P(SelectAdapterTest, ChoosesAndPrints) {
  const SelectCase& param = GetParam();
  AdapterEntry selected;
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(SelectAdapter(param.gpuIndex, param.adapters, selected), param.result);
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(selected.devName, param.devName);
  const std::string indexLine = "Adapter: " + std::to_string(param.gpuIndex) + "\n";
  if (param.result == 0) {
    EXPECT_EQ(out.rfind(indexLine + "   " + param.devName + ", device_id :0x", 0), 0u) << out;
  } else {
    EXPECT_EQ(out, indexLine + "error  index [" + std::to_string(param.gpuIndex) + "] infos.size[" +
                       std::to_string(param.adapters.size()) + "]\n");
    EXPECT_EQ(selected.devID, 0u);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Selections, SelectAdapterTest,
    ::testing::Values(SelectCase{"EmptyList", -1, {}, -1, ""},
                      SelectCase{"IndexEqualToSizeFails", 2, {kAmd, kNvidia}, -1, ""},
                      SelectCase{"LastIndex", 1, {kAmd, kNvidia}, 0, "GeForce GTX 1080"},
                      SelectCase{"IndexZeroTakesIntel", 0, {kIntel, kAmd}, 0, "Intel UHD 630"},
                      SelectCase{"AnyNegativeSkipsIntel", -5, {kIntel, kNvidia, kAmd}, 0, "GeForce GTX 1080"},
                      SelectCase{"AllIntelTakesFirst", -1, {kIntel, kIntel2}, 0, "Intel UHD 630"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(SelectAdapterLine, PrintsAllFiveFields) {
  AdapterEntry selected;
  ::testing::internal::CaptureStdout();
  SelectAdapter(0, {AdapterEntry{0x1002, 0x67df, "Radeon", "6.1.0", ""}}, selected);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Adapter: 0\n   Radeon, device_id :0x67DF, vendor_id:0x1002  ver:6.1.0  date:\n");
}

}  // namespace
}  // namespace gpuvet
