#include "verdict/black_list.h"

#include <gtest/gtest.h>

#include "list_file_fixture.h"

namespace gpuvet::testing {
namespace {

constexpr const char* kStart = "check before in black list start\n";
constexpr const char* kEnd = "check before in black list end\n\n";

std::string Counts(int check, int items, int hits) {
  return "check_list: " + std::to_string(check) + ", black_list: " + std::to_string(items) +
         ". intersection: " + std::to_string(hits) + "\n";
}

class BlackListTest : public ListFileTest {};

TEST_F(BlackListTest, AnyDeviceOfTheTableWithoutAGpuIndex) {
  SetTable({NvidiaDevice(), IntelDevice(), AmdDevice()});
  ClDeviceKey newerDriver = NvidiaDevice();
  newerDriver.DriverVersion = "391.36";
  ClDeviceKey blankedName = AmdDevice();
  blankedName.DeviceName = " " + blankedName.DeviceName;
  struct Case {
    const char* what;
    std::string content;
    bool result;
    std::string counts;
  };
  const Case cases[] = {
      {"an Intel device is listed", ListXml("BlackList", {IntelDevice()}), true, Counts(3, 1, 1)},
      {"two devices listed, one item three times",
       ListXml("BlackList", {AmdDevice(), NvidiaDevice(), AmdDevice(), AmdDevice()}), true, Counts(3, 2, 2)},
      {"another driver version", ListXml("BlackList", {newerDriver}), false, Counts(3, 1, 0)},
      {"a blank in front of the name", ListXml("BlackList", {blankedName}), false, Counts(3, 1, 0)},
      {"no item", ListXml("BlackList", {}), false, Counts(3, 0, 0)},
  };
  for (const Case& c : cases) {
    const Outcome outcome = Run(IsInBlackList, WriteFile(c.content), -1);
    EXPECT_EQ(outcome.result, c.result) << c.what;
    EXPECT_EQ(outcome.out, kStart + c.counts + kEnd) << c.what;
  }

  ResetDevices();
  const Outcome emptyTable = Run(IsInBlackList, WriteFile(ListXml("BlackList", {IntelDevice()})), -1);
  EXPECT_FALSE(emptyTable.result);
  EXPECT_EQ(emptyTable.out, kStart + Counts(0, 1, 0) + kEnd);
}

TEST_F(BlackListTest, OnlyTheSelectedDeviceWithAGpuIndex) {
  SetTable({NvidiaDevice(), IntelDevice()});
  SelectedClDevice = NvidiaDevice();
  const std::string checkLine = "    check : [" + NvidiaDevice().DeviceName + "]\n";
  const Outcome miss = Run(IsInBlackList, WriteFile(ListXml("BlackList", {IntelDevice()})), 0);
  EXPECT_FALSE(miss.result);
  EXPECT_EQ(miss.out, kStart + checkLine + Counts(1, 1, 0) + kEnd);

  const Outcome hit = Run(IsInBlackList, WriteFile(ListXml("BlackList", {IntelDevice(), NvidiaDevice()})), 2);
  EXPECT_TRUE(hit.result);
  EXPECT_EQ(hit.out, kStart + checkLine + Counts(1, 2, 1) + kEnd);
}

TEST_F(BlackListTest, UnreadableOrForeignFileLetsEveryDevicePass) {
  SetTable({IntelDevice()});
  SelectedClDevice = IntelDevice();
  const std::string lowercase = WriteFile("<blacklist>" + ItemXml(IntelDevice()) + "</blacklist>");
  for (const int32_t gpuIndex : {-1, 0}) {
    for (const std::string& path : {MissingPath(), lowercase}) {
      const Outcome outcome = Run(IsInBlackList, path, gpuIndex);
      EXPECT_FALSE(outcome.result) << path;
      EXPECT_EQ(outcome.out, kStart) << path;
    }
  }
}

}  // namespace
}  // namespace gpuvet::testing
