// The fleet over random machines: snapshots written and read back byte for
// byte, incoherent ones refused, impact's verdict of each machine against
// gpuvet-lists verdict --snapshot, and merged partial summaries against one
// run over the whole fleet.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

#include "fleet/impact.h"
#include "fleet/quiet_print.h"
#include "fleet/snapshot.h"
#include "fixture_machine.h"

namespace gpuvet::fleet {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

// Machines and lists drawn from small pools, so that names meet, lists hit and
// versions compare in every way.
class RandomFleet {
 public:
  explicit RandomFleet(unsigned seed) : random_(seed) {}

  MachineRecord Machine() {
    MachineRecord record;
    const std::size_t adapterCount = 1 + Pick(3);
    std::vector<platform::DriverRow> rows;
    for (std::size_t i = 0; i < adapterCount; ++i) {
      AdapterEntry adapter;
      adapter.venID = Of(kVendors);
      adapter.devID = 0x1000 + static_cast<uint32_t>(Pick(3));
      adapter.devName = Of(kAdapterNames);
      record.adapters.push_back(adapter);
      platform::DriverRow row;
      row.caption = adapter.devName;
      if (Pick(4) != 0) row.driverVersion = Of(kVersions);
      if (Pick(4) != 0) row.driverDate = Of(kDates);
      rows.push_back(row);
    }
    if (Pick(5) != 0) record.driverRows = rows;
    record.census.platformListFailed = Pick(15) == 0;
    for (std::size_t p = record.census.platformListFailed ? 0 : 1 + Pick(2); p > 0; --p) {
      record.census.platforms.push_back(Platform());
    }
    record.census.platformCount = Pick(10) == 0 ? 0 : static_cast<uint32_t>(1 + Pick(2));
    const QuietPrint quiet;
    record.adapters = RebuildAdapterList(record);
    return record;
  }

  // A list file of random items; now and then one that can't be read.
  std::string List(const std::string& root) {
    if (Pick(12) == 0) return "<" + root + "><Item>";
    std::string text = "<" + root + ">";
    for (std::size_t i = Pick(16); i > 0; --i) {
      const ClDeviceKey key = Key();
      text += "<Item><VID>" + std::to_string(key.VID) + "</VID><DeviceName>" + key.DeviceName +
              "</DeviceName><OpenCLCVersion>" + key.OpenCLCVersion + "</OpenCLCVersion><DeviceVersion>" +
              key.DeviceVersion + "</DeviceVersion><DriverVersion>" + key.DriverVersion + "</DriverVersion></Item>";
    }
    return text + "</" + root + ">";
  }

  std::size_t Pick(std::size_t count) { return std::uniform_int_distribution<std::size_t>(0, count - 1)(random_); }

 private:
  template <typename T, std::size_t N>
  T Of(const T (&pool)[N]) {
    return pool[Pick(N)];
  }

  ClDeviceKey Key() {
    ClDeviceKey key;
    key.VID = Of(kVendors);
    key.DeviceName = Of(kDeviceNames);
    key.OpenCLCVersion = "OpenCL C 1.2";
    key.DeviceVersion = "OpenCL 3.0";
    key.DriverVersion = Of(kVersions);
    return key;
  }

  // Complete, or cut off at a random point and marked as failed.
  CensusPlatform Platform() {
    CensusPlatform platform;
    if (Pick(8) == 0) {
      platform.failed = true;
      return platform;
    }
    const std::size_t devices = 1 + Pick(3);
    platform.gpuCount = devices;
    platform.handle = "0x1";
    platform.profile = platform.version = platform.name = platform.vendor = platform.icdSuffix =
        platform.extensions = "x";
    for (std::size_t j = 0; j < devices; ++j) {
      CensusDevice device;
      const ClDeviceKey key = Key();
      device.type = 4;
      device.name = " " + key.DeviceName;
      device.version = key.DeviceVersion;
      device.driverVersion = key.DriverVersion;
      device.vendorId = key.VID;
      device.openClCVersion = key.OpenCLCVersion;
      device.extensions = "cl_khr_icd";
      device.key = key;
      platform.devices.push_back(device);
    }
    if (Pick(5) == 0) {
      platform.failed = true;
      platform.devices.back().key.reset();
      platform.devices.back().extensions.reset();
    }
    return platform;
  }

