// The result file through the real binary: a first run stores the verdict, a
// second run answers from it without OpenCL or list files, and what drops it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "e2e_support.h"

namespace gpuvet::e2e {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

std::string ListFile(const std::string& root, const std::string& deviceName) {
  IcdDevice listed = NvidiaDevice();
  listed.name = deviceName;
  listed.driverVersion = "535";
  return ListFileText(root, {listed});
}

nlohmann::ordered_json ReadJson(const std::string& path) {
  return nlohmann::ordered_json::parse(ReadWhole(path));  // throws, failing the test, on a torn file
}

// The machine of the typical run: an Intel adapter without a driver and an
// NVIDIA adapter with a module driver, one NVIDIA device, a black list that
// does not name it and a white list that admits it.
class ResultStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    GPUVET_REQUIRE_NAMESPACE();
    machine_.AddPciDevice(kIntelAdapter);
    machine_.AddPciDevice(kNvidiaAdapter);
    machine_.BindModuleDriver(kNvidiaAdapter.address, "nvidia", "535.183.01");
    machine_.SetKernelBuildDate("2024-02-01");
    IcdConfig config;
    config.platforms.emplace_back().devices = {NvidiaDevice()};
    UseTestIcd(machine_, config);
    blackList_ = machine_.WriteFile("lists/black.xml", ListFile("BlackList", "Other GPU"));
    whiteList_ = machine_.WriteFile("lists/white.xml", ListFile("WhiteList", "NVIDIA GeForce GTX 1080"));
    resultDir_ = machine_.MakeDir("results");
    resultFile_ = resultDir_ + "/gpuvet.json";
  }

  RunResult Run(const std::string& gpu, std::vector<std::string> more = {}) {
    ClearIcdCallLog(machine_);
    std::vector<std::string> args = {"--gpu", gpu, "--blacklist", blackList_, "--whitelist", whiteList_,
                                     "--result", resultDir_};
    args.insert(args.end(), more.begin(), more.end());
    return machine_.RunGpuvet(args);
  }

  // Runs a shell command as user nobody, the way another local user plants
  // objects where root's run will look.
  void AsNobody(const std::string& command) {
    const RunResult planted = machine_.Run(
        {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "/bin/sh", "-c", command});
    ASSERT_EQ(planted.status, 0) << command << ": " << planted.err;
  }

  // A folder that every user may write to, sticky as /tmp is.
  std::string SharedDir(const std::string& name) {
    const std::string dir = machine_.MakeDir(name);
    chmod(dir.c_str(), 01777);
    return dir;
  }

  FixtureMachine machine_;
  std::string blackList_, whiteList_, resultDir_, resultFile_;
};

constexpr const char* kPlantedMark = "planted-7d1f";

// Hostile ground: another user plants a link, a file or a FIFO where root's run
// will look, and the run is asked for a verdict that a fresh test refuses.
// The run tests afresh, prints nothing of the planted file, stores nothing and
// says why in one line; what the planted objects point at stays as it was.
TEST_F(ResultStoreTest, ObjectsOtherUsersPlantAreNeitherReadNorReplaced) {
  ASSERT_EQ(Run("1").status, kStatusOk);
  nlohmann::ordered_json pass = ReadJson(resultFile_);
  pass["Planted"] = kPlantedMark;
  const std::string forged = machine_.WriteFile("forged.json", pass.dump());
  machine_.WriteFile("lists/white.xml", ListFile("WhiteList", "Some Other GPU"));

  const std::string secret = machine_.WriteFile("private/secret.json", pass.dump());
  chmod(secret.c_str(), 0600);
  const std::string service = machine_.MakeDir("service");
  chmod(service.c_str(), 0700);
  const std::string serviceFile = machine_.WriteFile("service/gpuvet.json", pass.dump());
  const std::string serviceTemp = machine_.WriteFile("service/gpuvet.json.tmp-999999-0", "{");
  const struct {
    std::string result;  // the --result folder
    std::string plant;   // as nobody
    std::string why;
    std::string kept;  // a file whose bytes must stay
  } cases[] = {
      {SharedDir("link"), "ln -s " + secret + " link/gpuvet.json", "is a link of another user's", secret},
      {SharedDir("shared") + "/results", "ln -s " + service + " shared/results", "lies behind a link of another user's",
       serviceFile},
      {SharedDir("forged"), "cp " + forged + " forged/gpuvet.json", "belongs to another user", forged},
      {SharedDir("fifo"), "mkfifo fifo/gpuvet.json", "is not a regular file", forged},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    AsNobody(c.plant);
    const std::string kept = ReadWhole(c.kept);
    const RunResult run = machine_.RunGpuvet({"--gpu", "1", "--blacklist", blackList_, "--whitelist", whiteList_,
                                              "--result", c.result});
    EXPECT_EQ(run.status, kStatusNotInWhiteList);
    EXPECT_THAT(run.out, EndsWith("ResultSerialize::AddResult: " + c.result + "/gpuvet.json " + c.why +
                                  ", nothing stored\n"));
    EXPECT_THAT(run.out, AllOf(Not(HasSubstr(kPlantedMark)), Not(HasSubstr("Timeout")), HasSubstr("gpuvet begin")));
    EXPECT_EQ(ReadWhole(c.kept), kept);
  }
  EXPECT_TRUE(std::filesystem::exists(serviceTemp)) << "another folder's temporary file was removed";
  struct stat planted {};
  ASSERT_EQ(lstat(machine_.PathOf("forged/gpuvet.json").c_str(), &planted), 0);
  EXPECT_EQ(planted.st_uid, 65534u);
  EXPECT_TRUE(std::filesystem::is_fifo(machine_.PathOf("fifo/gpuvet.json")));
}

