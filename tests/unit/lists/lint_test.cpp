// Each lint check caught on a small list, and every check silent on a clean one.
#include <gtest/gtest.h>
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
}

constexpr Severity kError = Severity::kError;
constexpr Severity kWarning = Severity::kWarning;

INSTANTIATE_TEST_SUITE_P(
    Checks, LintTest,
    ::testing::Values(
        LintCase{"CleanWhiteList", White(kGtx + kA100 + Item("4318", "NVIDIA A100", "520", "Item", "<!-- c -->")),
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
                 "not-item", kWarning, 4, "<Entry>"},
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
        LintCase{"VersionOrder", White(Item("4318", "NVIDIA A100", "9.17") + Item("4318", "NVIDIA A100", "10.18")),
                 ListKind::kWhite, "version-order", kWarning, 4, "gpuvet takes \"9.17\" as the higher"},
        LintCase{"Shadowed", White(kA100 + kGtx + Item("4318", "NVIDIA A100", "525.1")), ListKind::kWhite, "shadowed",
                 kWarning, 5, "line 3"}));

}  // namespace
}  // namespace gpuvet::lists
