// gpuvet-lists on fixture machines with the project's test vendor: what items
// prints goes through gpuvet both ways, and explain ends with gpuvet's status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "e2e_support.h"

namespace gpuvet::e2e {
namespace {

using ::testing::HasSubstr;

IcdDevice AmdDevice() {
  IcdDevice device = NvidiaDevice();
  device.vendorId = 0x1002;
  device.name = "Radeon & <Pro> -- W";  // markup and a comment's end in a name
  return device;
}

// A vendor without a PCI id: its vendor id is one that Khronos assigns.
IcdDevice KhronosVendorDevice() {
  IcdDevice device = NvidiaDevice();
  device.vendorId = 0x10006;
  device.name = "cpu-haswell";
  return device;
}

class ListsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    GPUVET_REQUIRE_NAMESPACE();
    machine_.AddPciDevice(kNvidiaAdapter);
  }
  void DriverDated(const std::string& date) {
    machine_.BindModuleDriver(kNvidiaAdapter.address, "nvidia", "535.183.01");
    machine_.SetKernelBuildDate(date);
  }
  void Devices(const std::vector<IcdDevice>& devices) {
    IcdConfig config;
    if (!devices.empty()) {
      config.platforms.emplace_back().devices = devices;
    }
    UseTestIcd(machine_, config);
  }
  RunResult Lists(std::vector<std::string> args) const {
    args.insert(args.begin(), GpuvetListsBinary());
    return machine_.Run(args);
  }
  FixtureMachine machine_;
};

TEST_F(ListsTest, ItemsRoundTripThroughBothLists) {
  DriverDated("2018-01-01");
  Devices({NvidiaDevice(), AmdDevice(), KhronosVendorDevice()});
  for (const bool withGpu : {true, false}) {
    const std::vector<std::string> gpu = withGpu ? std::vector<std::string>{"--gpu", "0"} : std::vector<std::string>{};
    for (const auto& [kind, option, status] : {std::tuple{"--black", "--blacklist", kStatusInBlackList},
                                               std::tuple{"--white", "--whitelist", kStatusOk}}) {
      std::vector<std::string> args = {"items", kind};
      args.insert(args.end(), gpu.begin(), gpu.end());
      const RunResult items = Lists(args);
      SCOPED_TRACE(items.out);
      ASSERT_EQ(items.status, 0) << items.err;
      EXPECT_EQ(items.out.find("-->\n  <Item>"), std::string::npos) << "a comment between items";
      EXPECT_THAT(items.out, HasSubstr("adapter 0"));
      const std::string list = machine_.WriteFile("items.xml", items.out);
      EXPECT_EQ(Lists({"lint", kind, list}).status, 0) << Lists({"lint", kind, list}).out;
      std::vector<std::string> gpuvet = {option, list};
      gpuvet.insert(gpuvet.end(), gpu.begin(), gpu.end());
      EXPECT_EQ(machine_.RunGpuvet(gpuvet).status, status);
    }
  }
}

TEST_F(ListsTest, ItemsFindNothingWithoutADevice) {
  Devices({});
  EXPECT_EQ(Lists({"items"}).status, 1);
  EXPECT_EQ(Lists({"items", "--gpu", "3"}).status, 1);
}

struct ExplainCase {
  const char* name;
  std::string driverDate;  // "": the driver lookup fails and the date is "2012"
  std::vector<IcdDevice> devices, black, white;
  std::vector<std::string> args;
  int status;
  std::string says;
  std::string alsoSays = "";
};

void PrintTo(const ExplainCase& explainCase, std::ostream* out) { *out << explainCase.name; }

class ExplainTest : public ListsTest, public ::testing::WithParamInterface<ExplainCase> {};

TEST_P(ExplainTest, EndsWithGpuvetsStatus) {
  const ExplainCase& param = GetParam();
  if (!param.driverDate.empty()) {
    DriverDated(param.driverDate);
  }
  Devices(param.devices);
  std::vector<std::string> args = param.args;
  if (!param.black.empty()) {
    args.insert(args.end(), {"--blacklist", machine_.WriteFile("black.xml", ListFileText("BlackList", param.black))});
  }
  if (!param.white.empty()) {
    args.insert(args.end(), {"--whitelist", machine_.WriteFile("white.xml", ListFileText("WhiteList", param.white))});
  }
  std::vector<std::string> explain = args;
  explain.insert(explain.begin(), "explain");

  const RunResult explained = Lists(explain);
  const RunResult gpuvet = machine_.RunGpuvet(args);

  EXPECT_EQ(gpuvet.status, param.status) << gpuvet.out;
  EXPECT_EQ(explained.status, gpuvet.status) << explained.out;
  EXPECT_THAT(explained.out, HasSubstr(param.says));
  EXPECT_THAT(explained.out, HasSubstr(param.alsoSays));
  EXPECT_EQ(explained.out.find("gpuvet begin"), std::string::npos) << "gpuvet's log in the explanation";
}

