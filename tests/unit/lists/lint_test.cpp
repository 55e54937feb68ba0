// Each lint check caught on a small list, and every check silent on a clean one.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "lists/lint.h"

namespace gpuvet::lists {
namespace {

// One item on one line; `extra` goes inside it.
std::string Item(const std::string& vid, const std::string& name, const std::string& driver = "470",
                 const std::string& element = "Item", const std::string& extra = "") {
  return "<" + element + "><VID>" + vid + "</VID><DeviceName>" + name +
         "</DeviceName><OpenCLCVersion>OpenCL C 1.2</OpenCLCVersion><DeviceVersion>OpenCL 3.0 CUDA</DeviceVersion>"
         "<DriverVersion>" + driver + "</DriverVersion>" + extra + "</" + element + ">\n";
}

const std::string kGtx = Item("4318", "NVIDIA GeForce GTX 1080");
const std::string kA100 = Item("4318", "NVIDIA A100", "525");

// An A100 item with these minimums.
std::string Versions(const std::string& deviceVersion, const std::string& driver) {
  return "<Item><VID>4318</VID><DeviceName>NVIDIA A100</DeviceName><OpenCLCVersion>OpenCL C 1.2</OpenCLCVersion>"
         "<DeviceVersion>OpenCL " + deviceVersion + "</DeviceVersion><DriverVersion>" + driver +
         "</DriverVersion></Item>\n";
}

std::string White(const std::string& items) { return "<?xml version=\"1.0\"?>\n<WhiteList>\n" + items + "</WhiteList>\n"; }
std::string Black(const std::string& items) { return "<?xml version=\"1.0\"?>\n<BlackList>\n" + items + "</BlackList>\n"; }

struct LintCase {
  const char* name;
  std::string content;
  ListKind kind;
  const char* check;  // "": no finding at all
  Severity severity;
  int line;
  const char* inMessage;
  int column = 0;  // 0: not looked at
};

void PrintTo(const LintCase& lintCase, std::ostream* out) { *out << lintCase.name; }

class LintTest : public ::testing::TestWithParam<LintCase> {
 protected:
  void TearDown() override { std::remove(path_.c_str()); }
  const std::string path_ = ::testing::TempDir() + "gpuvet_lint_" + std::to_string(getpid()) + ".xml";
};

TEST_P(LintTest, ReportsExactlyItsCheck) {
  const LintCase& param = GetParam();
  std::ofstream(path_, std::ios::binary) << param.content;
  const LintResult result = LintListFile(path_, param.kind);
  ASSERT_TRUE(result.opened);
  std::string all;
  for (const Finding& finding : result.findings) {
    all += FormatFinding(finding) + "\n";
  }
  if (std::string(param.check).empty()) {
    EXPECT_EQ(all, "");
    return;
  }
  ASSERT_EQ(result.findings.size(), 1U) << all;
  const Finding& finding = result.findings[0];
  EXPECT_EQ(finding.check, param.check) << all;
  EXPECT_EQ(finding.severity, param.severity) << all;
  EXPECT_EQ(finding.line, param.line) << all;
  EXPECT_NE(finding.message.find(param.inMessage), std::string::npos) << all;
  if (param.column != 0) {
    EXPECT_EQ(finding.column, param.column) << all;
  }
}

constexpr Severity kError = Severity::kError;
constexpr Severity kWarning = Severity::kWarning;

INSTANTIATE_TEST_SUITE_P(
    Checks, LintTest,
    ::testing::Values(
        LintCase{"CleanWhiteList", White(kGtx + kA100 + Item("4318", "NVIDIA H100", "520", "Item", "<!-- c -->") + Item("65542", "cpu-haswell")),
                 ListKind::kWhite, "", kError, 0, ""},
        LintCase{"CleanBlackList", Black(kGtx + kA100), ListKind::kEither, "", kError, 0, ""},
        LintCase{"NotWellFormed", "<WhiteList>\n<Item>\n", ListKind::kWhite, "xml-error", kError, 2,
                 "refuses every device"},
        LintCase{"Empty", "", ListKind::kBlack, "xml-error", kError, 1, "lets every device pass"},
        LintCase{"RootOfNoList", "<Whitelist>\n" + kGtx + "</Whitelist>\n", ListKind::kEither, "root", kError, 1,
                 "neither"},
        LintCase{"RootOfTheOtherKind", White(kGtx), ListKind::kBlack, "root", kError, 2, "black list is expected"},
        LintCase{"NoItems", White("<Items/>\n"), ListKind::kEither, "no-items", kError, 2, "refuses every device"},
        LintCase{"CommentEndsTheList", Black(kGtx + "<!-- AMD -->\n" + kA100 + kA100), ListKind::kBlack,
                 "unread-items", kError, 4, "the 2 items behind it are never read"},
        LintCase{"ElementOfAnotherName", Black(kGtx + Item("4318", "NVIDIA A100", "525", "Entry")), ListKind::kBlack,
                 "not-item", kWarning, 4, "element \"Entry\""},
        LintCase{"HexadecimalVid", Black(Item("0x10de", "NVIDIA A100")), ListKind::kBlack, "vid", kError, 3,
                 "gpuvet reads 0; for the hexadecimal 0x10de write 4318"},
        LintCase{"UnknownVendor", Black(Item("30583", "NVIDIA A100")), ListKind::kBlack, "vid-unknown", kWarning, 3,
                 "0x7777"},
        LintCase{"PaddedText", Black(Item("4318", "NVIDIA A100 ")), ListKind::kBlack, "padded", kError, 3,
                 "\"NVIDIA A100 \" has white space at its end"},
        LintCase{"EmptyNameNeverMatches", White(Item("4318", "")), ListKind::kWhite, "missing-field", kError, 3,
                 "can never match"},
        LintCase{"EmptyMinimumWidens", White(Item("4318", "NVIDIA A100", " ")), ListKind::kWhite, "missing-field",
                 kWarning, 3, "admits every version"},
        LintCase{"EmptyBlackListVersion", Black(Item("4318", "NVIDIA A100", "")), ListKind::kBlack, "missing-field",
                 kError, 3, "can never match"},
        LintCase{"UnknownField", Black(Item("4318", "NVIDIA A100", "1", "Item", "<DriverVer>1</DriverVer>")),
                 ListKind::kBlack, "unknown-field", kWarning, 3, "did you mean <DriverVersion>?"},
        LintCase{"Duplicate", Black(kGtx + kA100 + kA100), ListKind::kBlack, "duplicate", kWarning, 5, "line 4"},
        // Each direction of the file order, with versions such that neither item covers the other.
        LintCase{"VersionOrderLowerFirst", White(Versions("3.0", "9.17") + Versions("3.1", "10.18")), ListKind::kWhite,
                 "version-order", kWarning, 4, "\"10.18\" and \"9.17\" of the item at line 3 order one way as numbers"
                 " and the other byte by byte: gpuvet takes \"9.17\" as the higher"},
        LintCase{"VersionOrderHigherFirst", White(Versions("3.1", "10.18") + Versions("3.0", "9.17")), ListKind::kWhite,
                 "version-order", kWarning, 4, "gpuvet takes \"9.17\" as the higher"},
        LintCase{"ShadowedByALaterItem", White(Item("4318", "NVIDIA A100", "525.1") + kGtx + kA100), ListKind::kWhite,
                 "shadowed", kWarning, 3, "the item at line 5"},
        LintCase{"DuplicateGroupOnce", Black(kA100 + kA100 + kA100 + kA100), ListKind::kBlack, "duplicate", kWarning,
                 4, "line 3: gpuvet counts it once; 2 more repeats of it follow"},
        // A blank through an entity or CDATA is still no number.
        LintCase{"BlankVidThroughEntity", Black(Item("&#32;", "NVIDIA A100")), ListKind::kBlack, "vid", kError, 3,
                 "gpuvet reads 0"},
        LintCase{"BlankVidThroughCdata", Black(Item("<![CDATA[ ]]>", "NVIDIA A100")), ListKind::kBlack, "vid", kError,
                 3, "gpuvet reads 0"},
        LintCase{"VidPastTheSignedRange", Black(Item("4294967295", "NVIDIA A100")), ListKind::kBlack, "vid", kError, 3,
                 "gpuvet reads 2147483647"},
        LintCase{"VidBeyondPciAndKhronos", Black(Item("+0131072", "NVIDIA A100")), ListKind::kBlack, "vid-unknown",
                 kWarning, 3, "131072 (0x20000) is neither"},
        LintCase{"PaddedAtTheStart", Black(Item("4318", " GeForce")), ListKind::kBlack, "padded", kError, 3,
                 "has white space at its start"},
        LintCase{"VersionsOfTheDriverStackInTheName",
                 Black(Item("4098", "AMD Radeon RX 6650 XT (radeonsi, navi23, LLVM 17.0.6, DRM 3.57, 6.9.0-273-tkg)")),
                 ListKind::kBlack, "volatile-name", kWarning, 3, "\"LLVM 17.0.6\""},
        LintCase{"KernelReleaseInTheName", Black(Item("4098", "AMD Radeon (radeonsi, 5.15.0-91-generic)")),
                 ListKind::kBlack, "volatile-name", kWarning, 3, "\"5.15.0-91-generic\""},
        // What the terminal would act on comes out escaped, in texts and in element names.
        LintCase{"ControlsEscapedInTexts", Black(Item("4318", " \xc2\x9b" "31m\xff\x1b")), ListKind::kBlack, "padded",
                 kError, 3, "\" \\xc2\\x9b31m\\xff\\x1b\""},
        LintCase{"ControlsEscapedInNames", Black(Item("4318", "NVIDIA A100", "1", "Item", "<Dr\xc2\x9b>1</Dr\xc2\x9b>")),
                 ListKind::kBlack, "unknown-field", kWarning, 3, "element \"Dr\\xc2\\x9b\""},
        // Two items on one line: the finding stands at the second item's own <VID>.
        LintCase{"ColumnOnASharedLine", Black(kGtx.substr(0, kGtx.size() - 1) + Item("0x10de", "NVIDIA A100")),
                 ListKind::kBlack, "vid", kError, 3, "write 4318", static_cast<int>(kGtx.size()) + 6},
        LintCase{"Shadowed", White(kA100 + kGtx + Item("4318", "NVIDIA A100", "525.1")), ListKind::kWhite, "shadowed",
                 kWarning, 5, "line 3"}));

// Anything but a regular file is refused at once: a FIFO without a writer, a folder.
TEST(LintListFile, RefusesWhatIsNotARegularFile) {
  const std::string fifo = ::testing::TempDir() + "gpuvet_lint_fifo_" + std::to_string(getpid());
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path : {fifo, ::testing::TempDir()}) {
    const LintResult result = LintListFile(path, ListKind::kEither);
    EXPECT_FALSE(result.opened) << path;
    EXPECT_NE(result.openError.find("not a regular file"), std::string::npos) << result.openError;
  }
  std::remove(fifo.c_str());
}

// Many items of one device whose versions disagree pair by pair: each check
// speaks once for the device, not once per pair.
TEST(LintListFile, ReportsADeviceOnceHoweverManyItemsItHas) {
  constexpr int kItems = 2000;
  std::string items;
  for (int i = 1; i <= kItems; ++i) {
    items += Versions(std::to_string(kItems - i) + ".0", std::to_string(i) + ".0") + Versions("1.0", "1.0");
  }
  const std::string path = ::testing::TempDir() + "gpuvet_lint_many_" + std::to_string(getpid()) + ".xml";
  std::ofstream(path, std::ios::binary) << White(items);
  const LintResult result = LintListFile(path, ListKind::kWhite);
  std::remove(path.c_str());
  std::string all;
  for (const Finding& finding : result.findings) {
    all += finding.check + ": " + finding.message.substr(0, 200) + "\n";
  }
  EXPECT_EQ(result.findings.size(), 4U) << all;  // duplicate, two version orders, shadowed
}

}  // namespace
}  // namespace gpuvet::lists
