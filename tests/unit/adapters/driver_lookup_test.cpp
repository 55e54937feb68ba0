#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "adapters/driver_lookup.h"

namespace gpuvet {
namespace {

using platform::DriverRow;

const DriverRow kIntelRow{"Intel UHD 630", "PCI\\VEN_8086&DEV_3E92&REV_00\\3", "27.20.100.8681", "20200917"};
const DriverRow kNvidiaRow{"NVIDIA RTX 3080", "PCI\\VEN_10DE&DEV_2206&REV_A1\\4", "31.0.15.3623", "20230607"};

struct LookupOutcome {
  bool found;
  std::string version;
  std::string date;
  std::string out;
};

LookupOutcome Lookup(const char* name, uint32_t deviceId, const std::vector<DriverRow>& rows,
                     const std::string& version = "", const std::string& date = "") {
  qdx::platform::AdapterInfo_ record{};
  std::strncpy(record.name, name, sizeof record.name - 1);
  record.deviceId = deviceId;
  LookupOutcome outcome{false, version, date, ""};
  testing::internal::CaptureStdout();
  outcome.found = TakeDriverFromRows(record, rows, outcome.version, outcome.date);
  outcome.out = testing::internal::GetCapturedStdout();
  return outcome;
}

TEST(DriverLookupTest, PrintsALineForEveryRowScannedAndOneForTheFit) {
  const LookupOutcome outcome = Lookup("NVIDIA RTX 3080", 0x1, {kIntelRow, kNvidiaRow});
  EXPECT_TRUE(outcome.found);
  EXPECT_EQ(outcome.version, "31.0.15.3623");
  EXPECT_EQ(outcome.date, "20230607");
  EXPECT_EQ(outcome.out,
            "name[Intel UHD 630]  id[PCI\\VEN_8086&DEV_3E92&REV_00\\3] target[NVIDIA RTX 3080][DEV_1]\n"
            "name[NVIDIA RTX 3080]  id[PCI\\VEN_10DE&DEV_2206&REV_A1\\4] target[NVIDIA RTX 3080][DEV_1]\n"
            "Found id! name[NVIDIA RTX 3080]  id[PCI\\VEN_10DE&DEV_2206&REV_A1\\4] ver[31.0.15.3623]  "
            "date[20230607]\n");
}

// Which row, if any, a record fits: the name test, then the DEV_ text, first fit wins.
TEST(DriverLookupTest, TakesTheFirstFittingRow) {
  const struct {
    const char* what;
    const char* recordName;
    uint32_t deviceId;
    std::vector<DriverRow> rows;
    std::optional<std::string> fittingVersion;  // nullopt: no row fits
    std::size_t rowsScanned;
  } cases[] = {
      {"name differs in case, id fits", "nvidia rtx 3080", 0x2206, {kIntelRow, kNvidiaRow}, "31.0.15.3623", 2},
      {"name fits before a later id fit", "Intel UHD", 0x2206, {kIntelRow, kNvidiaRow}, "27.20.100.8681", 1},
      {"empty name fits the first row", "", 0x2206, {kIntelRow, kNvidiaRow}, "27.20.100.8681", 1},
      {"first of two fitting rows", "NVIDIA", 0x2206, {kNvidiaRow, {"NVIDIA", "", "2", "2"}}, "31.0.15.3623", 1},
      {"no caption, id fits", "Quadro", 0x2206, {{std::nullopt, kNvidiaRow.pnpDeviceId, "v", "d"}}, "v", 1},
      {"id below 0x1000, four digits", "Quadro", 0x7A0, {{"", "PCI\\VEN_10DE&DEV_07A0", "v", "d"}}, std::nullopt, 1},
      {"id below 0x1000, longer digits", "Quadro", 0x7A0, {{"", "PCI\\VEN_10DE&DEV_7A01", "v", "d"}}, "v", 1},
      {"nothing fits", "Radeon", 0x73BF, {kIntelRow, {std::nullopt, std::nullopt, "v", "d"}}, std::nullopt, 2},
      {"no rows", "Radeon", 0x73BF, {}, std::nullopt, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const LookupOutcome outcome = Lookup(c.recordName, c.deviceId, c.rows, "keep", "keep");
    EXPECT_EQ(outcome.found, c.fittingVersion.has_value());
    EXPECT_EQ(outcome.version, c.fittingVersion.value_or("keep"));
    // One line per row scanned, then the found line on a fit.
    EXPECT_EQ(static_cast<std::size_t>(std::count(outcome.out.begin(), outcome.out.end(), '\n')),
              c.rowsScanned + (outcome.found ? 1 : 0));
  }
}

// A fit that brings no values is still a fit: true, with the targets as they were.
TEST(DriverLookupTest, MissingValuesOfTheFittingRowLeaveTheTargets) {
  const LookupOutcome empty = Lookup("Radeon", 0x73BF, {{"Radeon RX 6800", std::nullopt, std::nullopt, std::nullopt}});
  EXPECT_TRUE(empty.found);
  EXPECT_EQ(empty.out, "name[Radeon RX 6800]  id[] target[Radeon][DEV_73BF]\n"
                       "Found id! name[Radeon RX 6800]  id[] ver[]  date[]\n");
  const LookupOutcome noDate = Lookup("Radeon", 0x73BF, {{"Radeon", "", "1.2", std::nullopt}}, "x", "y");
  EXPECT_EQ(noDate.version, "1.2");
  EXPECT_EQ(noDate.date, "y");
}

}  // namespace
}  // namespace gpuvet
