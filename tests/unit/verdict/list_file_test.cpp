#include "verdict/list_file.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <vector>

#include "list_file_fixture.h"

namespace gpuvet::testing {
namespace {

using ::testing::ElementsAreArray;

MATCHER_P(KeyIs, expected, "") {
  return ClDeviceKeyEqual(arg, expected);
}

std::vector<::testing::Matcher<ClDeviceKey>> Keys(std::vector<ClDeviceKey> keys) {
  SortUnique(keys);
  std::vector<::testing::Matcher<ClDeviceKey>> matchers;
  for (const ClDeviceKey& key : keys) {
    matchers.push_back(KeyIs(key));
  }
  return matchers;
}

// One item with the given raw field elements.
std::string RawItem(const std::string& fields) { return "<Item>" + fields + "</Item>"; }
std::string BlackList(const std::string& body) { return "<BlackList>" + body + "</BlackList>"; }

struct ReadCase {
  const char* what;
  std::string content;
  std::vector<ClDeviceKey> items;
};

class ReadListFileTest : public ListFileTest {};

TEST_F(ReadListFileTest, ReadsItemsAsTheWalkFindsThem) {
  const ClDeviceKey a = NvidiaDevice();
  const ClDeviceKey b = AmdDevice();
  const ClDeviceKey c = IntelDevice();
  const ReadCase cases[] = {
      {"plain items, sorted on reading", BlackList(ItemXml(c) + ItemXml(a) + ItemXml(b)), {a, b, c}},
      {"a comment between items ends the walk", BlackList(ItemXml(a) + ItemXml(b) + "<!-- c -->" + ItemXml(c)), {a, b}},
      {"a text between items ends the walk", BlackList(ItemXml(a) + "text" + ItemXml(b)), {a}},
      {"an element of another name after an item is an item", BlackList(ItemXml(a) + ItemXml(b, "Other")), {a, b}},
      {"an element of another name before the first item is passed over",
       BlackList("<!-- c -->" + ItemXml(b, "Other") + ItemXml(a)), {a}},
      {"items below another level are not seen", BlackList("<Group>" + ItemXml(a) + "</Group>"), {}},
      {"a repeated item counts once", BlackList(ItemXml(a) + ItemXml(a) + ItemXml(a)), {a}},
      {"no item", BlackList("<Other/>"), {}},
      {"fields in any order, comments among them, the first of a repeat",
       BlackList(RawItem("<DriverVersion>d</DriverVersion><!-- c --><DeviceName>n</DeviceName><VID>7</VID>"
                         "<DeviceName>m</DeviceName><DeviceVersion>v</DeviceVersion>"
                         "<OpenCLCVersion>c</OpenCLCVersion>")),
       {{7, "n", "c", "v", "d"}}},
      {"missing, empty and blank-only fields keep their fresh value",
       BlackList(RawItem("<DeviceName/><DeviceVersion>  </DeviceVersion><DriverVersion>d</DriverVersion>")),
       {{0, "", "", "", "d"}}},
      {"a field whose first child is not a text is empty",
       BlackList(RawItem("<VID><!-- c -->5</VID><DeviceName><!-- c -->n</DeviceName><DriverVersion><b/>d</DriverVersion>")),
       {{0, "", "", "", ""}}},
      {"blanks around a text stay", BlackList(RawItem("<DeviceName> n </DeviceName>")), {{0, " n ", "", "", ""}}},
      {"CDATA and entities give their text",
       BlackList(RawItem("<DeviceName><![CDATA[a<b&c]]></DeviceName><DriverVersion>x &amp; &lt;y&gt; &#65;</DriverVersion>")),
       {{0, "a<b&c", "", "", "x & <y> A"}}},
      {"a hexadecimal vendor id reads as 0", BlackList(RawItem("<VID>0x10de</VID>")), {{0, "", "", "", ""}}},
      {"the vendor id scan: blanks, sign, digits up to the first other character",
       BlackList(RawItem("<VID> \t+4318abc</VID><DeviceName>1</DeviceName>") +
                 RawItem("<VID>-1</VID><DeviceName>2</DeviceName>") +
                 RawItem("<VID>abc</VID><DeviceName>3</DeviceName>")),
       {{4318, "1", "", "", ""}, {0xFFFFFFFFu, "2", "", "", ""}, {0, "3", "", "", ""}}},
      {"a vendor id past the 32-bit limits saturates",
       BlackList(RawItem("<VID>99999999999999999999</VID><DeviceName>1</DeviceName>") +
                 RawItem("<VID>-99999999999999999999</VID><DeviceName>2</DeviceName>")),
       {{0x7FFFFFFFu, "1", "", "", ""}, {0x80000000u, "2", "", "", ""}}},
      {"byte order mark, declaration and comment before the root",
       "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<!-- c -->\n" + BlackList("\n  " + ItemXml(a) + "  "),
       {a}},
  };
  for (const ReadCase& c : cases) {
    const ListFile list = ReadListFile(WriteFile(c.content).c_str(), kBlackListRoot);
    EXPECT_EQ(list.outcome, ListFileOutcome::kRead) << c.what;
    EXPECT_THAT(list.items, ElementsAreArray(Keys(c.items))) << c.what;
  }
}

// The sort goes through integer prefixes of the strings past their shared
// start; it has to give the plain order of ClDeviceKeyLess. The strings share a
// start, end around the prefix length and hold the extreme bytes.
TEST(SortUnique, GivesThePlainKeyOrder) {
  std::mt19937 random(7);
  const auto pick = [&random](std::size_t count) { return static_cast<std::size_t>(random() % count); };
  const uint32_t vids[] = {0, 4318, 0x80000000u};
  const std::string starts[] = {"NVIDIA GeForce ", "NVIDIA GeForce GTX 10"};
  const char bytes[] = {'\0', '1', 'A', 'a', '\xFF'};
  const auto text = [&](const std::string& start) {
    std::string result = start.substr(0, start.size() - pick(2));
    for (std::size_t length = pick(11); length > 0; --length) {
      result += bytes[pick(std::size(bytes))];
    }
    return result;
  };
  for (int round = 0; round < 20; ++round) {
    std::vector<ClDeviceKey> keys;
    for (int n = 0; n < 300; ++n) {
      keys.push_back({vids[pick(std::size(vids))], text(starts[pick(2)]), text("OpenCL C "), text(""), text("3")});
      if (pick(4) == 0) {
        keys.push_back(keys[pick(keys.size())]);
      }
    }
    std::vector<ClDeviceKey> expected = keys;
    std::sort(expected.begin(), expected.end(), ClDeviceKeyLess);
    expected.erase(std::unique(expected.begin(), expected.end(), ClDeviceKeyEqual), expected.end());
    SortUnique(keys);
    ASSERT_EQ(keys.size(), expected.size());
    for (std::size_t i = 0; i < keys.size(); ++i) {
      ASSERT_TRUE(ClDeviceKeyEqual(keys[i], expected[i])) << "round " << round << ", position " << i;
    }
  }
}

TEST_F(ReadListFileTest, TellsLoadFailureFromAWrongRoot) {
  struct OutcomeCase {
    const char* what;
    std::string content;
    ListFileOutcome outcome;
  };
  const OutcomeCase cases[] = {
      {"empty file", "", ListFileOutcome::kLoadFailed},
      {"broken XML", "<BlackList><Item>", ListFileOutcome::kLoadFailed},
      {"root of another case", "<blacklist>" + ItemXml(NvidiaDevice()) + "</blacklist>", ListFileOutcome::kNotAList},
      {"root of the other list", ListXml("WhiteList", {NvidiaDevice()}), ListFileOutcome::kNotAList},
      {"no element at all", "<?xml version=\"1.0\"?><!-- c -->", ListFileOutcome::kNotAList},
  };
  for (const OutcomeCase& c : cases) {
    const std::string path = WriteFile(c.content);
    ::testing::internal::CaptureStderr();
    const ListFile list = ReadListFile(path.c_str(), kBlackListRoot);
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(list.outcome, c.outcome) << c.what;
    EXPECT_TRUE(list.items.empty()) << c.what;
    EXPECT_EQ(err, c.outcome == ListFileOutcome::kLoadFailed ? "fail to parse xml file: " + path + "\n" : "")
        << c.what;
  }
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(ReadListFile(MissingPath().c_str(), kBlackListRoot).outcome, ListFileOutcome::kLoadFailed);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "fail to parse xml file: " + MissingPath() + "\n");
}

}  // namespace
}  // namespace gpuvet::testing
