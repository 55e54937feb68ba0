#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <vector>

#include "platform/zavkit_json.h"
#include "result_test_support.h"

namespace gpuvet {
namespace {

using ResultFileTest = ResultDirTest;

const char* const kAdapterKeys[] = {"devID",      "venID",        "devName",      "strDrvVer",   "strDrvDate",
                                    "clCVersion", "clDevVersion", "clDrvVersion", "checkResult", "checked"};

// The member names of an object, in order.
std::vector<std::string> NamesOf(const zavkit::JsonObject& object) {
  std::vector<std::string> names;
  for (const zavkit::JsonMember member : object) {
    names.emplace_back(member.Name());
  }
  return names;
}

TEST_F(ResultFileTest, UnreadableFileGivesTheParseFailedLine) {
  const std::string parseFailed = "src/service/gpuvet/result_serialize 159 parse failed: " + store.path + " [-1]\n";
  for (const char* content : {static_cast<const char*>(nullptr), "", "{\"GpuVet\": ", "{} trailing", "[1,]"}) {
    std::filesystem::remove(store.path);
    if (content != nullptr) {
      WriteFile(content);
    }
    std::vector<AdapterResult> records(1);
    int32_t status = 0;
    EXPECT_EQ(Read(records, &status), parseFailed) << (content ? content : "missing");
    EXPECT_EQ(status, -1);
    EXPECT_TRUE(records.empty());
  }
}

TEST_F(ResultFileTest, RootThatIsNoObjectGivesTheRootLine) {
  WriteFile("[{\"GpuVet\": {}}]");
  std::vector<AdapterResult> records;
  int32_t status = 0;
  EXPECT_EQ(Read(records, &status), "src/service/gpuvet/result_serialize 167 nullptr == root\n");
  EXPECT_EQ(status, -1);
}

// The root is printed without indentation before the section is looked at.
TEST_F(ResultFileTest, UnusableSectionFailsSilentlyAfterTheDump) {
  struct Case {
    const char* file;
    const char* dump;
  };
  const Case cases[] = {
      {"{\"other\": 1}", "{\n\"other\": 1\n}\n"},
      {"{\"GpuVet\": []}", "{\n\"GpuVet\": []\n}\n"},
      {"{\"GpuVet\": {\"adapters\": []}}", "{\n\"GpuVet\": {\n\"adapters\": []\n}\n}\n"},
      {"{\"GpuVet\": {\"Adapters\": {}}}", "{\n\"GpuVet\": {\n\"Adapters\": {}\n}\n}\n"},
  };
  for (const Case& test : cases) {
    WriteFile(test.file);
    std::vector<AdapterResult> records;
    int32_t status = 0;
    EXPECT_EQ(Read(records, &status), test.dump) << test.file;
    EXPECT_EQ(status, -1) << test.file;
  }
}

TEST_F(ResultFileTest, ReaderTakesObjectsOnlyAndKnownKeysOfTheRightType) {
  WriteFile(R"({"GpuVet": {"Adapters": [
      1, "text", null, [],
      {"devID": 4318, "venID": "4318", "DevName": "wrong case", "devName": "GeForce",
       "strDrvVer": 31, "strDrvDate": null, "clCVersion": "OpenCL C 1.2", "clDevVersion": {},
       "checkResult": -11, "checked": 1.0, "extra": true},
      {"checked": 1, "checked": 2, "checkResult": 4294967295}
  ]}})");
  std::vector<AdapterResult> records;
  int32_t status = 0;
  Read(records, &status);
  EXPECT_EQ(status, 0);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].adapter.devID, 4318u);
  EXPECT_EQ(records[0].adapter.venID, 0u);
  EXPECT_EQ(records[0].adapter.devName, "GeForce");
  EXPECT_EQ(records[0].adapter.strDrvVer, "");
  EXPECT_EQ(records[0].adapter.strDrvDate, "");
  EXPECT_EQ(records[0].clCVersion, "OpenCL C 1.2");
  EXPECT_EQ(records[0].clDevVersion, "");
  EXPECT_EQ(records[0].checkResult, -11);
  EXPECT_EQ(records[0].checked, 0);
  EXPECT_EQ(records[1].checked, 2);  // the later of two equal keys stands
  EXPECT_EQ(records[1].checkResult, -1);
}

TEST_F(ResultFileTest, RecordsSurviveAWriteAndARead) {
  AdapterResult record;
  record.checked = 1;
  record.checkResult = -11;
  record.adapter = AdapterEntry{0x80000001u, 0xFFFFFFFFu, "Radeon \xC3\xA9", "31.0.1", "20230607000000.000000-000"};
  record.clCVersion = "OpenCL C 2.0";
  record.clDevVersion = "OpenCL 2.0 AMD-APP";
  record.clDrvVersion = "3444.0";
  store.results = {record, AdapterResult{}};
  int32_t status = -5;
  Write(&status);
  EXPECT_EQ(status, 0);
  EXPECT_NE(ReadFile().find("\"devID\": 4294967295"), std::string::npos);
  EXPECT_NE(ReadFile().find("\"venID\": 2147483649"), std::string::npos);

  std::vector<AdapterResult> records;
  Read(records, &status);
  EXPECT_EQ(status, 0);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_TRUE(SameRecord(records[0], record));
  EXPECT_TRUE(SameRecord(records[1], AdapterResult{}));
}