  static constexpr uint32_t kVendors[] = {0x8086, 0x10de, 0x1002};
  static constexpr const char* kAdapterNames[] = {"TU117 [GeForce GTX 1650]", "Ellesmere [Radeon RX 580]",
                                                  "Navi 14", "UHD Graphics 630"};
  static constexpr const char* kDeviceNames[] = {"GeForce GTX 1650", "Ellesmere", "gfx1030", "Navi 14"};
  static constexpr const char* kVersions[] = {"", "1.0.0", "525.125.06", "9.17", "10.18"};
  static constexpr const char* kDates[] = {"", "2012", "2018", "20170101000000.000000-000",
                                           "20230620000000.000000-000"};
  std::mt19937 random_;
};

std::string WithBytesOfAllKinds(unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes;
  for (int i = 0; i < 40; ++i) bytes += static_cast<char>(random() % 256);
  return bytes;
}

bool ReadText(const std::string& text, MachineRecord& record, std::string& reason) {
  std::string padded = text;
  padded.resize(text.size() + kReadPadding);
  SnapshotReader reader;
  return reader.Read(padded.data(), text.size(), padded.size(), record, reason);
}

// What the writer writes, the reader reads back: writing it again gives the
// same text, with strings that are no UTF-8 and NULs among them.
TEST(Snapshot, ReadsBackWhatItWroteByteForByte) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    RandomFleet fleet(seed);
    MachineRecord record = fleet.Machine();
    record.adapterLog = {WithBytesOfAllKinds(seed), std::string("a\0b", 3)};
    if (!record.census.platforms.empty() && record.census.platforms[0].gpuCount) {
      CensusPlatform& platform = record.census.platforms[0];
      platform.vendor = WithBytesOfAllKinds(seed + 1);
      if (platform.devices[0].key) {  // the device that stopped a failed turn has none
        platform.devices[0].key->DeviceName = WithBytesOfAllKinds(seed + 2);
      }
    }
    const std::string written = SnapshotJson(record, "test", "now");
    MachineRecord read;
    std::string reason;
    ASSERT_TRUE(ReadText(written, read, reason)) << reason << "\n" << written;
    EXPECT_EQ(SnapshotJson(read, "test", "now"), written);
    EXPECT_EQ(read.adapterLog, record.adapterLog);
  }
}

// A snapshot that no run could have left is refused with its reason.
TEST(Snapshot, RefusesWhatDoesNotHoldTogether) {
  MachineRecord record;
  record.adapters = {{0x10de, 0x1f82, "GTX", "525.125.06", "2023"}};
  record.driverRows = {{std::string("GTX"), std::nullopt, std::string("525.125.06"), std::string("2023")}};
  CensusPlatform platform;
  platform.gpuCount = 1;
  platform.profile = platform.version = platform.name = platform.vendor = platform.icdSuffix = platform.extensions =
      "x";
  platform.devices.push_back({4, "GTX", "v", "d", 0x10de, "c", "e", ClDeviceKey{0x10de, "GTX", "c", "v", "d"}});
  record.census.platforms = {platform};
  const nlohmann::json valid = nlohmann::json::parse(SnapshotJson(record, "test", "now"));
  MachineRecord read;
  std::string reason;
  ASSERT_TRUE(ReadText(valid.dump(), read, reason)) << reason;

  using Json = nlohmann::json;
  const struct {
    const char* what;
    std::function<void(Json&)> change;
    const char* reason;  // empty: still readable
  } cases[] = {
      {"a later format version", [](Json& j) { j["formatVersion"] = 2; }, "format version 2"},
      {"another format", [](Json& j) { j["format"] = "other"; }, "\"format\""},
      {"no census", [](Json& j) { j.erase("census"); }, "required"},
      {"a driver version the rows don't give", [](Json& j) { j["adapters"][0]["strDrvVer"] = "526"; }, "adapter 0"},
      {"a whole turn marked as failed", [](Json& j) { j["census"]["platforms"][0]["failed"] = true; }, ""},
      {"a value after a missing one", [](Json& j) { j["census"]["platforms"][0]["devices"][0].erase("version"); },
       "not answered in order"},
      {"fewer devices than counted", [](Json& j) { j["census"]["platforms"][0]["gpuCount"] = 2; },
       "not marked as failed"},
      {"platforms after a failed list", [](Json& j) { j["census"]["platformListFailed"] = true; },
       "platform list failed"},
      {"odd hexadecimal", [](Json& j) { j["adapterLog"] = Json::array({{{"hex", "abc"}}}); }, "odd number"},
      {"a VID beyond 32 bits", [](Json& j) { j["census"]["platforms"][0]["devices"][0]["key"]["VID"] = 1ull << 33; },
       "beyond 32 bits"},
      {"a member of its own", [](Json& j) { j["source"] = "a note"; }, ""},
  };
  for (const auto& c : cases) {
    Json changed = valid;
    c.change(changed);
    const bool ok = ReadText(changed.dump(), read, reason);
    EXPECT_EQ(ok, std::string(c.reason).empty()) << c.what;
    if (!ok) {
      EXPECT_THAT(reason, HasSubstr(c.reason)) << c.what;
    }
  }
  EXPECT_FALSE(ReadText("{\"format\": ", read, reason));
}

// A folder for the files of a test.
class FleetFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    char folder[] = "/tmp/gpuvet-fleet-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    dir_ = folder;
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string Write(const std::string& name, const std::string& text) const {
    std::ofstream(dir_ + "/" + name, std::ios::binary) << text;
    return dir_ + "/" + name;
  }
  // Old and new lists drawn from the fleet, written beside its snapshots.
  ImpactLists WriteLists(RandomFleet& fleet) const {
    ImpactLists lists;
    lists.oldBlack = Write("old-black.xml", fleet.List("BlackList"));
    lists.oldWhite = Write("old-white.xml", fleet.List("WhiteList"));
    lists.newBlack = Write("new-black.xml", fleet.List("BlackList"));
    lists.newWhite = Write("new-white.xml", fleet.List("WhiteList"));
    return lists;
  }
  std::string dir_;
};