const std::vector<std::string> kGpu0 = {"--gpu", "0"};

IcdDevice Nvidia(const std::string& driverVersion) {
  IcdDevice device = NvidiaDevice();
  device.driverVersion = driverVersion;
  return device;
}

IcdDevice CaseOf(IcdDevice device) {
  device.name = "nvidia geforce gtx 1080";
  return device;
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, ExplainTest,
    ::testing::Values(
        ExplainCase{"BlackListHit", "", {NvidiaDevice()}, {NvidiaDevice()}, {AmdDevice()}, kGpu0, kStatusInBlackList,
                    "black.xml:2: lists"},
        ExplainCase{"BlackListMissNamesTheField", "2018-01-01", {NvidiaDevice()}, {Nvidia("535.183.02")}, {},
                    kGpu0, kStatusOk, "differs first in DriverVersion: item \"535.183.02\", device \"535.183.01\""},
        ExplainCase{"WhiteListMissByteOrder", "2018-01-01", {NvidiaDevice()}, {}, {Nvidia("9.0")}, kGpu0,
                    kStatusNotInWhiteList, "\"535.183.01\" of the device is below \"9.0\", compared byte by byte: "
                                           "byte 1: \"5\" is below \"9\""},
        ExplainCase{"WhiteListMissOnCase", "", {NvidiaDevice()}, {}, {CaseOf(NvidiaDevice())}, {},
                    kStatusNotInWhiteListOldDriver, "differs in case", "white list: miss: the device is not admitted"},
        ExplainCase{"OldDriver", "2017-12-31", {NvidiaDevice()}, {}, {NvidiaDevice()}, kGpu0, kStatusOldDriver,
                    "driver date: old"},
        ExplainCase{"Passes", "2018-01-01", {NvidiaDevice()}, {AmdDevice()}, {NvidiaDevice()}, {}, kStatusOk,
                    "white.xml:2: admits it"},
        ExplainCase{"NoPlatform", "", {}, {}, {}, kGpu0, kStatusNoPlatform, "no OpenCL platform"},
        ExplainCase{"NoFittingDevice", "", {AmdDevice()}, {}, {}, kGpu0, kStatusNoPlatform,
                    "no OpenCL GPU device fits"},
        ExplainCase{"NoSuchAdapter", "", {NvidiaDevice()}, {}, {}, {"--gpu", "4"}, kStatusNoPlatform,
                    "adapter: none selected"}),
    [](const auto& info) { return std::string(info.param.name); });

// explain reads gpuvet's command line with gpuvet's own pass: each form means
// what it means to gpuvet and ends with gpuvet's status. "W" stands for a white
// list that refuses the machine's device.
struct CommandLineForm {
  const char* name;
  std::vector<std::string> args;
  int status;
  std::string says;
};

void PrintTo(const CommandLineForm& form, std::ostream* out) { *out << form.name; }

class ExplainCommandLineTest : public ListsTest, public ::testing::WithParamInterface<CommandLineForm> {};

TEST_P(ExplainCommandLineTest, MeansWhatItMeansToGpuvet) {
  DriverDated("2018-01-01");
  Devices({NvidiaDevice()});
  const std::string white = machine_.WriteFile("white.xml", ListFileText("WhiteList", {AmdDevice()}));
  const CommandLineForm& form = GetParam();
  std::vector<std::string> args = form.args;
  std::replace(args.begin(), args.end(), std::string("W"), white);
  std::vector<std::string> explain = args;
  explain.insert(explain.begin(), "explain");
  const RunResult explained = Lists(explain);
  EXPECT_EQ(machine_.RunGpuvet(args).status, form.status);
  EXPECT_EQ(explained.status, form.status) << explained.out << explained.err;
  EXPECT_THAT(explained.out, HasSubstr(form.says));
}

