// The result file's reader and writer, and the store of records built on them.
#include "result_serialize.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "opencl/cl_device_key.h"
#include "platform/zavkit_json.h"

namespace gpuvet {
namespace {

namespace fs = std::filesystem;

const AdapterEntry kNvidia{0x10DE, 0x2206, "NVIDIA GeForce RTX 3080", "31.0.15.3623", "20230607000000.000000-000"};
const AdapterEntry kIntel{0x8086, 0x3E92, "Intel(R) UHD Graphics 630", "27.20.100.8681", "20230607000000.000000-000"};
const AdapterEntry kAmd{0x1002, 0x73BF, "AMD Radeon RX 6800", "31.0.21001.45002", "20230607000000.000000-000"};
const AdapterResult kFreshNvidia{0, 0, kNvidia, "", "", ""};

AdapterResult Checked(const AdapterEntry& adapter, int32_t checkResult) {
  return AdapterResult{1, checkResult, adapter, "", "", ""};
}

// A record's fields, for comparisons that show what differs.
auto Fields(const AdapterResult& r) {
  const AdapterEntry& a = r.adapter;
  return std::make_tuple(r.checked, r.checkResult, a.venID, a.devID, a.devName, a.strDrvVer, a.strDrvDate,
                         r.clCVersion, r.clDevVersion, r.clDrvVersion);
}

// The member names of an object, in order.
std::vector<std::string> NamesOf(const zavkit::JsonObject& object) {
  std::vector<std::string> names;
  for (const zavkit::JsonMember member : object) {
    names.emplace_back(member.Name());
  }
  return names;
}

// A fresh directory per test, with the store's path pointing into it.
class ResultStoreTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "gpuvet_result_XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir = pattern;
    store.Open(dir);
  }
  void TearDown() override {
    fs::remove_all(dir);
    ClDeviceTable.clear();
  }

  void WriteFile(const std::string& text) const { std::ofstream(store.path, std::ios::binary) << text; }
  std::string ReadFile() const {
    std::ostringstream text;
    text << std::ifstream(store.path, std::ios::binary).rdbuf();
    return text.str();
  }
  // The reader into `records` and the writer: each returns what it printed and leaves its result in `status`.
  std::string Read(std::vector<AdapterResult>& records) {
    testing::internal::CaptureStdout();
    status = store.ReadConfig(store.path, records);
    return testing::internal::GetCapturedStdout();
  }
  std::string Write() {
    testing::internal::CaptureStdout();
    status = store.AddResult();
    return testing::internal::GetCapturedStdout();
  }
  zavkit::JsonObject RootOfTheFile() {
    EXPECT_EQ(doc.Parse(ReadFile(), 512), zavkit::JsonParse::kParsed);
    return doc.Root().AsObject();
  }
  std::string ParseFailedLine() const {
    return "src/service/gpuvet/result_serialize 159 parse failed: " + store.path + " [-1]\n";
  }

  std::string dir;
  ResultSerialize store;
  int32_t status = 0;
  zavkit::JsonDoc doc;
};