// The folder is opened once: one swapped for another user's link while the
// run goes on (here by the vendor, at its first name query) is not followed;
// the verdict goes to the folder the run opened.
TEST_F(ResultStoreTest, FolderSwappedDuringTheRunIsNotFollowed) {
  const std::string shared = SharedDir("shared");
  const std::string results = machine_.MakeDir("shared/results");
  const std::string service = machine_.MakeDir("service");
  const std::string serviceFile = machine_.WriteFile("service/gpuvet.json", R"({"Service": 1})");
  IcdConfig config;
  IcdDevice device = NvidiaDevice();
  device.faults.push_back({CL_DEVICE_NAME, kIcdRunHook});
  config.platforms.emplace_back().devices = {device};
  UseTestIcd(machine_, config,
             "test -L " + results + " || { mv " + results + " " + results +
                 ".old && setpriv --reuid=65534 --regid=65534 --clear-groups ln -s " + service + " " + results + "; }");
  const RunResult run = machine_.RunGpuvet({"--gpu", "1", "--blacklist", blackList_, "--whitelist", whiteList_,
                                            "--result", results});
  EXPECT_EQ(run.status, kStatusOk) << run.out;
  EXPECT_EQ(ReadWhole(serviceFile), R"({"Service": 1})");
  EXPECT_EQ(ReadJson(results + ".old/gpuvet.json")["GpuVet"]["Adapters"][1]["checked"], 1);
}

// An adapter name is cut at byte 127, here inside a UTF-8 character: the record
// keeps exactly those bytes, and the next run answers from it.
TEST_F(ResultStoreTest, NameCutInsideACharacterIsKeptAndAnswersTheNextRun) {
  const std::string name = std::string(126, 'x') + "\xE2\x82\xAC and more";
  machine_.WriteFile("pci.ids", "10de  NVIDIA Corporation\n\t1b80  " + name + "\n");
  machine_.MountOver("/usr/share/misc/pci.ids", "pci.ids");
  EXPECT_THAT(Run("1").out, HasSubstr("\n   " + name.substr(0, 127) + ", device_id"));
  EXPECT_THAT(Run("1").out, EndsWith("Find result in config. 0\n"));
}

TEST_F(ResultStoreTest, FirstRunStoresTheVerdictAndTheSecondAnswersFromIt) {
  const RunResult first = Run("1");
  EXPECT_EQ(first.status, kStatusOk);
  EXPECT_TRUE(LinesInOrder(first.out, {"", "Adapter: 1", "",
                                       "src/service/gpuvet/result_serialize 159 parse failed: " + resultFile_ + " [-1]",
                                       "", "gpuvet begin", "num_platforms: 1", "check before in black list start",
                                       "check before in white list start", "gpuvet end(ok)", "file:" + resultFile_}));
  EXPECT_THAT(first.out, EndsWith("file:" + resultFile_ + "\n"));
  EXPECT_FALSE(ReadIcdCallLog(machine_).empty());

  const nlohmann::ordered_json stored = ReadJson(resultFile_);
  const nlohmann::ordered_json& adapters = stored.at("GpuVet").at("Adapters");
  ASSERT_EQ(adapters.size(), 2u);
  EXPECT_EQ(adapters[0].at("checked"), 0);
  EXPECT_EQ(adapters[1].at("strDrvVer"), "535.183.01");
  EXPECT_EQ(adapters[1].at("strDrvDate"), "20240201000000.000000-000");
  EXPECT_EQ(adapters[1].at("checkResult"), 0);
  EXPECT_EQ(adapters[1].at("checked"), 1);

  // The lists are gone: a run that opened them would fail the white list.
  std::filesystem::remove(blackList_);
  std::filesystem::remove(whiteList_);
  const RunResult second = Run("1");
  EXPECT_EQ(second.status, kStatusOk);
  EXPECT_THAT(second.out, EndsWith("\n\nFind result in config. 0\n"));
  EXPECT_THAT(second.out, Not(HasSubstr("gpuvet begin")));
  EXPECT_EQ(second.err, "");
  EXPECT_TRUE(ReadIcdCallLog(machine_).empty()) << "a stored verdict makes no OpenCL call";
}

