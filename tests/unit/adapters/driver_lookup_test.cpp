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

qdx::platform::AdapterInfo_ MakeRecord(const char* name, uint32_t deviceId) {
  qdx::platform::AdapterInfo_ record{};
  std::strncpy(record.name, name, sizeof record.name - 1);
  record.deviceId = deviceId;
  record.vendorId = 0x10de;
  return record;
}

const DriverRow kIntelRow{"Intel(R) UHD Graphics 630", "PCI\\VEN_8086&DEV_3E92&SUBSYS_86941043&REV_00\\3&11583659&0&10",
                          "27.20.100.8681", "20200917000000.000000-000"};
const DriverRow kNvidiaRow{"NVIDIA GeForce RTX 3080", "PCI\\VEN_10DE&DEV_2206&SUBSYS_38971462&REV_A1\\4&2B0F2E5&0&0008",
                           "31.0.15.3623", "20230607000000.000000-000"};

struct LookupOutcome {
  bool found;
  std::string version;
  std::string date;
  std::string out;
};

LookupOutcome Lookup(const qdx::platform::AdapterInfo_& record, const std::vector<DriverRow>& rows,
                     const std::string& version = "", const std::string& date = "") {
  LookupOutcome outcome{false, version, date, ""};
  testing::internal::CaptureStdout();
  outcome.found = TakeDriverFromRows(record, rows, outcome.version, outcome.date);
  outcome.out = testing::internal::GetCapturedStdout();
  return outcome;
}

TEST(DriverLookupTest, NameFitsOnALaterRowAfterLineForEveryRowScanned) {
  const LookupOutcome outcome = Lookup(MakeRecord("NVIDIA GeForce RTX 3080", 0x1), {kIntelRow, kNvidiaRow});
  EXPECT_TRUE(outcome.found);
  EXPECT_EQ(outcome.version, "31.0.15.3623");
  EXPECT_EQ(outcome.date, "20230607000000.000000-000");
  EXPECT_EQ(outcome.out,
            "name[Intel(R) UHD Graphics 630]  id[PCI\\VEN_8086&DEV_3E92&SUBSYS_86941043&REV_00\\3&11583659&0&10] "
            "target[NVIDIA GeForce RTX 3080][DEV_1]\n"
            "name[NVIDIA GeForce RTX 3080]  id[PCI\\VEN_10DE&DEV_2206&SUBSYS_38971462&REV_A1\\4&2B0F2E5&0&0008] "
            "target[NVIDIA GeForce RTX 3080][DEV_1]\n"
            "Found id! name[NVIDIA GeForce RTX 3080]  id[PCI\\VEN_10DE&DEV_2206&SUBSYS_38971462&REV_A1\\4&2B0F2E5&0&0008] "
            "ver[31.0.15.3623]  date[20230607000000.000000-000]\n");
}

// Which row, if any, a record fits: the name test, then the DEV_ text, first fit wins.
struct FitCase {
  const char* what;
  const char* recordName;
  uint32_t deviceId;
  std::vector<DriverRow> rows;
  std::optional<std::string> fittingVersion;  // nullopt: no row fits
  std::size_t rowsScanned;
};

void PrintTo(const FitCase& param, std::ostream* out) {
  *out << param.what;
}

class DriverRowFitTest : public ::testing::TestWithParam<FitCase> {};

TEST_P(DriverRowFitTest, TakesTheFirstFittingRow) {
  const FitCase& param = GetParam();
  const LookupOutcome outcome = Lookup(MakeRecord(param.recordName, param.deviceId), param.rows, "keep", "keep");
  EXPECT_EQ(outcome.found, param.fittingVersion.has_value());
  EXPECT_EQ(outcome.version, param.fittingVersion.value_or("keep"));
  // One line per row scanned, then the found line on a fit.
  const auto lines = static_cast<std::size_t>(std::count(outcome.out.begin(), outcome.out.end(), '\n'));
  EXPECT_EQ(lines, param.rowsScanned + (outcome.found ? 1 : 0));
  EXPECT_EQ(outcome.out.find("Found id!") != std::string::npos, outcome.found);
}

