// Whole runs of the real binary on fixture machines: the adapter list beside
// lspci's, the OpenCL census from the project's test vendor with failures
// injected into chosen calls and beside clinfo and PoCL, the lines of runs
// that end early, and the verdict with list files, driver dates and a run held
// up in the census.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <regex>

#include "e2e_support.h"

namespace gpuvet::e2e {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kClinfo = "/usr/bin/clinfo";

class RunTest : public ::testing::Test {
 protected:
  void SetUp() override { GPUVET_REQUIRE_NAMESPACE(); }
  FixtureMachine machine_;
};

IcdDevice Gpu(const std::string& name, uint32_t vendorId = 0x10de) {
  IcdDevice device;
  device.name = name;
  device.vendorId = vendorId;
  return device;
}

IcdPlatform PlatformWith(std::vector<IcdDevice> devices, const std::string& name = "gpuvet test platform") {
  IcdPlatform platform;
  platform.name = name;
  platform.devices = std::move(devices);
  return platform;
}

// What the turn of platform i prints when nothing fails, or its first lines
// only: its header counts as one, then one line per query, in their order.
std::string Turn(int i, const IcdPlatform& p, std::size_t lineCount = std::string::npos) {
  const std::string n = std::to_string(i);
  std::vector<std::string> lines = {
      "\n===" + n + "=============\n\nplatform[" + n + ", P], GPU Device(s) cnt = " + std::to_string(p.devices.size()),
      "\tprofile: " + p.profile, "\tversion: " + p.version,     "\tname: " + p.name,
      "\tvender: " + p.vendor,   "\ticdkhr: " + p.icdSuffix,    "\textension: " + p.extensions};
  for (std::size_t j = 0; j < p.devices.size(); ++j) {
    const IcdDevice& d = p.devices[j];
    char vendor[16];
    std::snprintf(vendor, sizeof vendor, "%04x", d.vendorId);
    lines.insert(lines.end(), {"\t\t===" + std::to_string(j), "\t\tdevice_type: " + std::to_string(d.type),
                               "\t\tdevice_name: " + d.name, "\t\tdevice_version: " + d.version,
                               "\t\tdriver_version: " + d.driverVersion, std::string("\t\tvender_id: ") + vendor,
                               "\t\topencl_c_version: " + d.openClCVersion, "\t\tdevice_extensions: " + d.extensions});
  }
  std::string text;
  for (std::size_t k = 0; k < lines.size() && k < lineCount; ++k) {
    text += lines[k] + "\n";
  }
  return text;
}

// The output of a census run, the platform handles (addresses) replaced.
std::string Census(const FixtureMachine& machine, const std::vector<std::string>& args = {"--notest", "--details"}) {
  const RunResult run = machine.RunGpuvet(args);
  EXPECT_EQ(run.status, kStatusNoTest) << run.out << run.err;
  static const std::regex handle(R"(platform\[(\d+), 0x[0-9a-f]+\])");
  return std::regex_replace(run.out, handle, "platform[$1, P]");
}

// A failure in the first platform: its turn keeps the lines printed so far and
// ends with its exception line, and no later device of it is visited. The
// platform without a GPU shows only its exception line, and counts. The last
// turn is whole: texts print as OpenCL gives them up to the first NUL, blanks
// kept. Each --details prints the whole block again, the failures included.
// The loader asks for the ICD suffix itself while it loads the vendor; a
// failure of the census's own query must still count.
TEST_F(RunTest, CensusPrintsEveryPlatformAndEndsAFailingTurn) {
  const struct {
    const char* what;
    std::vector<IcdFault> platformFaults, deviceIdsFaults, secondDeviceFaults;
    std::size_t linesShown;  // of the failing turn, as Turn counts them
  } cases[] = {
      {"profile", {{CL_PLATFORM_PROFILE}}, {}, {}, 1},
      {"ICD suffix", {{CL_PLATFORM_ICD_SUFFIX_KHR}}, {}, {}, 5},
      {"device ids after the count", {}, {{0, CL_OUT_OF_RESOURCES, 1}}, {}, 0},
      {"extensions of the second device, after its seven other lines", {}, {}, {{CL_DEVICE_EXTENSIONS}}, 22},
  };
  IcdDevice blanks = Gpu("  GeForce  GTX ", 0x1);
  blanks.driverVersion = std::string("535.1\0hidden", 12);
  blanks.extensions = "\tcl_khr_fp64\t";
  IcdDevice cpu = Gpu("Some CPU", 0x8086);
  cpu.type = CL_DEVICE_TYPE_CPU;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    FixtureMachine machine;
    IcdConfig config;
    config.platforms = {PlatformWith({Gpu("zero"), Gpu("one"), Gpu("two")}), PlatformWith({cpu}, "cpu"),
                        PlatformWith({blanks, Gpu("wide", 0x12345), Gpu("", 0x8086)}, "last")};
    config.platforms[2].vendor = std::string(" vendor\0cut off ", 16);
    IcdPlatform& first = config.platforms[0];
    first.faults = c.platformFaults;
    first.deviceIdsFaults = c.deviceIdsFaults;
    first.devices[1].faults = c.secondDeviceFaults;
    UseTestIcd(machine, config);

    IcdPlatform shown = config.platforms[2];
    shown.vendor = " vendor";
    shown.devices[0].driverVersion = "535.1";
    const std::string block =
        "\n--details\n" + Turn(0, first, c.linesShown) + "exception: 0\nexception: 1\n" + Turn(2, shown) + "\n\n";
    const std::string out = Census(machine, {"--details", "--notest", "--details"});
    EXPECT_EQ(out, block + block + "no test!\n");
    EXPECT_THAT(out, AllOf(HasSubstr("\t\tvender_id: 0001\n"), HasSubstr("\t\tvender_id: 12345\n")));
    const std::vector<std::string> calls = ReadIcdCallLog(machine);
    for (const std::string& call : calls) {
      EXPECT_THAT(call, Not(StartsWith("clGetDeviceInfo device=2 "))) << "a device after the failing one was visited";
    }
    EXPECT_TRUE(DeviceReferencesBalanced(calls));
    EXPECT_EQ(CountCalls(calls, "clCreateContext"), 0u);
  }
}

