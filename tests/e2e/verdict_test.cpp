// The verdict of a test run through the real binary: a fixture adapter, devices
// from the project's test vendor, list files, and the driver date.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "fixture_machine.h"
#include "test_icd_config.h"

namespace gpuvet::e2e {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr int kStatusOk = 0;
constexpr int kStatusNotInWhiteList = 11;
constexpr int kStatusNotInWhiteListOldDriver = 12;
constexpr int kStatusOldDriver = 13;
constexpr int kStatusNoPlatform = 246;
constexpr int kStatusInBlackList = 245;

const PciFixtureDevice kNvidiaAdapter{"0000:65:00.0", 0x030000, 0x10de, 0x1b80};
constexpr const char* kNvidiaDeviceId = "7040";  // 0x1b80 in decimal, as the check line shows it

IcdDevice NvidiaDevice() {
  IcdDevice device;
  device.vendorId = 0x10de;
  device.name = " GeForce GTX 1080 ";  // the key holds it trimmed
  device.version = "OpenCL 3.0 CUDA";
  device.driverVersion = "535.183.01";
  device.openClCVersion = "OpenCL C 1.2 ";
  return device;
}

IcdConfig OnePlatform(std::vector<IcdDevice> devices) {
  IcdConfig config;
  config.platforms.emplace_back().devices = std::move(devices);
  return config;
}

// The selected adapter's line: "   NAME, device_id :0x1B80, vendor_id:0x10DE  ver:V  date:D".
struct SelectedAdapter {
  std::string name;
  std::string date;
};

SelectedAdapter SelectedOf(const std::string& out) {
  static const std::regex line(R"(Adapter: -?\d+\n   (.*), device_id :0x[0-9A-F]+, vendor_id:0x[0-9A-F]+  ver:.*  date:(.*)\n)");
  std::smatch match;
  if (!std::regex_search(out, match, line)) {
    ADD_FAILURE() << "no selection line in:\n" << out;
    return {};
  }
  return {match[1], match[2]};
}

// The driver date is old when it sorts before "2018" byte by byte.
bool IsOldDate(const std::string& date) {
  return date < std::string("2018");
}

std::string CheckLine(const std::string& adapterName, const std::string& deviceName) {
  return "    check---dx[" + adapterName + "][" + kNvidiaDeviceId + "], cl[" + deviceName + "] \n";
}

struct ListItem {
  uint32_t vid;
  std::string name, cVersion, deviceVersion, driverVersion;
};

ListItem ItemOf(const IcdDevice& device) {
  auto trim = [](const std::string& text) {
    const std::size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? std::string() : text.substr(first, text.find_last_not_of(' ') - first + 1);
  };
  return {device.vendorId, trim(device.name), trim(device.openClCVersion), trim(device.version),
          trim(device.driverVersion)};
}

std::string ListFileText(const std::string& root, const std::vector<ListItem>& items) {
  std::string text = "<?xml version=\"1.0\"?>\n<" + root + ">";
  for (const ListItem& item : items) {
    text += "<Item><VID>" + std::to_string(item.vid) + "</VID><DeviceName>" + item.name +
            "</DeviceName><OpenCLCVersion>" + item.cVersion + "</OpenCLCVersion><DeviceVersion>" +
            item.deviceVersion + "</DeviceVersion><DriverVersion>" + item.driverVersion +
            "</DriverVersion></Item>";
  }
  return text + "</" + root + ">\n";
}

// Binds a built-in driver to the adapter: its date is the kernel's build date,
// which the fixture sets.
void BindBuiltInDriver(FixtureMachine& machine, const std::string& adapterDir, const std::string& kernelBuildDate) {
  const std::string driverDir = machine.MakeDir("drivers/nvidia");
  machine.MakeSymlink(driverDir, adapterDir.substr(machine.Root().size() + 1) + "/driver");
  const std::string version =
      machine.WriteFile("proc/kernel_version", "#1 SMP PREEMPT_DYNAMIC Debian 6.1.0-1 (" + kernelBuildDate + ")\n");
  machine.BindMount(version, "/proc/sys/kernel/version");
}

std::string WriteList(const FixtureMachine& machine, const std::string& root, const std::vector<ListItem>& items) {
  return machine.WriteFile(root + ".xml", ListFileText(root, items));
}

class VerdictTest : public ::testing::Test {
 protected:
  void SetUp() override {
    GPUVET_REQUIRE_NAMESPACE();
    adapterDir_ = machine_.AddPciDevice(kNvidiaAdapter);
  }

