// The OpenCL census through the real binary: platforms and devices from the
// project's test vendor, failures injected into chosen calls, and the real
// PoCL vendor and clinfo as peers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "fixture_machine.h"
#include "test_icd_config.h"

namespace gpuvet::e2e {
namespace {

using ::testing::Each;
using ::testing::Eq;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr int kStatusNoPlatform = 246;
constexpr int kStatusNoTest = 255;
constexpr const char* kPoclIcdFile = "/etc/OpenCL/vendors/pocl.icd";
constexpr const char* kClinfo = "/usr/bin/clinfo";

// The platform handle is an address; everything else of the output is fixed.
std::string WithoutHandles(const std::string& out) {
  static const std::regex handle(R"(platform\[(\d+), 0x[0-9a-f]+\])");
  return std::regex_replace(out, handle, "platform[$1, P]");
}

std::string CensusOnly(const FixtureMachine& machine, RunResult* result = nullptr) {
  RunResult run = machine.RunGpuvet({"--notest", "--details"});
  EXPECT_EQ(run.status, kStatusNoTest) << run.out << run.err;
  if (result != nullptr) {
    *result = run;
  }
  return WithoutHandles(run.out);
}

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

// The lines of one device, in the order the census asks for them.
std::vector<std::string> DeviceLines(int j, const IcdDevice& d) {
  char vendor[32];
  std::snprintf(vendor, sizeof vendor, "%04x", d.vendorId);
  return {"\t\t===" + std::to_string(j),
          "\t\tdevice_type: " + std::to_string(d.type),
          "\t\tdevice_name: " + d.name,
          "\t\tdevice_version: " + d.version,
          "\t\tdriver_version: " + d.driverVersion,
          std::string("\t\tvender_id: ") + vendor,
          "\t\topencl_c_version: " + d.openClCVersion,
          "\t\tdevice_extensions: " + d.extensions};
}

std::vector<std::string> PlatformLines(const IcdPlatform& p) {
  return {"\tprofile: " + p.profile,   "\tversion: " + p.version,     "\tname: " + p.name,
          "\tvender: " + p.vendor,     "\ticdkhr: " + p.icdSuffix, "\textension: " + p.extensions};
}

std::string Joined(const std::vector<std::string>& lines, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count && i < lines.size(); ++i) {
    text += lines[i] + "\n";
  }
  return text;
}

std::string Joined(const std::vector<std::string>& lines) {
  return Joined(lines, lines.size());
}

class CensusTest : public ::testing::Test {
 protected:
  void SetUp() override { GPUVET_REQUIRE_NAMESPACE(); }
  FixtureMachine machine_;
};

TEST_F(CensusTest, PrintsEveryPlatformAndDeviceInOrder) {
  IcdConfig config;
  IcdDevice second = Gpu("Radeon RX 480", 0x1002);
  second.version = "OpenCL 2.0 AMD-APP (2639.5)";
  second.driverVersion = "2639.5";
  second.openClCVersion = "OpenCL C 2.0 ";
  second.extensions = "cl_khr_icd cl_amd_fp64";
  config.platforms.push_back(PlatformWith({Gpu("GeForce GTX 1080"), second}));
  IcdDevice cpu = Gpu("Some CPU", 0x8086);
  cpu.type = CL_DEVICE_TYPE_CPU;
  IcdPlatform cpuOnly = PlatformWith({cpu}, "cpu platform");
  config.platforms.push_back(cpuOnly);
  IcdPlatform third = PlatformWith({Gpu("Intel(R) UHD Graphics 630", 0x8086)}, "third");
  third.version = "OpenCL 1.2";
  third.icdSuffix = "INTEL";
  third.extensions = "cl_khr_icd cl_khr_d3d10_sharing";
  config.platforms.push_back(third);
  UseTestIcd(machine_, config);

  const std::string out = CensusOnly(machine_);

  EXPECT_EQ(out,
            "\n--details\n"
            "\n===0=============\n"
            "\nplatform[0, P], GPU Device(s) cnt = 2\n"
            "\tprofile: FULL_PROFILE\n"
            "\tversion: OpenCL 3.0 Test\n"
            "\tname: gpuvet test platform\n"
            "\tvender: gpuvet tests\n"
            "\ticdkhr: TEST\n"
            "\textension: cl_khr_icd\n"
            "\t\t===0\n"
            "\t\tdevice_type: 4\n"
            "\t\tdevice_name: GeForce GTX 1080\n"
            "\t\tdevice_version: OpenCL 3.0 TEST 1.0\n"
            "\t\tdriver_version: 100.1\n"
            "\t\tvender_id: 10de\n"
            "\t\topencl_c_version: OpenCL C 1.2\n"
            "\t\tdevice_extensions: cl_khr_fp64 cl_khr_icd\n"
            "\t\t===1\n"
            "\t\tdevice_type: 4\n"
            "\t\tdevice_name: Radeon RX 480\n"
            "\t\tdevice_version: OpenCL 2.0 AMD-APP (2639.5)\n"
            "\t\tdriver_version: 2639.5\n"
            "\t\tvender_id: 1002\n"
            "\t\topencl_c_version: OpenCL C 2.0 \n"
            "\t\tdevice_extensions: cl_khr_icd cl_amd_fp64\n"
            "exception: 1\n"
            "\n===2=============\n"
            "\nplatform[2, P], GPU Device(s) cnt = 1\n"
            "\tprofile: FULL_PROFILE\n"
            "\tversion: OpenCL 1.2\n"
            "\tname: third\n"
            "\tvender: gpuvet tests\n"
            "\ticdkhr: INTEL\n"
            "\textension: cl_khr_icd cl_khr_d3d10_sharing\n"
            "\t\t===0\n"
            "\t\tdevice_type: 4\n"
            "\t\tdevice_name: Intel(R) UHD Graphics 630\n"
            "\t\tdevice_version: OpenCL 3.0 TEST 1.0\n"
            "\t\tdriver_version: 100.1\n"
            "\t\tvender_id: 8086\n"
            "\t\topencl_c_version: OpenCL C 1.2\n"
            "\t\tdevice_extensions: cl_khr_fp64 cl_khr_icd\n"
            "\n\n"
            "no test!\n");

  // The loader's own queries at load time are not in the log: it starts with the census's first call.
  const std::vector<IcdCall> calls = ReadIcdCallLog(machine_);
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.front().function, "clGetDeviceIDs");
  // Every device handle the census held went back to where it started.
  const std::map<unsigned, int> changes = DeviceReferenceChanges(calls);
  EXPECT_EQ(CountCalls(calls, "clRetainDevice"), 3u);
  EXPECT_THAT(changes, Each(::testing::Pair(::testing::_, 0)));
  EXPECT_EQ(CountCalls(calls, "clCreateContext"), 0u);
}

