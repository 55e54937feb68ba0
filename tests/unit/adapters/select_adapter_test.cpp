// Choosing the adapter under test, and finding its driver among the driver rows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "adapters/driver_lookup.h"
#include "adapters/select_adapter.h"

namespace gpuvet {
namespace {

TEST(SelectAdapter, ChoosesByIndexOrTheFirstAdapterNotIntels) {
  const AdapterEntry intel{kIntelVendorId, 0x3e92, "Intel UHD 630", "", ""};
  const AdapterEntry intel2{kIntelVendorId, 0x9bc4, "Intel UHD", "", ""};
  const AdapterEntry amd{0x1002, 0x67df, "Radeon RX 580", "", ""};
  const AdapterEntry nvidia{0x10de, 0x1b80, "GeForce GTX 1080", "", ""};
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
    if (c.selected.empty()) {
      EXPECT_EQ(out, "Adapter: " + std::to_string(c.gpuIndex) + "\nerror  index [" + std::to_string(c.gpuIndex) +
                         "] infos.size[" + std::to_string(c.adapters.size()) + "]\n");
    }
  }
}

// Which row, if any, a record fits: the name test, then the DEV_ text, first fit
// wins. Each row scanned prints a line, a fit one more; a missing value of the
// fitting row leaves its target as it was.
TEST(LookUpDriver, TakesTheFirstFittingRow) {
  using Taken = std::pair<std::string, std::string>;  // version and date
  const Taken intelDriver{"27.20.100.8681", "20200917"};
  const Taken nvidiaDriver{"31.0.15.3623", "20230607"};
  const platform::DriverRow intelRow{"Intel UHD 630", "PCI\\VEN_8086&DEV_3E92&REV_00\\3", intelDriver.first,
                                     intelDriver.second};
  const platform::DriverRow nvidiaRow{"NVIDIA RTX 3080", "PCI\\VEN_10DE&DEV_2206&REV_A1\\4", nvidiaDriver.first,
                                      nvidiaDriver.second};
  const struct {
    const char* what;
    const char* recordName;
    uint32_t deviceId;
    std::vector<platform::DriverRow> rows;
    std::optional<Taken> fit;  // nullopt: no row fits
    std::size_t rowsScanned;
    std::string out = "";  // the whole output, where given
  } cases[] = {
      {"name fits, after a row that does not", "NVIDIA RTX 3080", 0x1, {intelRow, nvidiaRow}, nvidiaDriver, 2,
       "name[Intel UHD 630]  id[PCI\\VEN_8086&DEV_3E92&REV_00\\3] target[NVIDIA RTX 3080][DEV_1]\n"
       "name[NVIDIA RTX 3080]  id[PCI\\VEN_10DE&DEV_2206&REV_A1\\4] target[NVIDIA RTX 3080][DEV_1]\n"
       "Found id! name[NVIDIA RTX 3080]  id[PCI\\VEN_10DE&DEV_2206&REV_A1\\4] ver[31.0.15.3623]  date[20230607]\n"},
      {"name differs in case, id fits", "nvidia rtx 3080", 0x2206, {intelRow, nvidiaRow}, nvidiaDriver, 2},
      {"name fits before a later id fit", "Intel UHD", 0x2206, {intelRow, nvidiaRow}, intelDriver, 1},
      {"empty name fits the first row", "", 0x2206, {intelRow, nvidiaRow}, intelDriver, 1},
      {"no caption, id fits", "Quadro", 0x2206, {{std::nullopt, nvidiaRow.pnpDeviceId, "v", "d"}}, Taken{"v", "d"}, 1},
      {"id below 0x1000 is not padded", "Quadro", 0x7A0, {{"", "PCI\\VEN_10DE&DEV_07A0", "v", "d"}}, std::nullopt, 1},
      {"nothing fits", "Radeon", 0x73BF, {intelRow, {std::nullopt, std::nullopt, "v", "d"}}, std::nullopt, 2},
      {"no values", "Radeon", 0x73BF, {{"Radeon RX 6800", std::nullopt, std::nullopt, std::nullopt}},
       Taken{"keep", "keep"}, 1},
      {"no date", "Radeon", 0x73BF, {{"Radeon", "", "1.2", std::nullopt}}, Taken{"1.2", "keep"}, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    qdx::platform::AdapterInfo_ record{};
    std::strncpy(record.name, c.recordName, sizeof record.name - 1);
    record.deviceId = c.deviceId;
    Taken taken{"keep", "keep"};
    testing::internal::CaptureStdout();
    const DriverRowScan scan = [&c](const platform::VisitDriverRow& visit) {
      platform::ScanRows(c.rows, visit);
      return true;
    };
    EXPECT_EQ(LookUpDriver(record, scan, taken.first, taken.second), c.fit.has_value());
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(taken, c.fit.value_or(Taken{"keep", "keep"}));
    EXPECT_EQ(static_cast<std::size_t>(std::count(out.begin(), out.end(), '\n')), c.rowsScanned + (c.fit ? 1 : 0));
    if (!c.out.empty()) {
      EXPECT_EQ(out, c.out);
    }
  }
}

}  // namespace
}  // namespace gpuvet
