// The verdict's decisions in-process: how list files are read, the black and
// white list tests over the device table, and the driver year.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "opencl/cl_device_key.h"
#include "verdict/black_list.h"
#include "verdict/list_file.h"
#include "verdict/run_verdict.h"
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
    SortUnique(ClDeviceTable = std::move(devices));
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
    const bool result = listTest(Write(content).c_str(), gpuIndex, ReadListFile);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << content;
    return {result, ::testing::internal::GetCapturedStdout()};
  }
  const std::string path_ = ::testing::TempDir() + "gpuvet_list_" + std::to_string(getpid()) + ".xml";
};

std::string Black(const std::string& body) { return "<BlackList>" + body + "</BlackList>"; }
std::string Item(const std::string& fields) { return "<Item>" + fields + "</Item>"; }

TEST_F(ListFileTest, ReadsTheItemsInKeyOrder) {
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
      {"the vendor id: a decimal scan, hexadecimal reads 0, a negative one kept bit for bit",
       Black(Item("<VID> +4318abc</VID><DeviceName>1</DeviceName>") + Item("<VID>-1</VID><DeviceName>2</DeviceName>") +
             Item("<VID>0x10de</VID><DeviceName>3</DeviceName>")),
       {{0, "3", "", "", ""}, {4318, "1", "", "", ""}, {0xFFFFFFFF, "2", "", "", ""}}},
  };
  for (const auto& c : cases) {
    const ListFile list = ReadListFile(Write(c.content).c_str(), kBlackListRoot);
    EXPECT_EQ(list.outcome, ListFileOutcome::kRead) << c.what;
    EXPECT_EQ(ListXml("Read", list.items), ListXml("Read", c.items)) << c.what;
  }
  // No file, or no XML: the failure is told on standard error.
  for (const std::string& path : {path_ + ".missing", Write("<BlackList><Item>")}) {
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(ReadListFile(path.c_str(), kBlackListRoot).outcome, ListFileOutcome::kLoadFailed) << path;
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "fail to parse xml file: " + path + "\n");
  }
}

TEST_F(ListFileTest, BlackListChecksTheWholeTableOrTheSelectedDevice) {
  SetTable({kNvidia, kIntel, kAmd});
  SelectedClDevice = kNvidia;
  const ClDeviceKey newerDriver{kNvidia.VID, kNvidia.DeviceName, "OpenCL C 1.2", "OpenCL 3.0 CUDA", "391.36"};
  const auto counts = [](int check, int items, int hits) {
    return "check_list: " + std::to_string(check) + ", black_list: " + std::to_string(items) +
           ". intersection: " + std::to_string(hits) + "\n";
  };
  const struct {
    const char* what;
    int32_t gpuIndex;
    std::string content;
    bool result;
    std::string lines;  // between the start and the end line; none: the end line is missing too
  } cases[] = {
      {"no index: every device of the table", -1, ListXml("BlackList", {kAmd, kIntel, kAmd}), true, counts(3, 2, 2)},
      {"all five fields must match", -1, ListXml("BlackList", {newerDriver}), false, counts(3, 1, 0)},
      {"an index: the selected one", 0, ListXml("BlackList", {kIntel, kNvidia}), true,
       "    check : [" + kNvidia.DeviceName + "]\n" + counts(1, 2, 1)},
      {"not a list", -1, ListXml("blacklist", {kNvidia}), false, ""},
  };
  for (const auto& c : cases) {
    const auto [result, out] = Run(IsInBlackList, c.content, c.gpuIndex);
    EXPECT_EQ(result, c.result) << c.what;
    const std::string end = c.lines.empty() ? "" : "check before in black list end\n\n";
    EXPECT_EQ(out, "check before in black list start\n" + c.lines + end) << c.what;
  }
}

ClDeviceKey Gpu(const char* clcVersion, const char* deviceVersion, const char* driver, const char* name = "GPU") {
  return {kNvidia.VID, name, clcVersion, deviceVersion, driver};
}