TEST_F(CensusTest, AFailingPlatformQueryKeepsItsEarlierLinesAndEndsTheTurn) {
  // The loader asks for the extensions and the ICD suffix itself while it
  // loads the vendor; the failure must still reach the census.
  const uint32_t queries[] = {CL_PLATFORM_PROFILE, CL_PLATFORM_VERSION,        CL_PLATFORM_NAME,
                              CL_PLATFORM_VENDOR,  CL_PLATFORM_ICD_SUFFIX_KHR, CL_PLATFORM_EXTENSIONS};
  for (std::size_t failing = 0; failing < std::size(queries); ++failing) {
    FixtureMachine machine;
    IcdConfig config;
    config.platforms.push_back(PlatformWith({Gpu("first")}));
    config.platforms[0].faults.push_back({queries[failing], CL_OUT_OF_HOST_MEMORY});
    config.platforms.push_back(PlatformWith({Gpu("second")}, "next"));
    UseTestIcd(machine, config);

    const std::string out = CensusOnly(machine);

    const std::string expected = "\n--details\n\n===0=============\n\nplatform[0, P], GPU Device(s) cnt = 1\n" +
                                 Joined(PlatformLines(config.platforms[0]), failing) + "exception: 0\n" +
                                 "\n===1=============\n\nplatform[1, P], GPU Device(s) cnt = 1\n" +
                                 Joined(PlatformLines(config.platforms[1])) +
                                 Joined(DeviceLines(0, config.platforms[1].devices[0])) + "\n\nno test!\n";
    EXPECT_EQ(out, expected) << "query " << failing;
    EXPECT_THAT(DeviceReferenceChanges(ReadIcdCallLog(machine)), Each(::testing::Pair(::testing::_, 0)));
  }
}