// A failing platform list ends the run in an orderly way.
TEST_F(RunTest, NoOpenClVendorAtAllEndsTheDetails) {
  const RunResult run = machine_.RunGpuvet({"--notest", "--details"});
  EXPECT_EQ(run.out, "\n--details\nno platform!\n");
  EXPECT_EQ(run.status, kStatusNoPlatform);
  EXPECT_EQ(run.err, "");
}

// clinfo --raw prints "[SUFFIX/N]    NAME<padding>VALUE", the value at a fixed
// column behind the name's start, so blanks at its front survive.
std::string ClinfoRawValue(const std::string& out, const std::string& name) {
  constexpr std::size_t kValueColumn = 48;
  for (const std::string& line : Lines(out)) {
    const std::size_t at = line.find("  " + name + " ");
    if (line.rfind("[NV/0]", 0) == 0 && at != std::string::npos && at + 2 + kValueColumn <= line.size()) {
      return line.substr(at + 2 + kValueColumn);
    }
  }
  return "<missing " + name + ">";
}

TEST_F(RunTest, DeviceValuesEqualWhatClinfoShows) {
  IcdDevice device = NvidiaDevice();
  device.extensions = "cl_khr_global_int32_base_atomics cl_khr_fp64 cl_khr_icd";
  IcdConfig config;
  config.platforms.push_back(PlatformWith({device}));
  config.platforms[0].icdSuffix = "NV";
  UseTestIcd(machine_, config);

  const std::string census = Census(machine_);
  const RunResult clinfo = machine_.Run({kClinfo, "--raw"});
  ASSERT_EQ(clinfo.status, 0) << clinfo.err;

  const std::pair<const char*, const char*> shownAs[] = {
      {"device_name", "CL_DEVICE_NAME"},           {"device_version", "CL_DEVICE_VERSION"},
      {"driver_version", "CL_DRIVER_VERSION"},     {"opencl_c_version", "CL_DEVICE_OPENCL_C_VERSION"},
      {"device_extensions", "CL_DEVICE_EXTENSIONS"}, {"vender_id", "CL_DEVICE_VENDOR_ID"}};
  for (const auto& [label, name] : shownAs) {
    const std::string value = ClinfoRawValue(clinfo.out, name);
    EXPECT_THAT(census, HasSubstr(std::string("\t\t") + label + ": " +
                                  (std::string(label) == "vender_id" ? value.substr(2) : value) + "\n"));
  }
}