INSTANTIATE_TEST_SUITE_P(
    Forms, ExplainCommandLineTest,
    ::testing::Values(
        CommandLineForm{"OptionsInAnyCase", {"--GPU", "0", "--WhiteList", "W"}, kStatusNotInWhiteList,
                        "command line: adapter 0"},
        CommandLineForm{"NoWhiteList", {"--gpu", "0"}, kStatusOk, "white list: no --whitelist"},
        CommandLineForm{"OptionAsTheBlackList", {"--blacklist", "--whitelist", "W", "--gpu", "0"},
                        kStatusNotInWhiteList, "black list \"--whitelist\""},
        CommandLineForm{"OptionAsTheWhiteList", {"--whitelist", "--blacklist", "W", "--gpu", "0"},
                        kStatusNotInWhiteList, "white list \"--blacklist\""},
        CommandLineForm{"HelpFirst", {"--help", "--gpu", "0", "--whitelist", "W"}, kStatusNotInWhiteList,
                        "--help: gpuvet prints its usage"},
        CommandLineForm{"Details", {"--details", "--gpu", "0"}, kStatusOk,
                        "--details: gpuvet prints the OpenCL census"},
        CommandLineForm{"ValueOptionLast", {"--gpu", "0", "--result"}, kStatusInvalidParameter,
                        "_invalid_parameter"},
        CommandLineForm{"HelpThenValueOptionLast", {"--help", "--whitelist"}, kStatusInvalidParameter,
                        "_invalid_parameter"},
        CommandLineForm{"PathTooLong", {"--gpu", "0", "--blacklist", std::string(2048, 'b')},
                        kStatusInvalidParameter, "longer than 2047 bytes"},
        CommandLineForm{"NoTest", {"--notest", "--gpu", "0"}, kStatusNoTest, "--notest: nothing is tested"},
        CommandLineForm{"RecheckTakesTheNextElement", {"--whitelist", "W", "--recheck", "--gpu", "0"},
                        kStatusNotInWhiteList, "command line: no adapter named"},
        CommandLineForm{"ValueAfterAnEqualsSign", {"--gpu=0", "--whitelist", "W"}, kStatusNotInWhiteList,
                        "no adapter named"},
        CommandLineForm{"IndexNotANumber", {"--gpu", "abc"}, kStatusOk, "adapter: adapter 0 \"GP104"},
        CommandLineForm{"IndexBeyondTheAdapters", {"--gpu", "9"}, kStatusNoPlatform, "adapter: none selected"}),
    [](const auto& info) { return std::string(info.param.name); });

// Two identical cards: explain names the adapter the run selected, not the first equal one.
TEST_F(ListsTest, ExplainNamesTheSelectedOfTwoIdenticalAdapters) {
  PciFixtureDevice second = kNvidiaAdapter;
  second.address = "0000:66:00.0";
  machine_.AddPciDevice(second);
  Devices({NvidiaDevice()});
  const RunResult explained = Lists({"explain", "--gpu", "1"});
  EXPECT_EQ(explained.status, machine_.RunGpuvet({"--gpu", "1"}).status);
  EXPECT_THAT(explained.out, HasSubstr("adapter: adapter 1 "));
}

// A large black list that names other devices only: explain's search for the
// closest names comes after the verdict, measures each item once and leaves
// gpuvet's status alone (searched inside the verdict, it ran into the watchdog).
TEST_F(ListsTest, ExplainOfALargeListEndsWithGpuvetsStatus) {
  constexpr int kItems = 30000;
  DriverDated("2018-01-01");
  Devices({NvidiaDevice()});
  std::vector<IcdDevice> others(kItems, AmdDevice());
  for (int i = 0; i < kItems; ++i) {
    others[static_cast<std::size_t>(i)].name = "Generated Graphics Device " + std::to_string(i);
  }
  const std::string black = machine_.WriteFile("black.xml", ListFileText("BlackList", others));
  const RunResult explained = Lists({"explain", "--gpu", "0", "--blacklist", black});
  EXPECT_EQ(machine_.RunGpuvet({"--gpu", "0", "--blacklist", black}).status, kStatusOk);
  EXPECT_EQ(explained.status, kStatusOk) << explained.out.substr(0, 2000);
  EXPECT_THAT(explained.out, HasSubstr("the closest:"));
}

// A stored verdict answers explain as it answers gpuvet; explain itself stores none.
TEST_F(ListsTest, ExplainAnswersFromTheStore) {
  DriverDated("2018-01-01");
  Devices({NvidiaDevice()});
  const std::string white = machine_.WriteFile("white.xml", ListFileText("WhiteList", {AmdDevice()}));
  const std::string results = machine_.MakeDir("results");
  const std::vector<std::string> args = {"--gpu", "0", "--whitelist", white, "--result", results};
  std::vector<std::string> explain = args;
  explain.insert(explain.begin(), "explain");

  EXPECT_EQ(Lists(explain).status, kStatusNotInWhiteList);
  struct stat info {};
  EXPECT_NE(stat((results + "/gpuvet.json").c_str(), &info), 0) << "explain wrote the result file";
  EXPECT_EQ(machine_.RunGpuvet(args).status, kStatusNotInWhiteList);
  machine_.WriteFile("white.xml", ListFileText("WhiteList", {NvidiaDevice()}));
  const RunResult stored = Lists(explain);
  EXPECT_EQ(stored.status, machine_.RunGpuvet(args).status);
  EXPECT_EQ(stored.status, kStatusNotInWhiteList);
  EXPECT_THAT(stored.out, HasSubstr("stored verdict: answers the run with 11"));
}

}  // namespace
}  // namespace gpuvet::e2e