TEST_F(CensusTest, AFailingDeviceQueryEndsThePlatformAfterItsEarlierDevices) {
  IcdConfig config;
  config.platforms.push_back(PlatformWith({Gpu("zero"), Gpu("one"), Gpu("two")}));
  config.platforms[0].devices[1].faults.push_back({CL_DEVICE_EXTENSIONS, CL_INVALID_DEVICE});
  config.platforms.push_back(PlatformWith({Gpu("other")}, "next"));
  UseTestIcd(machine_, config);

  const std::string out = CensusOnly(machine_);

  const IcdPlatform& first = config.platforms[0];
  const std::string expected = "\n--details\n\n===0=============\n\nplatform[0, P], GPU Device(s) cnt = 3\n" +
                               Joined(PlatformLines(first)) + Joined(DeviceLines(0, first.devices[0])) +
                               Joined(DeviceLines(1, first.devices[1]), 7) + "exception: 0\n" +
                               "\n===1=============\n\nplatform[1, P], GPU Device(s) cnt = 1\n" +
                               Joined(PlatformLines(config.platforms[1])) +
                               Joined(DeviceLines(0, config.platforms[1].devices[0])) + "\n\nno test!\n";
  EXPECT_EQ(out, expected);
  // Device "two" was never visited; all three were released with the list.
  const std::vector<IcdCall> calls = ReadIcdCallLog(machine_);
  for (const IcdCall& call : calls) {
    if (call.function == "clGetDeviceInfo") {
      EXPECT_NE(call.fields.at("device"), "2") << call.line;
    }
  }
  const std::map<unsigned, int> changes = DeviceReferenceChanges(calls);
  EXPECT_EQ(changes.size(), 4u);
  EXPECT_THAT(changes, Each(::testing::Pair(::testing::_, 0)));
}

TEST_F(CensusTest, AFailingDeviceListShowsOnlyTheExceptionLine) {
  // Either call of the list may fail; CL_DEVICE_NOT_FOUND is a platform without a GPU.
  const IcdFault faults[] = {{0, CL_DEVICE_NOT_FOUND, 0, 0}, {0, CL_OUT_OF_RESOURCES, 1, 0}};
  for (const IcdFault& fault : faults) {
    FixtureMachine machine;
    IcdConfig config;
    config.platforms.push_back(PlatformWith({Gpu("hidden")}));
    config.platforms[0].deviceIdsFaults.push_back(fault);
    config.platforms.push_back(PlatformWith({Gpu("seen")}, "next"));
    UseTestIcd(machine, config);

    const std::string out = CensusOnly(machine);

    EXPECT_EQ(out, "\n--details\nexception: 0\n\n===1=============\n\nplatform[1, P], GPU Device(s) cnt = 1\n" +
                       Joined(PlatformLines(config.platforms[1])) +
                       Joined(DeviceLines(0, config.platforms[1].devices[0])) + "\n\nno test!\n")
        << "skip " << fault.skip;
  }
}

TEST_F(CensusTest, EveryPlatformFailingStillClosesTheBlock) {
  IcdConfig config;
  IcdDevice cpu = Gpu("cpu");
  cpu.type = CL_DEVICE_TYPE_CPU;
  config.platforms.push_back(PlatformWith({cpu}));
  config.platforms.push_back(PlatformWith({}));
  UseTestIcd(machine_, config);

  EXPECT_EQ(CensusOnly(machine_), "\n--details\nexception: 0\nexception: 1\n\n\nno test!\n");
}