// Every such file reads as -1 and no records, told apart by what is printed;
// a write then keeps only the root members that it can.
TEST_F(ResultStoreTest, UnusableFilesGiveTheirLineAndAreRewritten) {
  const std::string noRoot = "src/service/gpuvet/result_serialize 167 nullptr == root\n";
  const struct {
    std::optional<std::string> file;  // nullopt: no file
    std::string printed;              // the root is printed without indentation before the section is looked at
    std::vector<std::string> rootAfterWrite;
  } cases[] = {
      {std::nullopt, ParseFailedLine(), {"GpuVet"}},
      {"{\"GpuVet\": ", ParseFailedLine(), {"GpuVet"}},
      {"{} trailing", ParseFailedLine(), {"GpuVet"}},
      {"[{\"GpuVet\": {}}]", noRoot, {"GpuVet"}},
      {"{\"other\": 1}", "{\n\"other\": 1\n}\n", {"other", "GpuVet"}},
      {"{\"GpuVet\": []}", "{\n\"GpuVet\": []\n}\n", {"GpuVet"}},
      {"{\"GpuVet\": {\"adapters\": []}}", "{\n\"GpuVet\": {\n\"adapters\": []\n}\n}\n", {"GpuVet"}},
      {"{\"GpuVet\": {\"Adapters\": {}}}", "{\n\"GpuVet\": {\n\"Adapters\": {}\n}\n}\n", {"GpuVet"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file.value_or("no file").substr(0, 40));
    fs::remove(store.path);
    if (c.file) {
      WriteFile(*c.file);
    }
    std::vector<AdapterResult> records(1);
    EXPECT_EQ(Read(records), c.printed);
    EXPECT_EQ(status, -1);
    EXPECT_TRUE(records.empty());
    Write();
    EXPECT_EQ(NamesOf(RootOfTheFile()), c.rootAfterWrite);
  }
}

// A file too large or too deep is refused unread and never replaced: it may
// hold a host's data that the reader could not see. The limits are 16 MiB and
// 512 levels, both inclusive. What the tool writes it reads back: the members
// of others are written compact, so a rewritten file grows with the records,
// not with how deep or wide others' members are; one that would still pass the
// limit (numbers written longer than they were read) is not written at all.
TEST_F(ResultStoreTest, FilesBeyondTheLimitsAreReadAsUnusableAndKeptAsTheyAre) {
  const auto nested = [](std::size_t levels) {
    return "{\"a\": " + std::string(levels - 1, '[') + std::string(levels - 1, ']') + "}";
  };
  const auto repeated = [](const std::string& item, int count) {
    std::string text = "{\"a\": [";
    for (int i = 0; i < count; ++i) {
      text += item + ",";
    }
    return text + item + "]}";
  };
  const std::string large = "{\"a\": \"" + std::string((16u << 20) - 4096, 'x') + "\"}";
  const struct {
    std::string file;
    const char* refusal;  // nullptr: within the limits, and rewritten about as large
  } cases[] = {
      {nested(512), nullptr},
      {nested(513), "is nested deeper than 512 levels"},
      {nested(200000), "is nested deeper than 512 levels"},
      {large, nullptr},
      {large + std::string(4097, ' '), "is larger than 16 MiB"},
      {repeated("1", 1000000), nullptr},
      {repeated("1e14", 950000), "would be larger than 16 MiB"},  // written back as 100000000000000.0
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.refusal != nullptr ? c.refusal : "within");
    WriteFile(c.file);
    std::vector<AdapterResult> records(1);
    const bool readable = c.refusal == nullptr || std::string(c.refusal).rfind("would", 0) == 0;
    EXPECT_EQ(Read(records) == ParseFailedLine(), !readable);
    store.results = {kFreshNvidia};
    const std::string written = Write();
    if (c.refusal == nullptr) {
      EXPECT_TRUE(written.size() < c.file.size() + 1024 && ReadFile().size() < c.file.size() + 1024);
      continue;
    }
    EXPECT_EQ(written.substr(0, 200), "ResultSerialize::AddResult: " + store.path + " " + c.refusal + ", nothing stored\n");
    EXPECT_EQ(status, -1);
    EXPECT_TRUE(ReadFile() == c.file);
  }
  // A deep file of many small objects is read in one pass, not one per object.
  std::string manyObjects = "{\"a\": [";
  for (int i = 0; i < 200000; ++i) {
    manyObjects += "{},";
  }
  WriteFile(manyObjects + "{}]}");
  std::vector<AdapterResult> records;
  Read(records);
  EXPECT_EQ(status, -1);  // no section
}

// The JSON layer's errors are the JSON library's, which the guards catch.
TEST(JsonLayerTest, ErrorsAreTheJsonLibrarysOwn) {
  zavkit::JsonDoc doc;
  EXPECT_THROW(doc.Root().AsObject(), nlohmann::json::exception);
  EXPECT_THROW(doc.Root().AsArray(), nlohmann::json::exception);
}