TEST_F(ResultStoreTest, StoredFailingVerdictIsReusedUntilRecheck) {
  machine_.WriteFile("lists/white.xml", ListFile("WhiteList", "Some Other GPU"));
  EXPECT_EQ(Run("1").status, kStatusNotInWhiteList);
  const RunResult stored = Run("1");
  EXPECT_EQ(stored.status, kStatusNotInWhiteList);
  EXPECT_THAT(stored.out, EndsWith("\n\nFind result in config. 11\n"));

  machine_.WriteFile("lists/white.xml", ListFile("WhiteList", "NVIDIA GeForce GTX 1080"));
  const RunResult recheck = Run("1", {"--recheck", "1"});
  EXPECT_EQ(recheck.status, kStatusOk);
  EXPECT_THAT(recheck.out, HasSubstr("gpuvet end(ok)\n"));
  EXPECT_FALSE(ReadIcdCallLog(machine_).empty());
  EXPECT_THAT(Run("1").out, EndsWith("Find result in config. 0\n"));
}

TEST_F(ResultStoreTest, AdapterWithoutDriverVersionIsAlwaysTested) {
  Run("0");  // the Intel adapter has no driver bound: its version is empty
  EXPECT_THAT(Run("0").out, AllOf(Not(HasSubstr("Find result in config.")), HasSubstr("gpuvet begin\n")));
}

TEST_F(ResultStoreTest, DriverChangeDropsEveryVerdict) {
  Run("1");
  machine_.BindModuleDriver(kNvidiaAdapter.address, "nvidia", "550.54.14");
  EXPECT_THAT(Run("1").out, AllOf(Not(HasSubstr("Find result in config.")), HasSubstr("gpuvet begin\n")));
  EXPECT_EQ(ReadJson(resultFile_)["GpuVet"]["Adapters"][1]["strDrvVer"], "550.54.14");
}

TEST_F(ResultStoreTest, WithoutGpuIndexTheFileIsReadButNotWritten) {
  machine_.WriteFile("results/gpuvet.json", R"({"Host": {"keep": true}})");
  const RunResult result = machine_.RunGpuvet({"--result", resultDir_});
  EXPECT_THAT(result.out, HasSubstr("\"keep\": true"));
  EXPECT_THAT(result.out, Not(HasSubstr("\nfile:")));
  EXPECT_EQ(ReadJson(resultFile_).dump(), R"({"Host":{"keep":true}})");
}

// A run cut off in the middle of writing the file leaves the old file whole,
// the members the tool does not own included. The cut comes from a file size
// limit: the kernel ends the process at the first write past it (the log goes
// to a device, which the limit does not count).
TEST_F(ResultStoreTest, RunCutOffWhileWritingLeavesTheOldFileWhole) {
  constexpr std::size_t kHostSettings = 16000;  // about 360 KB of JSON
  nlohmann::ordered_json host;
  host["HostSettings"] = nlohmann::ordered_json::array();
  for (std::size_t i = 0; i < kHostSettings; ++i) {
    host["HostSettings"].push_back("setting number " + std::to_string(i));
  }
  const std::string original = host.dump();
  for (const char* limitBlocks : {"1", "64", "512"}) {  // 512-byte blocks: at the start, early, late
    machine_.WriteFile("results/gpuvet.json", original);
    ClearIcdCallLog(machine_);
    const RunResult cut = machine_.Run({"/bin/sh", "-c",
                                        std::string("umask 000; ulimit -f ") + limitBlocks + "; exec \"$0\" \"$@\" >/dev/null",
                                        GpuvetBinary(), "--gpu", "1", "--result", resultDir_});
    EXPECT_EQ(cut.status, -1) << "the write was not cut at " << limitBlocks << " blocks";
    EXPECT_EQ(ReadJson(resultFile_).dump(), original) << "cut at " << limitBlocks << " blocks";
  }
  // Whatever the umask, a temporary file is root's alone while it is written.
  for (const auto& entry : std::filesystem::directory_iterator(resultDir_)) {
    struct stat leftover {};
    ASSERT_EQ(stat(entry.path().c_str(), &leftover), 0);
    EXPECT_TRUE(entry.path() == resultFile_ || (leftover.st_mode & 07777) == 0600u) << entry.path();
  }
  // The next save clears what the cut-off runs left behind, and passes over at
  // once a FIFO named like a leftover: only regular files are ever opened.
  ASSERT_EQ(mkfifo((resultFile_ + ".tmp-999999-0").c_str(), 0600), 0);
  const RunResult next = Run("1");
  EXPECT_EQ(next.status, kStatusOk);
  EXPECT_THAT(next.out, AllOf(Not(HasSubstr("Timeout")), EndsWith("file:" + resultFile_ + "\n")));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(resultDir_), std::filesystem::directory_iterator()), 2);
}

}  // namespace
}  // namespace gpuvet::e2e