TEST_F(ResultFileTest, WriterPrintsTheFileAndItsPathAndWritesTheTenKeysInOrder) {
  store.results = {AdapterResult{}};
  const std::string out = Write();
  EXPECT_EQ(out, ReadFile() + "file:" + store.path + "\n");

  zavkit::JsonDoc doc;
  ASSERT_EQ(doc.ParseFile(store.path), 0);
  zavkit::JsonObject root = doc.Root().AsObject();
  EXPECT_EQ(NamesOf(root), std::vector<std::string>{"GpuVet"});
  zavkit::JsonArray adapters = root.Find("GpuVet")->AsObject().Find("Adapters")->AsArray();
  const zavkit::JsonElem first = *adapters.begin();
  EXPECT_EQ(NamesOf(first.AsObject()), std::vector<std::string>(std::begin(kAdapterKeys), std::end(kAdapterKeys)));
}

// The section is replaced whole and moves to the end; members of others keep
// their place and content.
TEST_F(ResultFileTest, OtherRootMembersSurviveAWrite) {
  WriteFile(R"({"first": {"deep": [1, "two", {"x": null}]}, "GpuVet": {"Adapters": [], "keep": 1}, "last": -3})");
  store.results = {};
  Write();
  zavkit::JsonDoc doc;
  ASSERT_EQ(doc.ParseFile(store.path), 0);
  zavkit::JsonObject root = doc.Root().AsObject();
  EXPECT_EQ(NamesOf(root), (std::vector<std::string>{"first", "last", "GpuVet"}));
  std::string first;
  root.Find("first")->PrettyDump(first, -1);
  EXPECT_EQ(first, R"({"deep":[1,"two",{"x":null}]})");
  EXPECT_EQ(root.Find("last")->AsInt(), -3);
  zavkit::JsonObject section = root.Find("GpuVet")->AsObject();
  EXPECT_EQ(NamesOf(section), std::vector<std::string>{"Adapters"});

  std::vector<AdapterResult> records(2);
  int32_t status = -1;
  Read(records, &status);
  EXPECT_EQ(status, 0);  // an empty list reads as no records
  EXPECT_TRUE(records.empty());
}

TEST_F(ResultFileTest, UnusableFileIsReplacedByTheSectionAlone) {
  for (const char* content : {"[1, 2]", "not json", "\"text\""}) {
    WriteFile(content);
    Write();
    zavkit::JsonDoc doc;
    ASSERT_EQ(doc.ParseFile(store.path), 0) << content;
    EXPECT_EQ(NamesOf(doc.Root().AsObject()), std::vector<std::string>{"GpuVet"}) << content;
  }
}

TEST_F(ResultFileTest, ReplaceKeepsPermissionBitsAndLeavesNoTemporaryFile) {
  WriteFile("{}");
  ASSERT_EQ(chmod(store.path.c_str(), 0640), 0);
  Write();
  struct stat info {};
  ASSERT_EQ(stat(store.path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0640u);
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    names.push_back(entry.path().filename().string());
  }
  EXPECT_EQ(names, std::vector<std::string>{"gpuvet.json"});
}

// A failed write is not reported: the dump and the path are printed all the same.
TEST_F(ResultFileTest, WriteIntoAMissingDirectoryGoesUnnoticed) {
  store.path = ResultSerialize::BuildPath(dir + "/missing");
  int32_t status = -1;
  const std::string out = Write(&status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(out, "{\n    \"GpuVet\": {\n        \"Adapters\": []\n    }\n}\nfile:" + store.path + "\n");
  EXPECT_FALSE(std::filesystem::exists(dir + "/missing"));
}

// Nesting beyond the parser's limit counts as unparseable instead of
// exhausting the stack when the tree is printed.
TEST_F(ResultFileTest, DeeplyNestedFileIsRefusedAndThenReplaced) {
  constexpr std::size_t kDepth = 100000;
  WriteFile("{\"a\": " + std::string(kDepth, '[') + std::string(kDepth, ']') + "}");
  std::vector<AdapterResult> records;
  EXPECT_EQ(Read(records), "src/service/gpuvet/result_serialize 159 parse failed: " + store.path + " [-1]\n");
  Write();
  zavkit::JsonDoc doc;
  EXPECT_EQ(doc.ParseFile(store.path), 0);
}

// A name that is not UTF-8 must not stop the write, and what is written must read back.
TEST_F(ResultFileTest, InvalidUtf8NameIsWrittenReadably) {
  AdapterResult record;
  record.adapter.devName = "bad \xFF\xFE name";
  store.results = {record};
  int32_t status = -1;
  Write(&status);
  EXPECT_EQ(status, 0);
  std::vector<AdapterResult> records;
  Read(records, &status);
  EXPECT_EQ(status, 0);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].adapter.devName.rfind("bad ", 0), 0u);
}

}  // namespace
}  // namespace gpuvet