// A link stays a link and its target is replaced, with the owner and bits it
// had; the leftovers of dead runs go, the file a live run writes stays.
TEST_F(ResultStoreTest, WriteReplacesTheFileALinkNamesAndClearsDeadLeftovers) {
  ASSERT_EQ(chown(dir.c_str(), 1234, 1235), 0);  // the folder's owner is trusted with its files
  const std::string target = dir + "/real.json";
  std::ofstream(target) << "{\"Host\": 1}";
  ASSERT_EQ(chmod(target.c_str(), 0604), 0);
  ASSERT_EQ(chown(target.c_str(), 1234, 1235), 0);
  fs::create_symlink("real.json", store.path);
  const std::string dead = store.path + ".tmp-999999-0";
  const std::string deadOfTarget = target + ".tmp-999999-0";
  const std::string live = target + ".tmp-1-0";
  std::ofstream(dead) << "{";
  std::ofstream(deadOfTarget) << "{";
  std::ofstream(live) << "{";
  const int liveFd = open(live.c_str(), O_RDONLY);
  ASSERT_EQ(flock(liveFd, LOCK_EX), 0);

  store.results = {Checked(kNvidia, 0)};
  Write();
  close(liveFd);
  EXPECT_TRUE(fs::is_symlink(store.path));
  EXPECT_EQ(NamesOf(RootOfTheFile()), (std::vector<std::string>{"Host", "GpuVet"}));
  struct stat info {};
  ASSERT_EQ(stat(target.c_str(), &info), 0);
  EXPECT_EQ(std::make_tuple(info.st_mode & 07777, info.st_uid, info.st_gid), std::make_tuple(0604u, 1234u, 1235u));
  EXPECT_FALSE(fs::exists(deadOfTarget));
  EXPECT_TRUE(fs::exists(live));
  EXPECT_TRUE(fs::exists(dead)) << "only the leftovers of the file that is replaced are looked at";
}

// A result folder that does not exist: the failed write goes unnoticed, the
// file is still printed with its path.
TEST_F(ResultStoreTest, MissingFolderIsReadAsNoFileAndWrittenInVain) {
  store.Open(dir + "/missing");
  std::vector<AdapterResult> records;
  EXPECT_EQ(Read(records), ParseFailedLine());
  store.results = {kFreshNvidia};
  EXPECT_THAT(Write(), testing::EndsWith("}\nfile:" + store.path + "\n"));
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(fs::exists(dir + "/missing"));
}

TEST_F(ResultStoreTest, ReaderTakesObjectsOnlyAndKnownKeysOfTheRightType) {
  WriteFile(R"({"GpuVet": {"Adapters": [
      1, "text", null, [],
      {"devID": 4318, "venID": "4318", "DevName": "wrong case", "devName": "GeForce",
       "strDrvVer": 31, "strDrvDate": null, "clCVersion": "OpenCL C 1.2", "clDevVersion": {},
       "checkResult": -11, "checked": 1.0, "extra": true},
      {"checked": 1, "checked": 2, "checkResult": 4294967295}
  ]}})");
  std::vector<AdapterResult> records;
  Read(records);
  EXPECT_EQ(status, 0);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(Fields(records[0]), Fields(AdapterResult{0, -11, {0, 4318, "GeForce", "", ""}, "OpenCL C 1.2", "", ""}));
  EXPECT_EQ(records[1].checked, 2);  // the later of two equal keys stands
  EXPECT_EQ(records[1].checkResult, -1);
}

// The section is replaced whole and moves to the end; the other members keep
// their place and content, the file its permission bits, and no temporary file
// is left. The file is printed with its path; each record is written with the
// ten keys in order, the ids unsigned. Any bytes a string holds are read back
// as the same bytes: a name cut inside a UTF-8 character, text in another
// encoding, the characters that carry such bytes in the file, zero bytes.
std::vector<std::string> AnyBytes() {
  const std::string pieces[] = {"a", "\xC3", "\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xF4", "\x8F", "\xBC",
                                "\xBF", "\x80", "\xED\xA0\x80", "\xC0\x80", "\xEF\xBF\xBD", std::string(1, '\0'),
                                "\"", "\\", "\n", "\xFF"};
  std::vector<std::string> texts = {std::string(126, 'x') + "\xE2", "Gr\xE4" "fikkarte", "\xF4\x8F\xBF\xBF"};
  std::mt19937 random(16);  // the same cases on every run
  for (int i = 0; i < 400; ++i) {
    std::string text;
    for (auto count = random() % 12; count > 0; --count) {
      text += random() % 4 == 0 ? std::string(1, static_cast<char>(random())) : pieces[random() % std::size(pieces)];
    }
    texts.push_back(text);
  }
  return texts;
}