TEST_F(CensusTest, TextValuesPrintAsOpenClGivesThemUpToTheFirstNul) {
  IcdConfig config;
  IcdDevice blanks = Gpu("  GeForce  GTX ", 0x1);
  blanks.driverVersion = std::string("535.1\0hidden", 12);
  blanks.extensions = "\tcl_khr_fp64\t";
  IcdDevice wide = Gpu("wide", 0x12345);
  IcdDevice empty = Gpu("", 0x8086);
  config.platforms.push_back(PlatformWith({blanks, wide, empty}));
  config.platforms[0].vendor = std::string(" vendor\0cut off ", 16);
  UseTestIcd(machine_, config);

  const std::string out = CensusOnly(machine_);

  EXPECT_THAT(out, HasSubstr("\tvender:  vendor\n"));
  EXPECT_THAT(out, HasSubstr("\t\tdevice_name:   GeForce  GTX \n"));
  EXPECT_THAT(out, HasSubstr("\t\tdriver_version: 535.1\n"));
  EXPECT_THAT(out, HasSubstr("\t\tdevice_extensions: \tcl_khr_fp64\t\n"));
  EXPECT_THAT(out, HasSubstr("\t\tvender_id: 0001\n"));
  EXPECT_THAT(out, HasSubstr("\t\tvender_id: 12345\n"));
  EXPECT_THAT(out, HasSubstr("\t\tvender_id: 8086\n\t\topencl_c_version"));
  EXPECT_THAT(out, HasSubstr("\t\tdevice_name: \n"));
  EXPECT_THAT(out, Not(HasSubstr("hidden")));
  EXPECT_THAT(out, Not(HasSubstr("cut off")));
}

TEST_F(CensusTest, EachDetailsOptionPrintsTheBlockAgain) {
  IcdConfig config;
  config.platforms.push_back(PlatformWith({Gpu("GeForce"), Gpu("GeForce")}));
  UseTestIcd(machine_, config);

  const RunResult run = machine_.RunGpuvet({"--details", "--details", "--notest"});

  const std::string block = "\n--details\n\n===0=============\n\nplatform[0, P], GPU Device(s) cnt = 2\n" +
                            Joined(PlatformLines(config.platforms[0])) +
                            Joined(DeviceLines(0, config.platforms[0].devices[0])) +
                            Joined(DeviceLines(1, config.platforms[0].devices[1])) + "\n\n";
  EXPECT_EQ(WithoutHandles(run.out), block + block + "no test!\n");
  EXPECT_EQ(run.status, kStatusNoTest);
  EXPECT_EQ(CountCalls(ReadIcdCallLog(machine_), "clRetainDevice"), 4u);
  EXPECT_THAT(DeviceReferenceChanges(ReadIcdCallLog(machine_)), Each(::testing::Pair(::testing::_, 0)));
}

TEST_F(CensusTest, NoVendorAtAllEndsTheDetailsInAnOrderlyWay) {
  // A vendor that offers no platform is dropped by the loader, the same as none.
  for (const bool withEmptyVendor : {false, true}) {
    FixtureMachine machine;
    if (withEmptyVendor) {
      IcdConfig config;
      config.platforms.push_back(PlatformWith({Gpu("never seen")}));
      config.platformListCode = CL_OUT_OF_HOST_MEMORY;
      UseTestIcd(machine, config);
    }
    const RunResult run = machine.RunGpuvet({"--notest", "--details"});
    EXPECT_EQ(run.out, "\n--details\nno platform!\n");
    EXPECT_EQ(run.status, kStatusNoPlatform);
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(ReadIcdCallLog(machine).empty());
  }
}

// clinfo --raw prints "[SUFFIX/N]    NAME<padding>VALUE"; the value starts at a
// fixed column behind the name, so blanks at its front survive.
constexpr std::size_t kClinfoValueColumn = 48;

