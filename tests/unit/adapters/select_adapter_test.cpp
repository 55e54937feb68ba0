#include "adapters/select_adapter.h"

#include <gtest/gtest.h>

namespace gpuvet {
namespace {

AdapterEntry Adapter(uint32_t vendor, uint32_t device, const char* name) {
  return AdapterEntry{vendor, device, name, "31.0.15.3623", "20230512000000.000000-000"};
}

TEST(SelectAdapter, ChoosesByIndexOrTheFirstAdapterNotIntels) {
  const AdapterEntry intel = Adapter(kIntelVendorId, 0x3e92, "Intel UHD 630");
  const AdapterEntry intel2 = Adapter(kIntelVendorId, 0x9bc4, "Intel UHD");
  const AdapterEntry amd = Adapter(0x1002, 0x67df, "Radeon RX 580");
  const AdapterEntry nvidia = Adapter(0x10de, 0x1b80, "GeForce GTX 1080");
  const struct {
    int32_t gpuIndex;
    AdapterList adapters;
    std::string selected;  // empty: the selection fails
  } cases[] = {
      {-1, {}, ""},
      {2, {amd, nvidia}, ""},
      {1, {amd, nvidia}, "GeForce GTX 1080"},
      {0, {intel, amd}, "Intel UHD 630"},
      {-5, {intel, nvidia, amd}, "GeForce GTX 1080"},
      {-1, {intel, intel2}, "Intel UHD 630"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "index " << c.gpuIndex << " of " << c.adapters.size());
    AdapterEntry selected;
    testing::internal::CaptureStdout();
    EXPECT_EQ(SelectAdapter(c.gpuIndex, c.adapters, selected), c.selected.empty() ? -1 : 0);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(selected.devName, c.selected);
    const std::string indexLine = "Adapter: " + std::to_string(c.gpuIndex) + "\n";
    if (c.selected.empty()) {
      EXPECT_EQ(out, indexLine + "error  index [" + std::to_string(c.gpuIndex) + "] infos.size[" +
                         std::to_string(c.adapters.size()) + "]\n");
    } else {
      EXPECT_EQ(out.rfind(indexLine + "   " + c.selected + ", device_id :0x", 0), 0u) << out;
    }
  }
}

}  // namespace
}  // namespace gpuvet