const std::vector<FitCase> kFitCases = {
    {"name part of the caption", "GeForce RTX 3080", 0x9999, {kIntelRow, kNvidiaRow}, "31.0.15.3623", 2},
    {"name differs in case, id fits", "nvidia geforce rtx 3080", 0x2206, {kIntelRow, kNvidiaRow}, "31.0.15.3623", 2},
    {"name fits though the id does not", "Intel(R) UHD", 0x2206, {kIntelRow, kNvidiaRow}, "27.20.100.8681", 1},
    {"empty name fits the first row", "", 0x2206, {kIntelRow, kNvidiaRow}, "27.20.100.8681", 1},
    {"first of two fitting rows", "NVIDIA", 0x2206, {kNvidiaRow, {"NVIDIA GeForce RTX 3080", "", "other", "other"}},
     "31.0.15.3623", 1},
    {"no caption, id fits", "Quadro", 0x2206, {{std::nullopt, kNvidiaRow.pnpDeviceId, "v", "d"}}, "v", 1},
    {"no id, name does not fit", "Quadro", 0x2206, {{"Radeon", std::nullopt, "v", "d"}}, std::nullopt, 1},
    {"id below 0x1000 against four digits", "Quadro", 0x7A0, {{"", "PCI\\VEN_10DE&DEV_07A0&REV_00", "v", "d"}},
     std::nullopt, 1},
    {"id below 0x1000 against longer digits", "Quadro", 0x7A0, {{"", "PCI\\VEN_10DE&DEV_7A01&REV_00", "v", "d"}},
     "v", 1},
    {"nothing fits", "Radeon", 0x73BF, {kIntelRow, kNvidiaRow}, std::nullopt, 2},
    {"no rows", "Radeon", 0x73BF, {}, std::nullopt, 0},
};

INSTANTIATE_TEST_SUITE_P(Rows, DriverRowFitTest, ::testing::ValuesIn(kFitCases));

TEST(DriverLookupTest, NoFitPrintsOnlyTheRowLinesAndLeavesTheTargets) {
  const LookupOutcome outcome = Lookup(MakeRecord("Radeon", 0x73BF), {{std::nullopt, std::nullopt, "v", "d"}}, "a", "b");
  EXPECT_FALSE(outcome.found);
  EXPECT_EQ(outcome.out, "name[]  id[] target[Radeon][DEV_73BF]\n");
  EXPECT_EQ(outcome.version, "a");
  EXPECT_EQ(outcome.date, "b");
}

TEST(DriverLookupTest, MissingValuesOfTheFittingRowLeaveTheTargets) {
  const std::vector<DriverRow> rows = {{"Radeon RX 6800", "", std::nullopt, std::nullopt}};
  const LookupOutcome fresh = Lookup(MakeRecord("Radeon", 0x73BF), rows);
  EXPECT_TRUE(fresh.found);
  EXPECT_EQ(fresh.version, "");
  EXPECT_EQ(fresh.date, "");
  EXPECT_EQ(fresh.out,
            "name[Radeon RX 6800]  id[] target[Radeon][DEV_73BF]\n"
            "Found id! name[Radeon RX 6800]  id[] ver[]  date[]\n");

  const LookupOutcome filled = Lookup(MakeRecord("Radeon", 0x73BF), {{"Radeon", "", "1.2", std::nullopt}}, "x", "y");
  EXPECT_EQ(filled.version, "1.2");
  EXPECT_EQ(filled.date, "y");
  EXPECT_NE(filled.out.find("ver[1.2]  date[y]\n"), std::string::npos);
}

TEST(DriverLookupTest, TwoAdaptersOfOneModelStopAtTheSameRow) {
  const std::vector<DriverRow> rows = {
      kIntelRow,
      {"NVIDIA GeForce RTX 3080", "PCI\\VEN_10DE&DEV_2206&SUBSYS_1&REV_A1\\first", "1.0", "20230101000000.000000-000"},
      {"NVIDIA GeForce RTX 3080", "PCI\\VEN_10DE&DEV_2206&SUBSYS_2&REV_A1\\second", "2.0", "20240101000000.000000-000"},
  };
  const LookupOutcome first = Lookup(MakeRecord("NVIDIA GeForce RTX 3080", 0x2206), rows);
  const LookupOutcome second = Lookup(MakeRecord("NVIDIA GeForce RTX 3080", 0x2206), rows);
  EXPECT_EQ(first.version, "1.0");
  EXPECT_EQ(second.version, "1.0");
  EXPECT_EQ(first.date, second.date);
  EXPECT_EQ(first.out, second.out);
}

}  // namespace
}  // namespace gpuvet