TEST_F(RunTest, PoclShowsItsPlatformAndNoGpu) {
  constexpr const char* kPoclIcdFile = "/etc/OpenCL/vendors/pocl.icd";
  std::string library;
  std::getline(std::ifstream(kPoclIcdFile), library);
  if (library.empty()) {
    GTEST_SKIP() << "PoCL is not installed (" << kPoclIcdFile << ")";
  }
  machine_.AddOpenClVendor("pocl", library);

  // PoCL has a platform (clinfo shows it) but no GPU: its turn fails before its header.
  EXPECT_EQ(Census(machine_), "\n--details\nexception: 0\n\n\nno test!\n");
  EXPECT_THAT(machine_.Run({kClinfo, "--raw"}).out, HasSubstr("CL_PLATFORM_NAME"));
}

TEST_F(RunTest, ListsDisplayAdaptersInPciAddressOrderLikeLspci) {
  machine_.AddPciDevice({"0000:65:00.0", 0x030200, 0x10de, 0x1b80});  // 3D controller
  machine_.AddPciDevice({"0000:00:1f.3", 0x040300, 0x8086, 0xa348});  // audio: not a display adapter
  machine_.AddPciDevice(kIntelAdapter);
  machine_.AddPciDevice({"0000:04:00.0", 0x038000, 0x1002, 0x15d8});  // other display controller
  machine_.AddPciDevice(kAmdAdapter);
  machine_.AddPciDevice({"0000:05:00.0", 0x030000, 0x1234, 0x2330});  // ids unknown to the database

  // The display adapters (class 03xx) as lspci shows them: ids from -nn, names from the plain listing.
  const std::vector<std::string> numeric = Lines(machine_.Run({"/usr/bin/lspci", "-mm", "-nn"}).out);
  const std::vector<std::string> named = Lines(machine_.Run({"/usr/bin/lspci", "-mm"}).out);
  static const std::regex numericEntry(R"re(^\S+ "[^"]*\[03..\]" "[^"]*\[(\w{4})\]" "[^"]*\[(\w{4})\]")re");
  static const std::regex namedEntry(R"re(^\S+ "[^"]*" "[^"]*" "([^"]*)")re");
  const auto upper = [](std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
    return text;
  };
  std::vector<std::string> expected;  // no driver: empty version and date
  for (std::size_t i = 0; i < numeric.size() && i < named.size(); ++i) {
    std::smatch ids;
    std::smatch name;
    if (std::regex_search(numeric[i], ids, numericEntry) && std::regex_search(named[i], name, namedEntry)) {
      expected.push_back("   " + name.str(1) + ", device_id :0x" + upper(ids.str(2)) + ", vendor_id:0x" +
                         upper(ids.str(1)) + "  ver:  date:\n");
    }
  }
  ASSERT_EQ(expected.size(), 5u) << "lspci saw other devices than the fixture's";

  const RunResult result = machine_.RunGpuvet({"--gpu", "4"});
  EXPECT_THAT(result.out, HasSubstr(expected[0] + expected[1] + expected[2] + expected[3] + expected[4] +
                                    "\nAdapter: 4\n" + expected[4]));
  EXPECT_EQ(result.status, kStatusNoPlatform);
}

constexpr const char* kUsage =
    "gpuvet.exe\ngpuvet.exe [--notest] [--details] [--blankrun] [--recheck] [--result][--help]\n";

// The usage does not end the run; PCI entries that cannot be read are passed
// over with a log line; without any adapter the run ends after the selection.
TEST_F(RunTest, MalformedEntriesAreLoggedAndNoAdapterEndsTheRun) {
  machine_.MakeDir("pci/devices/0000:05:00.0");  // no class file
  machine_.AddPciDevice({"0000:06:00.0", 0x030000, 0x10de, 0x1b80});
  machine_.WriteFile("pci/devices/0000:06:00.0/vendor", "garbage\n");
  const RunResult result = machine_.RunGpuvet({"--help"});
  EXPECT_EQ(result.out, std::string(kUsage) +
                            "qdx_log_callback -- skipping 0000:05:00.0: class unreadable\n"
                            "qdx_log_callback -- skipping 0000:06:00.0: vendor unreadable\n"
                            "\nAdapter: -1\nerror  index [-1] infos.size[0]\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.status, kStatusNoPlatform);
}

TEST_F(RunTest, ValueOptionLastIsAnInvalidParameter) {
  const RunResult result = machine_.RunGpuvet({"--notest", "--result"});
  EXPECT_EQ(result.out, "_invalid_parameter\n");
  EXPECT_EQ(result.status, kStatusInvalidParameter);
}

TEST_F(RunTest, BlankRunCountsSecondsUntilEnded) {
  const RunResult result = machine_.RunGpuvet({"--blankrun", "--notest"}, 2);
  EXPECT_TRUE(result.timedOut);
  EXPECT_THAT(result.out, StartsWith("0 s\n1 s\n"));
  EXPECT_THAT(result.out, Not(HasSubstr("no test!")));
}

// The check line stands for "%A", the selected adapter's name, as the output shows it.
std::string Checked(const std::string& deviceName) {
  return "check platforms begin\n    check---dx[%A][7040], cl[" + deviceName + "] \ncheck platforms end\n\n";
}

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

// A machine with the NVIDIA adapter, these devices and lists, and the end of
// the run they give.
struct VerdictCase {
  const char* name;
  bool withGpuIndex;
  bool driverOf2018;  // else no driver is bound: its row has an empty date, which is old
  std::vector<std::vector<IcdDevice>> platforms;
  std::vector<IcdDevice> black, white;  // the devices listed; none: no path for that list
  int status;
  std::string tail;
};

void PrintTo(const VerdictCase& verdictCase, std::ostream* out) { *out << verdictCase.name; }

const std::string kOkTail = "gpuvet end(ok)\n";
const std::string kOldTail = "driver is before 2018!\n";
const std::string kNotListedTail = "check before in white list end\n\nnot in whitelist!\n";
const std::string kNoDeviceTail = "\n no platform!\n";
const std::string kTimeoutTail = "Timeout exit:  GPUVET_NOT_IN_WHITELIST\n";

class VerdictTest : public ::testing::TestWithParam<VerdictCase> {
 protected:
  void SetUp() override { GPUVET_REQUIRE_NAMESPACE(); }
};

TEST_P(VerdictTest, EndsWithItsCode) {
  const VerdictCase& c = GetParam();
  FixtureMachine machine;
  machine.AddPciDevice(kNvidiaAdapter);
  if (c.driverOf2018) {
    machine.BindModuleDriver(kNvidiaAdapter.address, "nvidia", "535.183.01");
    machine.SetKernelBuildDate("2018-01-01");
  }
  IcdConfig config;
  for (const std::vector<IcdDevice>& devices : c.platforms) {
    config.platforms.emplace_back().devices = devices;
  }
  UseTestIcd(machine, config);
  std::vector<std::string> args;
  if (c.withGpuIndex) {
    args = {"--gpu", "0"};
  }
  if (!c.black.empty()) {
    args.insert(args.end(), {"--blacklist", machine.WriteFile("black.xml", ListFileText("BlackList", c.black))});
  }
  if (!c.white.empty()) {
    args.insert(args.end(), {"--whitelist", machine.WriteFile("white.xml", ListFileText("WhiteList", c.white))});
  }

  const RunResult run = machine.RunGpuvet(args);

  const std::size_t nameAt = run.out.find("\n   ", run.out.find("Adapter: ")) + 4;
  const std::string adapterName = run.out.substr(nameAt, run.out.find(", device_id", nameAt) - nameAt);
  EXPECT_EQ(run.status, c.status) << run.out;
  EXPECT_THAT(run.out, EndsWith(std::regex_replace(c.tail, std::regex("%A"), adapterName)));
  EXPECT_THAT(run.out, HasSubstr("\ngpuvet begin\nnum_platforms: " + std::to_string(c.platforms.size()) + "\n"));
  EXPECT_EQ(run.err, "");
  EXPECT_FALSE(run.timedOut);
  if (c.tail != kTimeoutTail) {
    EXPECT_THAT(run.out, Not(HasSubstr("Timeout exit:")));
    EXPECT_TRUE(DeviceReferencesBalanced(ReadIcdCallLog(machine)));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Verdicts, VerdictTest,
    ::testing::Values(
        VerdictCase{"AdapterWithoutADriverIsOld", true, false, {{NvidiaDevice()}}, {}, {}, kStatusOldDriver,
                    Checked(TrimBlanks(NvidiaDevice().name)) + kOldTail},
        VerdictCase{"NoPlatformEndsAfterTheCount", true, false, {}, {}, {}, kStatusNoPlatform,
                    "\n\n\ngpuvet begin\nnum_platforms: 0\nno platform!\n"},
        VerdictCase{"NoFittingDeviceEndsBeforeTheLists", true, false, {{AmdDevice()}}, {AmdDevice()}, {AmdDevice()},
                    kStatusNoPlatform, Checked("") + kNoDeviceTail},
        // The vendor id is asked twice: once for its line, once for the key.
        VerdictCase{"DeviceWithAnUnreadableKeyGetsNoRow", true, false,
                    {{AmdDevice(), NvidiaWithFault({CL_DEVICE_VENDOR_ID, CL_OUT_OF_RESOURCES, 1})}}, {}, {},
                    kStatusNoPlatform,
                    "\t\tvender_id: 10de\n\t\topencl_c_version: OpenCL C 1.2 \n"
                    "\t\tdevice_extensions: cl_khr_fp64 cl_khr_icd\nexception: 0\n\n\n" + Checked("") + kNoDeviceTail},
        // Without a gpu index the check line names the adapter twice, and two
        // equal cards in two platforms are one row of the table.
        VerdictCase{"WithoutAnIndexTheWholeTableIsTested", false, true,
                    {{NvidiaDevice(), NvidiaDevice()}, {NvidiaDevice()}}, {AmdDevice()}, {}, kStatusOk,
                    Checked("%A") + "check before in black list start\ncheck_list: 1, black_list: 1. intersection: 0\n"
                                    "check before in black list end\n\n" + kOkTail},
        // The black list ends the test before the white list would miss on an old driver.
        VerdictCase{"BlackListHit", true, false, {{NvidiaDevice()}}, {NvidiaDevice()}, {AmdDevice()},
                    kStatusInBlackList, "check before in black list end\n\nin blacklist!\n"},
        VerdictCase{"WhiteListMiss", true, true, {{NvidiaDevice()}}, {}, {AmdDevice()}, kStatusNotInWhiteList,
                    kNotListedTail},
        VerdictCase{"WhiteListMissWithAnOldDriver", true, false, {{NvidiaDevice()}}, {}, {AmdDevice()},
                    kStatusNotInWhiteListOldDriver, kNotListedTail + "& " + kOldTail},
        // The watchdog ends a run held up in the census, wherever it stands; the
        // device answers far beyond the harness's own limit.
        VerdictCase{"RunHeldUpTimesOut", true, true, {{NvidiaWithFault({CL_DEVICE_NAME, CL_SUCCESS, 0, 300})}}, {},
                    {}, kStatusNotInWhiteList, kTimeoutTail}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace gpuvet::e2e