TEST_F(ResultStoreTest, RecordsSurviveAWriteAndARead) {
  WriteFile(R"({"first": {"deep": [1, "two", {"x": null}]}, "GpuVet": {"Adapters": [], "keep": 1}, "last": -3})");
  ASSERT_EQ(chmod(store.path.c_str(), 0640), 0);
  const AdapterResult record{1, -11, {0x80000001u, 0xFFFFFFFFu, "Radeon \xC3\xA9", "31.0.1", "20230607"},
                             "OpenCL C 2.0", "OpenCL 2.0 AMD-APP", "3444.0"};
  store.results = {record, AdapterResult{}};
  const std::vector<std::string> texts = AnyBytes();
  for (std::size_t i = 0; i < texts.size(); ++i) {
    store.results.push_back(AdapterResult{0, 0, {0, 0, texts[i], "", ""}, "", "", texts[texts.size() - 1 - i]});
  }
  const std::string printed = Write();
  EXPECT_EQ(status, 0);
  EXPECT_EQ(printed, ReadFile() + "file:" + store.path + "\n");
  struct stat info {};
  ASSERT_EQ(stat(store.path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0640u);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 1);
  EXPECT_NE(ReadFile().find("\"devID\": 4294967295"), std::string::npos);
  EXPECT_NE(ReadFile().find("\"venID\": 2147483649"), std::string::npos);
  zavkit::JsonObject root = RootOfTheFile();
  EXPECT_EQ(NamesOf(root), (std::vector<std::string>{"first", "last", "GpuVet"}));
  std::string first;
  root.Find("first")->PrettyDump(first, -1);
  EXPECT_EQ(first, R"({"deep":[1,"two",{"x":null}]})");
  EXPECT_EQ(root.Find("last")->AsInt(), -3);
  zavkit::JsonObject section = root.Find("GpuVet")->AsObject();
  EXPECT_EQ(NamesOf(section), std::vector<std::string>{"Adapters"});
  EXPECT_EQ(NamesOf((*section.Find("Adapters")->AsArray().begin()).AsObject()),
            (std::vector<std::string>{"devID", "venID", "devName", "strDrvVer", "strDrvDate", "clCVersion",
                                      "clDevVersion", "clDrvVersion", "checkResult", "checked"}));

  std::vector<AdapterResult> records;
  Read(records);
  EXPECT_EQ(status, 0);
  ASSERT_EQ(records.size(), store.results.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(Fields(records[i]), Fields(store.results[i])) << i;
  }

  store.results.clear();
  Write();
  Read(records);
  EXPECT_EQ(status, 0);  // an empty list reads as no records
  EXPECT_TRUE(records.empty());
}