// The device under test: with an index the selected one, else the first of
// another vendor than Intel, else the first; with none nothing is admitted. An
// item admits a device of its vendor and name whose versions are each at least
// the item's, in byte order.
TEST_F(ListFileTest, WhiteListAdmitsTheDeviceUnderTest) {
  const ClDeviceKey other{0x10006, "Other GPU", "OpenCL C 1.2", "OpenCL 3.0", "1.0"};  // sorts after Intel's
  const ClDeviceKey arc{kIntel.VID, "Intel(R) Arc(TM) A770 Graphics", "OpenCL C 3.0", "OpenCL 3.0 NEO", "22.43.24595"};
  const std::vector<ClDeviceKey> every = {ClDeviceKey{}, kIntel, arc, other, kNvidia};
  SelectedClDevice = kNvidia;
  const struct {
    const char* what;
    std::vector<ClDeviceKey> table;
    std::vector<ClDeviceKey> items;  // none of them equal
    bool admitted;
    int32_t gpuIndex = -1;
    std::string tocheck = "GPU";
  } cases[] = {
      {"9.17 is at least 10.18", {Gpu("1", "9.17", "1")}, {Gpu("1", "10.18", "1")}, true},
      {"391.35 is at least 391", {Gpu("1", "1", "391.35")}, {Gpu("1", "1", "391")}, true},
      {"OpenCL C version above", {Gpu("1", "1", "1")}, {Gpu("2", "1", "1")}, false},
      {"device version above", {Gpu("1", "10.18", "1")}, {Gpu("1", "9.17", "1")}, false},
      {"driver version above", {Gpu("1", "1", "391")}, {Gpu("1", "1", "391.35")}, false},
      {"an equal item after one above", {Gpu("1", "1", "1")}, {Gpu("0", "1", "2"), Gpu("1", "1", "1")}, true},
      {"part of the name", {Gpu("1", "1", "1")}, {Gpu("1", "1", "1", "GP")}, false},
      {"the name in another case", {Gpu("1", "1", "1")}, {Gpu("1", "1", "1", "gpu")}, false},
      {"another vendor id", {Gpu("1", "1", "1")}, {{0, "GPU", "1", "1", "1"}}, false},
      {"the first of another vendor than Intel", {kIntel, other}, every, true, -1, other.DeviceName},
      {"Intel's alone: the first", {kIntel, arc}, every, true, -1, arc.DeviceName},
      {"an index: the selected device", {kIntel, other}, every, true, 0, kNvidia.DeviceName},
      {"no device, not even for the fresh item", {}, every, false, -1, ""},
  };
  for (const auto& c : cases) {
    SetTable(c.table);
    const auto [result, out] = Run(IsInWhiteList, ListXml("WhiteList", c.items), c.gpuIndex);
    EXPECT_EQ(result, c.admitted) << c.what;
    EXPECT_EQ(out, "check before in white list start\n    tocheck: " + c.tocheck + ", white_list: " +
                       std::to_string(c.items.size()) + ". ok: " + (c.admitted ? "YES" : "NO") +
                       "\ncheck before in white list end\n\n")
        << c.what;
  }
  for (const char* notAList : {"<BlackList><Item/></BlackList>", "<?xml version=\"1.0\"?><!-- no element -->"}) {
    const std::pair<bool, std::string> silentNo{false, "check before in white list start\n"};
    EXPECT_EQ(Run(IsInWhiteList, notAList, -1), silentNo) << notAList;
  }
}

// A byte comparison with the year's text: "2012" is the date of a failed driver lookup.
TEST(IsOldDriver, ComparesTheDateTextWithTheYearByteByByte) {
  for (const auto& [date, old] : {std::pair<const char*, bool>{"2012", true}, {"", true},
                                  {"20171231000000.000000-000", true}, {"2018", false},
                                  {"20180101000000.000000-000", false}}) {
    EXPECT_EQ(IsOldDriver(date), old) << "'" << date << "'";
  }
}

}  // namespace
}  // namespace gpuvet::testing