// Each machine's verdict in impact, under both lists, is the status that
// gpuvet-lists verdict --snapshot gives on its snapshot; the changes impact
// counts are those of the statuses.
TEST_F(FleetFiles, ImpactJudgesEachMachineAsVerdictOverItsSnapshot) {
  constexpr int kMachines = 24;
  RandomFleet fleet(7);
  ImpactLists lists = WriteLists(fleet);
  lists.gpuIndex = static_cast<int32_t>(fleet.Pick(3)) - 1;
  ::testing::internal::CaptureStderr();  // the lists that can't be read say so
  ImpactRun impact(lists);

  std::string script;
  std::vector<std::pair<int, int>> expected;
  const std::string gpu = " --gpu " + std::to_string(lists.gpuIndex);
  for (int m = 0; m < kMachines; ++m) {
    const MachineRecord record = fleet.Machine();
    const std::string file = Write("m" + std::to_string(m) + ".json", SnapshotJson(record, "test", "now"));
    impact.AddMachine(record, {file, 0});
    const MachineSource machine = RecordedMachine(record);
    expected.emplace_back(impact.Verdict(machine, lists.oldBlack, lists.oldWhite) & 0xff,
                          impact.Verdict(machine, lists.newBlack, lists.newWhite) & 0xff);
    for (const char* which : {"old", "new"}) {
      script += std::string("(") + e2e::GpuvetListsBinary() + " verdict --snapshot " + file + gpu + " --blacklist " +
                dir_ + "/" + which + "-black.xml --whitelist " + dir_ + "/" + which + "-white.xml >/dev/null 2>&1; echo $? > " +
                file + "." + which + ") &\n";
    }
  }
  ::testing::internal::GetCapturedStderr();
  ASSERT_EQ(std::system((script + "wait\n").c_str()), 0);

  uint64_t changed = 0;
  for (int m = 0; m < kMachines; ++m) {
    int oldStatus = -1;
    int newStatus = -1;
    std::ifstream(dir_ + "/m" + std::to_string(m) + ".json.old") >> oldStatus;
    std::ifstream(dir_ + "/m" + std::to_string(m) + ".json.new") >> newStatus;
    EXPECT_EQ(expected[m], std::make_pair(oldStatus, newStatus)) << "machine " << m;
    changed += oldStatus != newStatus ? 1 : 0;
  }
  uint64_t counted = 0;
  for (const auto& [codes, devices] : impact.Summary().changes) {
    for (const auto& device : devices) counted += device.second;
  }
  EXPECT_EQ(counted, changed);
  EXPECT_EQ(impact.Summary().machines, static_cast<uint64_t>(kMachines));
}

// However the fleet is cut into parts, the parts' summaries, written, read
// back and merged in order, give the report of one run over the whole.
TEST_F(FleetFiles, MergedPartsEqualOneRunOverTheWhole) {
  RandomFleet fleet(11);
  ImpactLists lists = WriteLists(fleet);
  lists.gpuIndex = 0;
  std::vector<MachineRecord> machines;
  for (int m = 0; m < 120; ++m) machines.push_back(fleet.Machine());

  ::testing::internal::CaptureStderr();
  ImpactRun whole(lists);
  for (std::size_t m = 0; m < machines.size(); ++m) {
    if (m % 17 == 3) whole.AddUnreadable({"fleet.jsonl", m + 1}, "broken");
    else whole.AddMachine(machines[m], {"fleet.jsonl", m + 1});
  }
  for (int split = 0; split < 20; ++split) {
    std::vector<std::size_t> cuts = {0, machines.size()};
    for (std::size_t c = fleet.Pick(6); c > 0; --c) cuts.push_back(fleet.Pick(machines.size()));
    std::sort(cuts.begin(), cuts.end());
    std::optional<ImpactSummary> merged;
    for (std::size_t part = 0; part + 1 < cuts.size(); ++part) {
      ImpactRun run(lists);
      for (std::size_t m = cuts[part]; m < cuts[part + 1]; ++m) {
        if (m % 17 == 3) run.AddUnreadable({"fleet.jsonl", m + 1}, "broken");
        else run.AddMachine(machines[m], {"fleet.jsonl", m + 1});
      }
      ImpactSummary read;
      std::string reason;
      ASSERT_TRUE(ReadPartial(PartialJson(run.Summary()), read, reason)) << reason;
      if (!merged) merged = read;
      else ASSERT_TRUE(MergeSummary(*merged, read, reason)) << reason;
    }
    EXPECT_EQ(ImpactJson(*merged), ImpactJson(whole.Summary())) << "split " << split;
    EXPECT_EQ(ImpactText(*merged), ImpactText(whole.Summary()));
  }

  ImpactLists other = lists;
  other.gpuIndex = 1;
  ImpactSummary mixed = whole.Summary();
  std::string reason;
  EXPECT_FALSE(MergeSummary(mixed, ImpactRun(other).Summary(), reason));
  ::testing::internal::GetCapturedStderr();
}

}  // namespace
}  // namespace gpuvet::fleet