  std::string WriteList(const std::string& root, const std::vector<ListItem>& items) {
    return e2e::WriteList(machine_, root, items);
  }

  FixtureMachine machine_;
  std::string adapterDir_;
};

TEST_F(VerdictTest, AMatchingDevicePassesOrFailsByTheDriverDate) {
  // "" leaves the adapter without a driver: the lookup fails and the date is "2012".
  for (const std::string kernelDate : {"", "2017-12-31", "2018-01-01", "2024-02-01"}) {
    FixtureMachine machine;
    const std::string adapterDir = machine.AddPciDevice(kNvidiaAdapter);
    if (!kernelDate.empty()) {
      BindBuiltInDriver(machine, adapterDir, kernelDate);
    }
    UseTestIcd(machine, OnePlatform({NvidiaDevice()}));

    const RunResult run = machine.RunGpuvet({"--gpu", "0"});
    ASSERT_NE(run.status, 125) << "the fixture's mounts failed: " << run.err;

    const SelectedAdapter adapter = SelectedOf(run.out);
    if (!kernelDate.empty()) {
      EXPECT_EQ(adapter.date.substr(0, 8), kernelDate.substr(0, 4) + kernelDate.substr(5, 2) + kernelDate.substr(8, 2));
    }
    const bool old = IsOldDate(adapter.date);
    const std::string verdict = old ? "driver is before 2018!\n" : "gpuvet end(ok)\n";
    EXPECT_EQ(run.status, old ? kStatusOldDriver : kStatusOk) << adapter.date;
    EXPECT_THAT(run.out, HasSubstr("\n\ngpuvet begin\nnum_platforms: 1\n\n--details\n"));
    EXPECT_THAT(run.out, EndsWith("\n\ncheck platforms begin\n" + CheckLine(adapter.name, "GeForce GTX 1080") +
                                  "check platforms end\n\n" + verdict))
        << run.out;
    EXPECT_THAT(DeviceReferenceChanges(ReadIcdCallLog(machine)), ::testing::Each(::testing::Pair(::testing::_, 0)));
  }
}

TEST_F(VerdictTest, NoPlatformEndsAfterTheCount) {
  const RunResult run = machine_.RunGpuvet({"--gpu", "0"});

  EXPECT_EQ(run.status, kStatusNoPlatform);
  EXPECT_THAT(run.out, EndsWith("\n\n\ngpuvet begin\nnum_platforms: 0\nno platform!\n"));
  EXPECT_THAT(run.out, Not(HasSubstr("--details")));
}

TEST_F(VerdictTest, NoFittingDeviceWithAGpuIndexOpensNoList) {
  IcdDevice other = NvidiaDevice();
  other.vendorId = 0x1002;
  other.name = "Ellesmere";
  UseTestIcd(machine_, OnePlatform({other}));
  const std::string blackList = WriteList("BlackList", {ItemOf(other)});

  const RunResult run = machine_.RunGpuvet({"--gpu", "0", "--blacklist", blackList});

  EXPECT_EQ(run.status, kStatusNoPlatform);
  EXPECT_THAT(run.out, EndsWith("check platforms begin\n" + CheckLine(SelectedOf(run.out).name, "") +
                                "check platforms end\n\n\n no platform!\n"));
  EXPECT_THAT(run.out, Not(HasSubstr("black list")));
}

TEST_F(VerdictTest, ADeviceWhoseKeyCannotBeReadGetsNoRow) {
  // The vendor id is asked twice: once for its line, once for the key.
  IcdDevice device = NvidiaDevice();
  device.faults.push_back({CL_DEVICE_VENDOR_ID, CL_OUT_OF_RESOURCES, 1});
  IcdDevice amd = NvidiaDevice();
  amd.vendorId = 0x1002;
  amd.name = "Ellesmere";
  UseTestIcd(machine_, OnePlatform({amd, device}));

  const RunResult run = machine_.RunGpuvet({"--gpu", "0"});

  EXPECT_EQ(run.status, kStatusNoPlatform);
  EXPECT_THAT(run.out, HasSubstr("\t\tvender_id: 10de\n\t\topencl_c_version: OpenCL C 1.2 \n"
                                 "\t\tdevice_extensions: cl_khr_fp64 cl_khr_icd\nexception: 0\n"));
  EXPECT_THAT(run.out, HasSubstr(CheckLine(SelectedOf(run.out).name, "")));
}

TEST_F(VerdictTest, WithoutAGpuIndexTheWholeTableIsTested) {
  // Two equal cards in two platforms are one row, however often the census runs.
  IcdConfig config = OnePlatform({NvidiaDevice(), NvidiaDevice()});
  config.platforms.emplace_back().devices = {NvidiaDevice()};
  UseTestIcd(machine_, config);
  const std::string blackList = WriteList("BlackList", {{0x10de, "not this one", "", "", ""}});

  const RunResult run = machine_.RunGpuvet({"--details", "--blacklist", blackList});

  const std::string name = SelectedOf(run.out).name;
  EXPECT_THAT(run.out, HasSubstr("    check---dx[" + name + "][" + kNvidiaDeviceId + "], cl[" + name + "] \n"));
  EXPECT_THAT(run.out, HasSubstr("check_list: 1, black_list: 1. intersection: 0\n"));
  EXPECT_EQ(run.status, IsOldDate(SelectedOf(run.out).date) ? kStatusOldDriver : kStatusOk);
}

TEST_F(VerdictTest, ABlackListHitEndsTheTestBeforeTheWhiteList) {
  UseTestIcd(machine_, OnePlatform({NvidiaDevice()}));
  const std::string blackList = WriteList("BlackList", {ItemOf(NvidiaDevice())});
  const std::string whiteList = WriteList("WhiteList", {{0x1002, "Ellesmere", "", "", ""}});

  const RunResult run = machine_.RunGpuvet({"--gpu", "0", "--blacklist", blackList, "--whitelist", whiteList});

  EXPECT_EQ(run.status, kStatusInBlackList);
  EXPECT_THAT(run.out, EndsWith("check before in black list end\n\nin blacklist!\n"));
  EXPECT_THAT(run.out, Not(HasSubstr("white")));
}

TEST_F(VerdictTest, AWhiteListMissTellsTheDriverDateAfterIt) {
  for (const std::string kernelDate : {"", "2024-02-01"}) {
    FixtureMachine machine;
    const std::string adapterDir = machine.AddPciDevice(kNvidiaAdapter);
    if (!kernelDate.empty()) {
      BindBuiltInDriver(machine, adapterDir, kernelDate);
    }
    UseTestIcd(machine, OnePlatform({NvidiaDevice()}));
    const std::string whiteList = e2e::WriteList(machine, "WhiteList", {{0x1002, "Ellesmere", "", "", ""}});

    const RunResult run = machine.RunGpuvet({"--gpu", "0", "--whitelist", whiteList});
    ASSERT_NE(run.status, 125) << "the fixture's mounts failed: " << run.err;

    if (IsOldDate(SelectedOf(run.out).date)) {
      EXPECT_EQ(run.status, kStatusNotInWhiteListOldDriver);
      EXPECT_THAT(run.out, EndsWith("not in whitelist!\n& driver is before 2018!\n"));
    } else {
      EXPECT_EQ(run.status, kStatusNotInWhiteList);
      EXPECT_THAT(run.out, EndsWith("not in whitelist!\n"));
    }
  }
}

}  // namespace
}  // namespace gpuvet::e2e
