#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "opencl/cl_device_key.h"
#include "result_test_support.h"

namespace gpuvet {
namespace {

const AdapterEntry kNvidia = MakeAdapter(0x10DE, 0x2206, "NVIDIA GeForce RTX 3080", "31.0.15.3623");
const AdapterEntry kIntel = MakeAdapter(0x8086, 0x3E92, "Intel(R) UHD Graphics 630", "27.20.100.8681");
const AdapterEntry kAmd = MakeAdapter(0x1002, 0x73BF, "AMD Radeon RX 6800", "31.0.21001.45002");

AdapterResult Checked(const AdapterEntry& adapter, int32_t checkResult) {
  AdapterResult record;
  record.checked = 1;
  record.checkResult = checkResult;
  record.adapter = adapter;
  return record;
}

TEST(ResultPathTest, DirectoryUpToItsFirstZeroByteAndTheFileName) {
  EXPECT_EQ(ResultSerialize::BuildPath("/var/gv"), "/var/gv/gpuvet.json");
  EXPECT_EQ(ResultSerialize::BuildPath("/var/gv/"), "/var/gv//gpuvet.json");
  EXPECT_EQ(ResultSerialize::BuildPath(std::string("/var\0gv", 7)), "/var/gpuvet.json");
  EXPECT_EQ(ResultSerialize::BuildPath(""), "/gpuvet.json");
}

TEST(AdapterEntryEqualTest, EveryFieldCountsAndCaseCounts) {
  const std::vector<std::function<void(AdapterEntry&)>> changes = {
      [](AdapterEntry& e) { e.devID ^= 1; },          [](AdapterEntry& e) { e.venID ^= 1; },
      [](AdapterEntry& e) { e.devName = "nvidia geforce rtx 3080"; },
      [](AdapterEntry& e) { e.strDrvVer += " "; },    [](AdapterEntry& e) { e.strDrvDate.clear(); },
  };
  EXPECT_TRUE(AdapterEntryEqual(kNvidia, kNvidia));
  for (std::size_t i = 0; i < changes.size(); ++i) {
    AdapterEntry changed = kNvidia;
    changes[i](changed);
    EXPECT_FALSE(AdapterEntryEqual(kNvidia, changed)) << i;
  }
}

using ResultStoreTest = ResultDirTest;

// A stored file of two checked adapters, loaded against another live list:
// the verdicts stand only when every record matches its position.
TEST_F(ResultStoreTest, LoadKeepsVerdictsOnlyForTheSameListInTheSameOrder) {
  AdapterEntry newDriver = kIntel;
  newDriver.strDrvVer = "27.20.100.9999";
  struct Case {
    const char* name;
    AdapterList live;
    bool kept;
  };
  const Case cases[] = {
      {"same", {kNvidia, kIntel}, true},
      {"one field changed", {kNvidia, newDriver}, false},
      {"order changed", {kIntel, kNvidia}, false},
      {"one adapter fewer", {kNvidia}, false},
      {"one adapter more", {kNvidia, kIntel, kAmd}, false},
  };
  for (const Case& test : cases) {
    store.results = {Checked(kNvidia, 11), Checked(kIntel, -11)};
    store.results[0].clCVersion = "OpenCL C 1.2";
    Write();

    ResultSerialize loaded;
    testing::internal::CaptureStdout();
    EXPECT_EQ(loaded.Load(dir, test.live), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(loaded.path, store.path);
    ASSERT_EQ(loaded.results.size(), test.live.size()) << test.name;
    for (std::size_t i = 0; i < test.live.size(); ++i) {
      EXPECT_TRUE(AdapterEntryEqual(loaded.results[i].adapter, test.live[i])) << test.name;
      EXPECT_EQ(loaded.results[i].checked, test.kept ? 1 : 0) << test.name;
    }
    EXPECT_EQ(loaded.results[0].clCVersion, test.kept ? "OpenCL C 1.2" : "") << test.name;
    if (test.kept) {
      EXPECT_EQ(loaded.results[1].checkResult, -11);
    }
  }
}

TEST_F(ResultStoreTest, LoadWithoutAFileGivesFreshRecordsAfterTheReaderLine) {
  ResultSerialize loaded;
  testing::internal::CaptureStdout();
  loaded.Load(dir, {kNvidia, kIntel});
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "src/service/gpuvet/result_serialize 159 parse failed: " + store.path + " [-1]\n");
  ASSERT_EQ(loaded.results.size(), 2u);
  EXPECT_TRUE(AdapterEntryEqual(loaded.results[1].adapter, kIntel));
  EXPECT_EQ(loaded.results[1].checked, 0);
}

TEST(ResultUpdateTest, UncheckedRecordRefreshesStringsAndKeepsTheVerdict) {
  ResultSerialize store;
  store.results = {Checked(kNvidia, 11), AdapterResult{0, 0, kIntel, "", "", ""}};

  AdapterResult strings{0, 5, kNvidia, "C 1.2", "3.0", "535"};
  EXPECT_EQ(store.Update(strings), 0);
  EXPECT_EQ(store.results[0].checked, 1);
  EXPECT_EQ(store.results[0].checkResult, 11);
  EXPECT_EQ(store.results[0].clDrvVersion, "535");

  EXPECT_EQ(store.Update(Checked(kIntel, 0)), 0);
  EXPECT_EQ(store.results[1].checked, 1);
  EXPECT_EQ(store.results[1].checkResult, 0);

  EXPECT_EQ(store.Update(Checked(kAmd, 3)), -1);
  AdapterResult found = Checked(kAmd, 7);
  EXPECT_FALSE(store.Find(kAmd, found));
  EXPECT_EQ(found.checkResult, 7);  // untouched
}

// Both lookups stop at the first of two equal records.
TEST(ResultUpdateTest, TwoEqualAdaptersShareTheFirstRecord) {
  ResultSerialize store;
  store.Rebuild({kNvidia, kNvidia});
  EXPECT_EQ(store.Update(Checked(kNvidia, 12)), 0);
  EXPECT_EQ(store.results[0].checkResult, 12);
  EXPECT_EQ(store.results[1].checked, 0);
  AdapterResult found;
  EXPECT_TRUE(store.Find(kNvidia, found));
  EXPECT_EQ(found.checkResult, 12);
}

class SaveAdapterResultsTest : public ResultDirTest {
 protected:
  void SetUp() override {
    ResultDirTest::SetUp();
    ClDeviceTable = {ClDeviceKey{0x10DE, "GeForce RTX 3080", "OpenCL C 1.2", "OpenCL 3.0 CUDA", "535.104"}};
  }
  void TearDown() override {
    ClDeviceTable.clear();
    ResultDirTest::TearDown();
  }
  std::string Save(int32_t gpuIndex, int32_t runCode) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(SaveAdapterResults(store, {kNvidia, kIntel}, gpuIndex, runCode), 0);
    return testing::internal::GetCapturedStdout();
  }
};

TEST_F(SaveAdapterResultsTest, TestedAdapterWithADeviceGetsItsVerdictAndStrings) {
  store.Rebuild({kNvidia, kIntel});
  const std::string out = Save(0, 11);
  EXPECT_EQ(store.results[0].checked, 1);
  EXPECT_EQ(store.results[0].checkResult, 11);
  EXPECT_EQ(store.results[0].clCVersion, "OpenCL C 1.2");
  EXPECT_EQ(store.results[0].clDevVersion, "OpenCL 3.0 CUDA");
  EXPECT_EQ(store.results[0].clDrvVersion, "535.104");
  EXPECT_EQ(store.results[1].checked, 0);  // no device of its vendor or name
  EXPECT_EQ(store.results[1].clCVersion, "");
  EXPECT_EQ(out, ReadFile() + "file:" + store.path + "\n");

  std::vector<AdapterResult> records;
  Read(records);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].checkResult, 11);
}

// A tested adapter without a device stores no code; an earlier verdict stays.
TEST_F(SaveAdapterResultsTest, TestedAdapterWithoutADeviceKeepsItsOldVerdict) {
  store.results = {AdapterResult{0, 0, kNvidia, "", "", ""}, Checked(kIntel, 12)};
  Save(1, -10);
  EXPECT_EQ(store.results[1].checked, 1);
  EXPECT_EQ(store.results[1].checkResult, 12);
  EXPECT_EQ(store.results[0].checked, 0);
  EXPECT_EQ(store.results[0].clDrvVersion, "535.104");
}

TEST_F(SaveAdapterResultsTest, EmptyDeviceTableStillWritesTheFile) {
  ClDeviceTable.clear();
  store.Rebuild({kNvidia, kIntel});
  Save(0, -10);
  EXPECT_EQ(store.results[0].checked, 0);
  std::vector<AdapterResult> records;
  Read(records);
  EXPECT_EQ(records.size(), 2u);
}

}  // namespace
}  // namespace gpuvet