// The stored verdicts stand only when every record matches the live adapter at
// its position, every field and its case counting.
TEST_F(ResultStoreTest, LoadKeepsVerdictsOnlyForTheSameListInTheSameOrder) {
  AdapterEntry newDriver = kIntel;
  newDriver.strDrvVer = "27.20.100.9999";
  AdapterEntry lowerCase = kIntel;
  lowerCase.devName = "intel(r) uhd graphics 630";
  const struct {
    const char* what;
    AdapterList live;
    bool kept;
  } cases[] = {
      {"same", {kNvidia, kIntel}, true},
      {"driver version changed", {kNvidia, newDriver}, false},
      {"name case changed", {kNvidia, lowerCase}, false},
      {"order changed", {kIntel, kNvidia}, false},
      {"one adapter fewer", {kNvidia}, false},
  };
  store.results = {Checked(kNvidia, 11), Checked(kIntel, -11)};
  store.results[0].clCVersion = "OpenCL C 1.2";
  Write();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ResultSerialize loaded;
    testing::internal::CaptureStdout();
    EXPECT_EQ(loaded.Load(dir, c.live), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(loaded.path, store.path);
    ASSERT_EQ(loaded.results.size(), c.live.size());
    for (std::size_t i = 0; i < c.live.size(); ++i) {
      const AdapterResult fresh{0, 0, c.live[i], "", "", ""};
      EXPECT_EQ(Fields(loaded.results[i]), Fields(c.kept ? store.results[i] : fresh));
    }
  }
  fs::remove(store.path);
  testing::internal::CaptureStdout();
  store.Load(dir + std::string("\0/x", 3), {kNvidia});  // the directory ends at its zero byte
  EXPECT_EQ(testing::internal::GetCapturedStdout(), ParseFailedLine());
  EXPECT_EQ(Fields(store.results.at(0)), Fields(kFreshNvidia));
}

// An unchecked record refreshes the strings and keeps the verdict; both lookups
// stop at the first of two equal adapters.
TEST(ResultUpdateTest, UpdateAndFindTakeTheFirstRecordOfTheAdapter) {
  ResultSerialize store;
  store.Rebuild({kNvidia, kIntel, kNvidia});
  EXPECT_EQ(store.Update(Checked(kNvidia, 11)), 0);
  EXPECT_EQ(store.Update(AdapterResult{0, 5, kNvidia, "C 1.2", "3.0", "535"}), 0);
  EXPECT_EQ(store.Update(Checked(kIntel, 0)), 0);
  EXPECT_EQ(Fields(store.results[0]), Fields(AdapterResult{1, 11, kNvidia, "C 1.2", "3.0", "535"}));
  EXPECT_EQ(Fields(store.results[1]), Fields(Checked(kIntel, 0)));
  EXPECT_EQ(Fields(store.results[2]), Fields(kFreshNvidia));
  AdapterResult found;
  EXPECT_TRUE(store.Find(kNvidia, found));
  EXPECT_EQ(found.checkResult, 11);

  EXPECT_EQ(store.Update(Checked(kAmd, 3)), -1);
  found = Checked(kAmd, 7);
  EXPECT_FALSE(store.Find(kAmd, found));
  EXPECT_EQ(found.checkResult, 7);  // untouched
}

// Fresh OpenCL strings for every adapter with a device, the verdict for the
// tested one only when it has a device; the file is written even with none.
TEST_F(ResultStoreTest, SaveAdapterResultsStoresWhatTheDevicesGive) {
  const ClDeviceKey device{0x10DE, "GeForce RTX 3080", "OpenCL C 1.2", "OpenCL 3.0 CUDA", "535.104"};
  const struct {
    const char* what;
    std::vector<ClDeviceKey> table;
    int32_t gpuIndex;
    AdapterResult nvidia;  // after the save; Intel's record has no device
  } cases[] = {
      {"tested, with a device", {device}, 0, {1, 11, kNvidia, "OpenCL C 1.2", "OpenCL 3.0 CUDA", "535.104"}},
      {"Intel tested, it has no device", {device}, 1, {0, 0, kNvidia, "OpenCL C 1.2", "OpenCL 3.0 CUDA", "535.104"}},
      {"no devices", {}, 0, {0, 0, kNvidia, "", "", ""}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ClDeviceTable = c.table;
    store.results = {kFreshNvidia, Checked(kIntel, 12)};
    testing::internal::CaptureStdout();
    EXPECT_EQ(SaveAdapterResults(store, {kNvidia, kIntel}, c.gpuIndex, 11), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), ReadFile() + "file:" + store.path + "\n");
    EXPECT_EQ(Fields(store.results[0]), Fields(c.nvidia));
    EXPECT_EQ(Fields(store.results[1]), Fields(Checked(kIntel, 12)));
  }
}

}  // namespace
}  // namespace gpuvet
