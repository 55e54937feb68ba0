// The list files: how they are read, and the black and white list tests over them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "opencl/cl_device_key.h"
#include "verdict/black_list.h"
#include "verdict/list_file.h"
#include "verdict/white_list.h"

namespace gpuvet::testing {
namespace {

const ClDeviceKey kIntel{32902, "Intel(R) UHD Graphics 630", "OpenCL C 3.0", "OpenCL 3.0 NEO", "22.43.24595"};
const ClDeviceKey kNvidia{4318, "NVIDIA GeForce GTX 1080", "OpenCL C 1.2", "OpenCL 3.0 CUDA", "391.35"};
const ClDeviceKey kAmd{4098, "gfx1030", "OpenCL C 2.0", "OpenCL 2.0 AMD-APP (3513.0)", "3513.0"};

std::string ItemXml(const ClDeviceKey& key, const std::string& element = "Item") {
  return "<" + element + "><VID>" + std::to_string(key.VID) + "</VID><DeviceName>" + key.DeviceName +
         "</DeviceName><OpenCLCVersion>" + key.OpenCLCVersion + "</OpenCLCVersion><DeviceVersion>" +
         key.DeviceVersion + "</DeviceVersion><DriverVersion>" + key.DriverVersion + "</DriverVersion></" + element +
         ">\n";
}

// A list file with one item a line: the blanks between items are no nodes.
std::string ListXml(const std::string& root, const std::vector<ClDeviceKey>& items) {
  std::string body;
  for (const ClDeviceKey& item : items) {
    body += ItemXml(item);
  }
  return "<" + root + ">\n" + body + "</" + root + ">\n";
}

// One list file for the test process; the device state is put back to fresh after each test.
class ListFileTest : public ::testing::Test {
 protected:
  void TearDown() override {
    std::remove(path_.c_str());
    ClDeviceTable.clear();
    SelectedClDevice = ClDeviceKey{};
  }
  static void SetTable(std::vector<ClDeviceKey> devices) {  // in key order, as the census leaves it
    SortUnique(devices);
    ClDeviceTable = devices;
  }
  const std::string& Write(const std::string& content) const {
    std::ofstream(path_, std::ios::binary) << content;
    return path_;
  }
  // The answer of a list test on a file of the given content, and what it printed; a file that is
  // read, or is no list, is passed in silence.
  template <typename ListTest>
  std::pair<bool, std::string> Run(ListTest listTest, const std::string& content, int32_t gpuIndex) const {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    const bool result = listTest(Write(content).c_str(), gpuIndex);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << content;
    return {result, ::testing::internal::GetCapturedStdout()};
  }
  const std::string path_ = ::testing::TempDir() + "gpuvet_list_" + std::to_string(getpid()) + ".xml";
};

// The keys one a line, so that a failure shows what was read.
std::string Lines(const std::vector<ClDeviceKey>& keys) {
  std::string text;
  for (const ClDeviceKey& k : keys) {
    text += std::to_string(k.VID) + "|" + k.DeviceName + "|" + k.OpenCLCVersion + "|" + k.DeviceVersion + "|" +
            k.DriverVersion + "\n";
  }
  return text;
}

std::string Black(const std::string& body) { return "<BlackList>" + body + "</BlackList>"; }
std::string Item(const std::string& fields) { return "<Item>" + fields + "</Item>"; }
std::string Vid(const char* vid, const char* name) {
  return Item(std::string("<VID>") + vid + "</VID><DeviceName>" + name + "</DeviceName>");
}

using ReadListFileTest = ListFileTest;

TEST_F(ReadListFileTest, ReadsTheItemsInKeyOrder) {
  const struct {
    const char* what;
    std::string content;
    std::vector<ClDeviceKey> items;  // in key order
  } cases[] = {
      {"after a byte order mark, declaration and comment: sorted, a repeated item once",
       "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<!-- c -->\n" +
           Black(ItemXml(kIntel) + ItemXml(kAmd) + ItemXml(kIntel)),
       {kAmd, kIntel}},
      {"a comment between items ends the walk", Black(ItemXml(kAmd) + "<!-- c -->" + ItemXml(kIntel)), {kAmd}},
      {"another element is passed over before the first item and read as an item after it",
       Black("<!-- c -->" + ItemXml(kIntel, "Other") + ItemXml(kAmd) + ItemXml(kNvidia, "Other")), {kAmd, kNvidia}},
      {"fields in any order among comments, the first of a repeat, blanks kept",
       Black(Item("<DriverVersion>d</DriverVersion><!-- c --><DeviceName> n </DeviceName><VID>7</VID>"
                  "<DeviceName>m</DeviceName><DeviceVersion>v</DeviceVersion><OpenCLCVersion>c</OpenCLCVersion>")),
       {{7, " n ", "c", "v", "d"}}},
      {"a missing field, one without text or with blanks only keeps the fresh value",
       Black(Item("<VID><!-- c -->5</VID><DeviceName/><OpenCLCVersion>  </OpenCLCVersion>"
                  "<DriverVersion>d</DriverVersion>")),
       {{0, "", "", "", "d"}}},
      {"CDATA and entities give their text",
       Black(Item("<DeviceName><![CDATA[a<b&c]]></DeviceName><DriverVersion>x &amp; &lt;y&gt; &#65;</DriverVersion>")),
       {{0, "a<b&c", "", "", "x & <y> A"}}},
      {"the vendor id: a decimal scan after blanks and sign, hexadecimal reads 0, saturated",
       Black(Vid(" \t+4318abc", "1") + Vid("-1", "2") + Vid("0x10de", "3") + Vid("99999999999", "4") +
             Vid("-99999999999", "5")),
       {{0, "3", "", "", ""}, {4318, "1", "", "", ""}, {0x7FFFFFFF, "4", "", "", ""}, {0x80000000, "5", "", "", ""},
        {0xFFFFFFFF, "2", "", "", ""}}},
  };
  for (const auto& c : cases) {
    const ListFile list = ReadListFile(Write(c.content).c_str(), kBlackListRoot);
    EXPECT_EQ(list.outcome, ListFileOutcome::kRead) << c.what;
    EXPECT_EQ(Lines(list.items), Lines(c.items)) << c.what;
  }
}

TEST_F(ReadListFileTest, TellsALoadFailure) {
  for (const char* content : {static_cast<const char*>(nullptr), "", "<BlackList><Item>"}) {  // null: no file
    const std::string path = content == nullptr ? path_ + ".missing" : Write(content);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(ReadListFile(path.c_str(), kBlackListRoot).outcome, ListFileOutcome::kLoadFailed) << path;
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "fail to parse xml file: " + path + "\n");
  }
}

// The sort goes through integer prefixes of the strings past their shared start, and has to give the plain
// key order: strings that share a start, end around the prefix length and hold the extreme bytes.
TEST(SortUnique, GivesThePlainKeyOrder) {
  std::mt19937 random(7);
  const auto pick = [&random](std::size_t count) { return static_cast<std::size_t>(random() % count); };
  const char bytes[] = {'\0', '1', 'A', 'a', '\xFF'};
  const uint32_t vendors[] = {0x1, 0x8086, 0x10de, 0x10de01, 0x80000000u};  // differing in each byte
  const auto text = [&](const std::string& start) {  // the start, perhaps less its last byte, and up to ten bytes
    std::string result = start.substr(0, start.size() - pick(2));
    for (std::size_t length = pick(11); length > 0; --length) {
      result += bytes[pick(std::size(bytes))];
    }
    return result;
  };
  for (int round = 0; round < 20; ++round) {
    std::vector<ClDeviceKey> keys;
    for (int n = 0; n < 300; ++n) {
      keys.push_back({vendors[pick(std::size(vendors))], text(pick(2) ? "NVIDIA GeForce " : "NVIDIA GeForce GTX 10"),
                      text("OpenCL C "), text(""), text("3")});
      keys.push_back(keys[pick(keys.size())]);
    }
    std::vector<ClDeviceKey> expected = keys;
    std::sort(expected.begin(), expected.end(), ClDeviceKeyLess);
    expected.erase(std::unique(expected.begin(), expected.end(), ClDeviceKeyEqual), expected.end());
    SortUnique(keys);
    ASSERT_EQ(Lines(keys), Lines(expected)) << "round " << round;
  }
}

std::string Counts(int check, int items, int hits) {
  return "check_list: " + std::to_string(check) + ", black_list: " + std::to_string(items) +
         ". intersection: " + std::to_string(hits) + "\n";
}

using BlackListTest = ListFileTest;

TEST_F(BlackListTest, ChecksTheWholeTableOrTheSelectedDevice) {
  SetTable({kNvidia, kIntel, kAmd});
  SelectedClDevice = kNvidia;
  const ClDeviceKey newerDriver{kNvidia.VID, kNvidia.DeviceName, "OpenCL C 1.2", "OpenCL 3.0 CUDA", "391.36"};
  const std::string checkLine = "    check : [" + kNvidia.DeviceName + "]\n";
  const struct {
    const char* what;
    int32_t gpuIndex;
    std::string content;
    bool result;
    std::string lines;  // between the start and the end line; none: the end line is missing too
  } cases[] = {
      {"no index: every device of the table", -1, ListXml("BlackList", {kAmd, kIntel, kAmd}), true, Counts(3, 2, 2)},
      {"all five fields must match", -1, ListXml("BlackList", {newerDriver}), false, Counts(3, 1, 0)},
      {"no item", -1, ListXml("BlackList", {}), false, Counts(3, 0, 0)},
      {"an index: the selected one", 0, ListXml("BlackList", {kIntel, kNvidia}), true, checkLine + Counts(1, 2, 1)},
      {"not a list", -1, ListXml("blacklist", {kNvidia}), false, ""},
  };
  for (const auto& c : cases) {
    const auto [result, out] = Run(IsInBlackList, c.content, c.gpuIndex);
    EXPECT_EQ(result, c.result) << c.what;
    const std::string end = c.lines.empty() ? "" : "check before in black list end\n\n";
    EXPECT_EQ(out, "check before in black list start\n" + c.lines + end) << c.what;
  }
}

std::string Told(const std::string& name, std::size_t items, bool admitted) {
  return "check before in white list start\n    tocheck: " + name + ", white_list: " + std::to_string(items) +
         ". ok: " + (admitted ? "YES" : "NO") + "\ncheck before in white list end\n\n";
}

ClDeviceKey Gpu(const char* clcVersion, const char* deviceVersion, const char* driver, const char* name = "GPU") {
  return {kNvidia.VID, name, clcVersion, deviceVersion, driver};
}

using WhiteListTest = ListFileTest;

TEST_F(WhiteListTest, ItemsAreMinimumsInByteOrder) {
  const struct {
    const char* what;
    ClDeviceKey device;
    std::vector<ClDeviceKey> items;  // none of them equal
    bool admitted;
  } cases[] = {
      {"9.17 is at least 10.18", Gpu("1", "9.17", "1"), {Gpu("1", "10.18", "1")}, true},
      {"391.35 is at least 391", Gpu("1", "1", "391.35"), {Gpu("1", "1", "391")}, true},
      {"OpenCL C version above", Gpu("1", "1", "1"), {Gpu("2", "1", "1")}, false},
      {"device version above", Gpu("1", "10.18", "1"), {Gpu("1", "9.17", "1")}, false},
      {"driver version above", Gpu("1", "1", "391"), {Gpu("1", "1", "391.35")}, false},
      {"the item after one above admits", Gpu("1", "1", "1"), {Gpu("0", "1", "2"), Gpu("1", "1", "1")}, true},
      {"part of the name", Gpu("1", "1", "1"), {Gpu("1", "1", "1", "GP")}, false},
      {"the name in another case", Gpu("1", "1", "1"), {Gpu("1", "1", "1", "gpu")}, false},
      {"another vendor id", Gpu("1", "1", "1"), {{0, "GPU", "1", "1", "1"}}, false},
      {"no item", Gpu("1", "1", "1"), {}, false},
  };
  for (const auto& c : cases) {
    SetTable({c.device});
    const auto [result, out] = Run(IsInWhiteList, ListXml("WhiteList", c.items), -1);
    EXPECT_EQ(result, c.admitted) << c.what;
    EXPECT_EQ(out, Told(c.device.DeviceName, c.items.size(), c.admitted)) << c.what;
  }
  for (const char* notAList : {"<BlackList><Item/></BlackList>", "<?xml version=\"1.0\"?><!-- no element -->"}) {
    EXPECT_EQ(Run(IsInWhiteList, notAList, -1).second, "check before in white list start\n") << notAList;
  }
}

TEST_F(WhiteListTest, ChoosesTheDeviceUnderTest) {
  // Of a vendor id above Intel's, so that Intel's device comes first in the table.
  const ClDeviceKey other{0x10006, "Other GPU", "OpenCL C 1.2", "OpenCL 3.0", "1.0"};
  const ClDeviceKey arc{kIntel.VID, "Intel(R) Arc(TM) A770 Graphics", "OpenCL C 3.0", "OpenCL 3.0 NEO", "22.43.24595"};
  SelectedClDevice = kNvidia;
  const struct {
    const char* what;
    std::vector<ClDeviceKey> table;
    int32_t gpuIndex;
    ClDeviceKey tocheck;
  } cases[] = {
      {"the first of another vendor than Intel", {kIntel, other}, -1, other},
      {"Intel's alone: the first", {kIntel, arc}, -1, arc},
      {"an index: the selected device", {kIntel, other}, 0, kNvidia},
      {"no device: nothing, not even the fresh item, is admitted", {}, -1, ClDeviceKey{}},
  };
  const std::vector<ClDeviceKey> everyDevice = {ClDeviceKey{}, kIntel, arc, other, kNvidia};
  for (const auto& c : cases) {
    SetTable(c.table);
    const auto [result, out] = Run(IsInWhiteList, ListXml("WhiteList", everyDevice), c.gpuIndex);
    const bool admitted = !c.table.empty();
    EXPECT_EQ(result, admitted) << c.what;
    EXPECT_EQ(out, Told(c.tocheck.DeviceName, everyDevice.size(), admitted)) << c.what;
  }
}

}  // namespace
}  // namespace gpuvet::testing
