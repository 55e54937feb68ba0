// The verdict of a test run through the real binary: the NVIDIA adapter, devices
// from the project's test vendor, list files, the driver date, and the time
// limit of a run held up in the census.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "e2e_support.h"

namespace gpuvet::e2e {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kTimeoutLine = "Timeout exit:  GPUVET_NOT_IN_WHITELIST\n";
// Far beyond the watchdog's nine seconds, and beyond the harness's own limit:
// a run that the watchdog does not end is killed by the harness instead.
constexpr unsigned kHeldUpSeconds = 300;

// The check line stands for "%A", the selected adapter's name, as the output shows it.
std::string Checked(const std::string& deviceName) {
  return "check platforms begin\n    check---dx[%A][7040], cl[" + deviceName + "] \ncheck platforms end\n\n";
}

const std::string kNvidiaName = TrimBlanks(NvidiaDevice().name);

IcdDevice AmdDevice() {
  IcdDevice device = NvidiaDevice();
  device.vendorId = 0x1002;
  device.name = "Ellesmere";
  return device;
}

IcdDevice NvidiaWithFault(const IcdFault& fault) {
  IcdDevice device = NvidiaDevice();
  device.faults.push_back(fault);
  return device;
}

struct VerdictCase {
  const char* name;
  bool withGpuIndex;
  std::string kernelDate;  // "": no driver bound, the lookup fails and the date is "2012"
  std::vector<std::vector<IcdDevice>> platforms;
  std::vector<IcdDevice> black, white;  // the devices listed; none: no path for that list
  int status;
  std::string tail;
};

void PrintTo(const VerdictCase& verdictCase, std::ostream* out) {
  *out << verdictCase.name;
}

class VerdictTest : public ::testing::TestWithParam<VerdictCase> {
 protected:
  void SetUp() override { GPUVET_REQUIRE_NAMESPACE(); }
  FixtureMachine machine_;
};

TEST_P(VerdictTest, EndsWithItsCode) {
  const VerdictCase& param = GetParam();
  machine_.AddPciDevice(kNvidiaAdapter);
  if (!param.kernelDate.empty()) {
    machine_.BindModuleDriver(kNvidiaAdapter.address, "nvidia", "535.183.01");
    machine_.SetKernelBuildDate(param.kernelDate);
  }
  IcdConfig config;
  for (const std::vector<IcdDevice>& devices : param.platforms) {
    config.platforms.emplace_back().devices = devices;
  }
  UseTestIcd(machine_, config);
  std::vector<std::string> args;
  if (param.withGpuIndex) {
    args = {"--gpu", "0"};
  }
  if (!param.black.empty()) {
    args.insert(args.end(), {"--blacklist", machine_.WriteFile("black.xml", ListFileText("BlackList", param.black))});
  }
  if (!param.white.empty()) {
    args.insert(args.end(), {"--whitelist", machine_.WriteFile("white.xml", ListFileText("WhiteList", param.white))});
  }

  const RunResult run = machine_.RunGpuvet(args);

  const std::size_t nameAt = run.out.find("\n   ", run.out.find("Adapter: ")) + 4;
  const std::string adapterName = run.out.substr(nameAt, run.out.find(", device_id", nameAt) - nameAt);
  std::string tail = param.tail;
  for (std::size_t at = tail.find("%A"); at != std::string::npos; at = tail.find("%A")) {
    tail.replace(at, 2, adapterName);
  }
  EXPECT_EQ(run.status, param.status) << run.out;
  EXPECT_THAT(run.out, EndsWith(tail));
  EXPECT_THAT(run.out, HasSubstr("\ngpuvet begin\nnum_platforms: " + std::to_string(param.platforms.size()) + "\n"));
  EXPECT_EQ(run.err, "");
  EXPECT_FALSE(run.timedOut);
  for (const char* list : {"black list", "white list"}) {
    if (param.tail.find(list) == std::string::npos) {
      EXPECT_THAT(run.out, Not(HasSubstr(list))) << "a list the test did not get to was opened";
    }
  }
  if (param.tail != kTimeoutLine) {
    EXPECT_THAT(run.out, Not(HasSubstr("Timeout exit:")));
    EXPECT_TRUE(DeviceReferencesBalanced(ReadIcdCallLog(machine_)));
  }
}

const std::string kOk = "gpuvet end(ok)\n";
const std::string kOld = "driver is before 2018!\n";
const std::string kNotListed = "not in whitelist!\n";
const std::string kNoDevice = "\n no platform!\n";

INSTANTIATE_TEST_SUITE_P(
    Verdicts, VerdictTest,
    ::testing::Values(
        VerdictCase{"DriverOfTheMinimumYearPasses", true, "2018-01-01", {{NvidiaDevice()}}, {}, {}, kStatusOk,
                    Checked(kNvidiaName) + kOk},
        VerdictCase{"DriverOfTheYearBeforeIsOld", true, "2017-12-31", {{NvidiaDevice()}}, {}, {}, kStatusOldDriver,
                    Checked(kNvidiaName) + kOld},
        VerdictCase{"FailedDriverLookupIsOld", true, "", {{NvidiaDevice()}}, {}, {}, kStatusOldDriver,
                    Checked(kNvidiaName) + kOld},
        VerdictCase{"NoPlatformEndsAfterTheCount", true, "", {}, {}, {}, kStatusNoPlatform,
                    "\n\n\ngpuvet begin\nnum_platforms: 0\nno platform!\n"},
        VerdictCase{"NoPlatformWithoutIndex", false, "", {}, {}, {}, kStatusNoPlatform,
                    "\n\n\ngpuvet begin\nnum_platforms: 0\nno platform!\n"},
        // Neither list is opened.
        VerdictCase{"NoFittingDevice", true, "", {{AmdDevice()}}, {AmdDevice()}, {AmdDevice()},
                    kStatusNoPlatform, Checked("") + kNoDevice},
        // The vendor id is asked twice: once for its line, once for the key.
        VerdictCase{"DeviceWithUnreadableKeyGetsNoRow", true, "", {{AmdDevice(), NvidiaWithFault({CL_DEVICE_VENDOR_ID, CL_OUT_OF_RESOURCES, 1})}}, {}, {},
                    kStatusNoPlatform,
                    "\t\tvender_id: 10de\n\t\topencl_c_version: OpenCL C 1.2 \n"
                    "\t\tdevice_extensions: cl_khr_fp64 cl_khr_icd\nexception: 0\n\n\n" +
                        Checked("") + kNoDevice},
        // Without a gpu index the check line names the adapter twice, and two
        // equal cards in two platforms are one row of the table.
        VerdictCase{"WithoutIndexTheWholeTableIsTested", false, "2018-01-01",
                    {{NvidiaDevice(), NvidiaDevice()}, {NvidiaDevice()}}, {AmdDevice()}, {}, kStatusOk,
                    Checked("%A") + "check before in black list start\ncheck_list: 1, black_list: 1. intersection: 0\n"
                                    "check before in black list end\n\n" + kOk},
        VerdictCase{"OldDriverWithoutIndex", false, "", {{NvidiaDevice()}}, {}, {}, kStatusOldDriver,
                    Checked("%A") + kOld},
        // The black list ends the test before the white list would miss on an old driver.
        VerdictCase{"BlackListHit", true, "", {{NvidiaDevice()}}, {NvidiaDevice()}, {AmdDevice()},
                    kStatusInBlackList, "check before in black list end\n\nin blacklist!\n"},
        VerdictCase{"BlackListHitWithoutIndex", false, "", {{NvidiaDevice()}}, {NvidiaDevice()}, {AmdDevice()},
                    kStatusInBlackList, "check before in black list end\n\nin blacklist!\n"},
        VerdictCase{"WhiteListMiss", true, "2018-01-01", {{NvidiaDevice()}}, {}, {AmdDevice()}, kStatusNotInWhiteList,
                    "check before in white list end\n\n" + kNotListed},
        VerdictCase{"WhiteListMissWithOldDriver", true, "", {{NvidiaDevice()}}, {}, {AmdDevice()},
                    kStatusNotInWhiteListOldDriver, "check before in white list end\n\n" + kNotListed + "& " + kOld},
        VerdictCase{"WhiteListMissWithoutIndex", false, "2018-01-01", {{NvidiaDevice()}}, {}, {AmdDevice()},
                    kStatusNotInWhiteList, "check before in white list end\n\n" + kNotListed},
        VerdictCase{"WhiteListMissWithOldDriverWithoutIndex", false, "", {{NvidiaDevice()}}, {}, {AmdDevice()},
                    kStatusNotInWhiteListOldDriver, "check before in white list end\n\n" + kNotListed + "& " + kOld},
        VerdictCase{"WhiteListedWithoutIndex", false, "2018-01-01", {{NvidiaDevice()}}, {}, {NvidiaDevice()},
                    kStatusOk, "check before in white list end\n\n" + kOk},
        // The watchdog ends a run held up in the census, wherever it stands.
        VerdictCase{"HeldUpRunTimesOut", true, "2018-01-01", {{NvidiaWithFault({CL_DEVICE_NAME, CL_SUCCESS, 0, kHeldUpSeconds})}}, {}, {}, kStatusNotInWhiteList,
                    kTimeoutLine}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace gpuvet::e2e
