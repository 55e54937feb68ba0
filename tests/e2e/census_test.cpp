// The OpenCL census through the real binary: platforms and devices from the
// project's test vendor, failures injected into chosen calls, and the real
// PoCL vendor and clinfo as peers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "e2e_support.h"

namespace gpuvet::e2e {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kClinfo = "/usr/bin/clinfo";

// The platform handle is an address; everything else of the output is fixed.
std::string WithoutHandles(const std::string& out) {
  static const std::regex handle(R"(platform\[(\d+), 0x[0-9a-f]+\])");
  return std::regex_replace(out, handle, "platform[$1, P]");
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

// What the turn of platform i prints when nothing fails, or its first pieces
// only: its header, then one piece per line, in the order of the queries.
std::string Turn(int i, const IcdPlatform& p, std::size_t pieceCount = std::string::npos) {
  std::vector<std::string> pieces = {
      "\n===" + std::to_string(i) + "=============\n\nplatform[" + std::to_string(i) +
          ", P], GPU Device(s) cnt = " + std::to_string(p.devices.size()) + "\n",
      "\tprofile: " + p.profile + "\n", "\tversion: " + p.version + "\n",      "\tname: " + p.name + "\n",
      "\tvender: " + p.vendor + "\n",   "\ticdkhr: " + p.icdSuffix + "\n", "\textension: " + p.extensions + "\n"};
  for (std::size_t j = 0; j < p.devices.size(); ++j) {
    const IcdDevice& d = p.devices[j];
    char vendor[16];
    std::snprintf(vendor, sizeof vendor, "%04x", d.vendorId);
    pieces.insert(pieces.end(), {"\t\t===" + std::to_string(j) + "\n", "\t\tdevice_type: " + std::to_string(d.type) + "\n",
                                 "\t\tdevice_name: " + d.name + "\n", "\t\tdevice_version: " + d.version + "\n",
                                 "\t\tdriver_version: " + d.driverVersion + "\n",
                                 std::string("\t\tvender_id: ") + vendor + "\n",
                                 "\t\topencl_c_version: " + d.openClCVersion + "\n",
                                 "\t\tdevice_extensions: " + d.extensions + "\n"});
  }
  std::string text;
  for (std::size_t k = 0; k < pieces.size() && k < pieceCount; ++k) {
    text += pieces[k];
  }
  return text;
}

class CensusTest : public ::testing::Test {
 protected:
  void SetUp() override { GPUVET_REQUIRE_NAMESPACE(); }

  std::string Census() {
    const RunResult run = machine_.RunGpuvet({"--notest", "--details"});
    EXPECT_EQ(run.status, kStatusNoTest) << run.out << run.err;
    return WithoutHandles(run.out);
  }

  FixtureMachine machine_;
};

// Each --details prints the whole block again.
TEST_F(CensusTest, PrintsEveryPlatformAndDeviceInOrder) {
  IcdDevice amd = Gpu("Radeon RX 480", 0x1002);
  amd.version = "OpenCL 2.0 AMD-APP (2639.5)";
  amd.driverVersion = "2639.5";
  amd.openClCVersion = "OpenCL C 2.0 ";
  amd.extensions = "cl_khr_icd cl_amd_fp64";
  IcdDevice cpu = Gpu("Some CPU", 0x8086);
  cpu.type = CL_DEVICE_TYPE_CPU;
  IcdPlatform third = PlatformWith({Gpu("Intel(R) UHD Graphics 630", 0x8086), Gpu("GeForce GTX 1080")}, "third");
  third.version = "OpenCL 1.2";
  third.icdSuffix = "INTEL";
  third.extensions = "cl_khr_icd cl_khr_d3d10_sharing";
  IcdConfig config;
  config.platforms = {PlatformWith({amd}), PlatformWith({cpu}, "cpu platform"), third};
  UseTestIcd(machine_, config);

  const RunResult run = machine_.RunGpuvet({"--details", "--details", "--notest"});

  // The platform without a GPU shows only its exception line, and counts.
  const std::string block =
      "\n--details\n"
      "\n===0=============\n"
      "\nplatform[0, P], GPU Device(s) cnt = 1\n"
      "\tprofile: FULL_PROFILE\n"
      "\tversion: OpenCL 3.0 Test\n"
      "\tname: gpuvet test platform\n"
      "\tvender: gpuvet tests\n"
      "\ticdkhr: TEST\n"
      "\textension: cl_khr_icd\n"
      "\t\t===0\n"
      "\t\tdevice_type: 4\n"
      "\t\tdevice_name: Radeon RX 480\n"
      "\t\tdevice_version: OpenCL 2.0 AMD-APP (2639.5)\n"
      "\t\tdriver_version: 2639.5\n"
      "\t\tvender_id: 1002\n"
      "\t\topencl_c_version: OpenCL C 2.0 \n"
      "\t\tdevice_extensions: cl_khr_icd cl_amd_fp64\n"
      "exception: 1\n" +
      Turn(2, third) + "\n\n";
  EXPECT_EQ(WithoutHandles(run.out), block + block + "no test!\n");
  EXPECT_EQ(run.status, kStatusNoTest);

  // The loader's own queries at load time are not in the log: it starts with the census's own first call.
  const std::vector<std::string> calls = ReadIcdCallLog(machine_);
  ASSERT_FALSE(calls.empty());
  EXPECT_THAT(calls.front(), StartsWith("clGetDeviceIDs "));
  EXPECT_EQ(CountCalls(calls, "clRetainDevice"), 6u);
  EXPECT_TRUE(DeviceReferencesBalanced(calls));
  EXPECT_EQ(CountCalls(calls, "clCreateContext"), 0u);
}

// A failure in the first of two platforms: its turn keeps the lines printed so
// far and ends with its exception line; the next platform's turn is whole.
struct FaultCase {
  const char* name;
  enum { kPlatformQuery, kDeviceList, kSecondDevice } where;
  IcdFault fault;
  std::size_t piecesShown;  // of the failing turn, as Turn counts them
};

void PrintTo(const FaultCase& faultCase, std::ostream* out) {
  *out << faultCase.name;
}

class CensusFaultTest : public CensusTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(CensusFaultTest, EndsTheTurnOfThePlatform) {
  const FaultCase& param = GetParam();
  IcdConfig config;
  config.platforms.push_back(PlatformWith({Gpu("zero"), Gpu("one"), Gpu("two")}));
  config.platforms.push_back(PlatformWith({Gpu("other")}, "next"));
  IcdPlatform& failing = config.platforms[0];
  (param.where == FaultCase::kPlatformQuery ? failing.faults
   : param.where == FaultCase::kDeviceList  ? failing.deviceIdsFaults
                                            : failing.devices[1].faults)
      .push_back(param.fault);
  UseTestIcd(machine_, config);

  EXPECT_EQ(Census(), "\n--details\n" + Turn(0, failing, param.piecesShown) + "exception: 0\n" +
                          Turn(1, config.platforms[1]) + "\n\nno test!\n");

  const std::vector<std::string> calls = ReadIcdCallLog(machine_);
  for (const std::string& call : calls) {
    EXPECT_THAT(call, Not(StartsWith("clGetDeviceInfo device=2 "))) << "a device after the failing one was visited";
  }
  EXPECT_TRUE(DeviceReferencesBalanced(calls));
}

// The loader asks for the extensions and the ICD suffix itself while it loads
// the vendor; a failure of the census's own query must still reach the census.
INSTANTIATE_TEST_SUITE_P(
    Faults, CensusFaultTest,
    ::testing::Values(FaultCase{"Profile", FaultCase::kPlatformQuery, {CL_PLATFORM_PROFILE}, 1},
                      FaultCase{"Version", FaultCase::kPlatformQuery, {CL_PLATFORM_VERSION}, 2},
                      FaultCase{"Name", FaultCase::kPlatformQuery, {CL_PLATFORM_NAME}, 3},
                      FaultCase{"Vendor", FaultCase::kPlatformQuery, {CL_PLATFORM_VENDOR}, 4},
                      FaultCase{"IcdSuffix", FaultCase::kPlatformQuery, {CL_PLATFORM_ICD_SUFFIX_KHR}, 5},
                      FaultCase{"Extensions", FaultCase::kPlatformQuery, {CL_PLATFORM_EXTENSIONS}, 6},
                      FaultCase{"DeviceCount", FaultCase::kDeviceList, {0, CL_DEVICE_NOT_FOUND}, 0},
                      FaultCase{"DeviceIds", FaultCase::kDeviceList, {0, CL_OUT_OF_RESOURCES, 1}, 0},
                      // The second device printed seven of its eight lines.
                      FaultCase{"SecondDeviceExtensions", FaultCase::kSecondDevice, {CL_DEVICE_EXTENSIONS}, 22}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(CensusTest, TextValuesPrintAsOpenClGivesThemUpToTheFirstNul) {
  IcdDevice blanks = Gpu("  GeForce  GTX ", 0x1);
  blanks.driverVersion = std::string("535.1\0hidden", 12);
  blanks.extensions = "\tcl_khr_fp64\t";
  IcdConfig config;
  config.platforms.push_back(PlatformWith({blanks, Gpu("wide", 0x12345), Gpu("", 0x8086)}));
  config.platforms[0].vendor = std::string(" vendor\0cut off ", 16);
  UseTestIcd(machine_, config);

  IcdPlatform shown = config.platforms[0];  // blanks kept, texts cut at the first NUL
  shown.vendor = " vendor";
  shown.devices[0].driverVersion = "535.1";

  const std::string out = Census();

  EXPECT_EQ(out, "\n--details\n" + Turn(0, shown) + "\n\nno test!\n");
  EXPECT_THAT(out, AllOf(HasSubstr("\t\tvender_id: 0001\n"), HasSubstr("\t\tvender_id: 12345\n")));
}

TEST_F(CensusTest, NoVendorAtAllEndsTheDetailsInAnOrderlyWay) {
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

TEST_F(CensusTest, DeviceValuesEqualWhatClinfoShows) {
  IcdDevice device = NvidiaDevice();
  device.extensions = "cl_khr_global_int32_base_atomics cl_khr_fp64 cl_khr_icd";
  IcdConfig config;
  config.platforms.push_back(PlatformWith({device}));
  config.platforms[0].icdSuffix = "NV";
  UseTestIcd(machine_, config);

  const std::string census = Census();
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
  EXPECT_THAT(census, HasSubstr("\t\tdevice_type: 4\n"));
  EXPECT_EQ(ClinfoRawValue(clinfo.out, "CL_DEVICE_TYPE"), "CL_DEVICE_TYPE_GPU");
}

TEST_F(CensusTest, PoclShowsItsPlatformAndNoGpu) {
  constexpr const char* kPoclIcdFile = "/etc/OpenCL/vendors/pocl.icd";
  std::string library;
  std::getline(std::ifstream(kPoclIcdFile), library);
  if (library.empty()) {
    GTEST_SKIP() << "PoCL is not installed (" << kPoclIcdFile << ")";
  }
  machine_.AddOpenClVendor("pocl", library);

  // PoCL has a platform (clinfo shows it) but no GPU: its turn fails before its header.
  EXPECT_EQ(Census(), "\n--details\nexception: 0\n\n\nno test!\n");
  EXPECT_THAT(machine_.Run({kClinfo, "--raw"}).out, HasSubstr("CL_PLATFORM_NAME"));
}

}  // namespace
}  // namespace gpuvet::e2e