std::map<std::string, std::string> ClinfoRawValues(const std::string& out, const std::string& prefix) {
  std::map<std::string, std::string> values;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(prefix, 0) != 0) {
      continue;
    }
    const std::size_t nameStart = line.find_first_not_of(' ', prefix.size());
    if (nameStart == std::string::npos) {
      continue;
    }
    const std::size_t nameEnd = line.find(' ', nameStart);
    const std::size_t valueStart = nameStart + kClinfoValueColumn;
    if (nameEnd == std::string::npos || valueStart > line.size()) {
      continue;
    }
    values[line.substr(nameStart, nameEnd - nameStart)] = line.substr(valueStart);
  }
  return values;
}

std::string CensusValue(const std::string& out, const std::string& label) {
  const std::size_t at = out.find(label);
  if (at == std::string::npos) {
    return "<missing " + label + ">";
  }
  const std::size_t start = at + label.size();
  return out.substr(start, out.find('\n', start) - start);
}

TEST_F(CensusTest, DeviceValuesEqualWhatClinfoShows) {
  IcdConfig config;
  IcdDevice device = Gpu(" GeForce RTX 3060 ", 0x10de);
  device.version = "OpenCL 3.0 CUDA";
  device.driverVersion = "535.183.01";
  device.openClCVersion = "OpenCL C 1.2 ";
  device.extensions = "cl_khr_global_int32_base_atomics cl_khr_fp64 cl_khr_icd";
  config.platforms.push_back(PlatformWith({device}));
  config.platforms[0].icdSuffix = "NV";
  UseTestIcd(machine_, config);

  const std::string census = CensusOnly(machine_);
  const RunResult clinfo = machine_.Run({kClinfo, "--raw"});
  ASSERT_EQ(clinfo.status, 0) << clinfo.err;
  const std::map<std::string, std::string> shown = ClinfoRawValues(clinfo.out, "[NV/0]");

  EXPECT_EQ(CensusValue(census, "\t\tdevice_name: "), shown.at("CL_DEVICE_NAME"));
  EXPECT_EQ(CensusValue(census, "\t\tdevice_version: "), shown.at("CL_DEVICE_VERSION"));
  EXPECT_EQ(CensusValue(census, "\t\tdriver_version: "), shown.at("CL_DRIVER_VERSION"));
  EXPECT_EQ(CensusValue(census, "\t\topencl_c_version: "), shown.at("CL_DEVICE_OPENCL_C_VERSION"));
  EXPECT_EQ(CensusValue(census, "\t\tdevice_extensions: "), shown.at("CL_DEVICE_EXTENSIONS"));
  EXPECT_EQ("0x" + CensusValue(census, "\t\tvender_id: "), shown.at("CL_DEVICE_VENDOR_ID"));
  EXPECT_EQ(CensusValue(census, "\t\tdevice_type: "), "4");
  EXPECT_EQ(shown.at("CL_DEVICE_TYPE"), "CL_DEVICE_TYPE_GPU");
}

// The library path that the system's PoCL registration names.
std::string PoclLibrary() {
  std::ifstream icd(kPoclIcdFile);
  std::string library;
  std::getline(icd, library);
  return library;
}

TEST_F(CensusTest, PoclShowsItsPlatformAndNoGpu) {
  const std::string library = PoclLibrary();
  if (library.empty()) {
    GTEST_SKIP() << "PoCL is not installed (" << kPoclIcdFile << ")";
  }
  machine_.AddOpenClVendor("pocl", library);
  machine_.SetEnv("OCL_ICD_PLATFORM_SORT", "none");

  const std::string census = CensusOnly(machine_);
  const RunResult clinfo = machine_.Run({kClinfo, "--raw"});
  ASSERT_EQ(clinfo.status, 0) << clinfo.err;
  const std::map<std::string, std::string> shown = ClinfoRawValues(clinfo.out, "");

  // No GPU: the platform's turn fails before its header, so clinfo is the
  // only one to show its values; the census shows the failure.
  EXPECT_EQ(census, "\n--details\nexception: 0\n\n\nno test!\n");
  EXPECT_THAT(shown.at("CL_PLATFORM_NAME"), Not(Eq("")));
}

}  // namespace
}  // namespace gpuvet::e2e
