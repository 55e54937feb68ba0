#include "platform/runtime_text.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

struct NumberCase {
  const char* text;
  int32_t value;
};

class TextToIntTest : public ::testing::TestWithParam<NumberCase> {};

TEST_P(TextToIntTest, ReadsLikeTheRuntime) {
  EXPECT_EQ(TextToInt(GetParam().text), GetParam().value) << '"' << GetParam().text << '"';
}

INSTANTIATE_TEST_SUITE_P(Numbers, TextToIntTest,
                         ::testing::Values(NumberCase{"0", 0}, NumberCase{"42", 42}, NumberCase{"-7", -7},
                                           NumberCase{"+3", 3}, NumberCase{" \t\n12", 12}, NumberCase{"12ab", 12},
                                           NumberCase{"abc", 0}, NumberCase{"", 0}, NumberCase{"-", 0},
                                           NumberCase{"0x10", 0}, NumberCase{"- 5", 0}, NumberCase{"007", 7},
                                           NumberCase{"2147483647", 2147483647},
                                           NumberCase{"2147483648", 2147483647},
                                           NumberCase{"-2147483648", -2147483647 - 1},
                                           NumberCase{"-2147483649", -2147483647 - 1},
                                           NumberCase{"99999999999999999999999999", 2147483647},
                                           NumberCase{"-99999999999999999999999999", -2147483647 - 1}));

TEST(CompareIgnoreCase, AsciiCaseOnlyAndWholeText) {
  EXPECT_EQ(CompareIgnoreCase("--NoTest", "--notest"), 0);
  EXPECT_EQ(CompareIgnoreCase("--GPU", "--gpu"), 0);
  EXPECT_NE(CompareIgnoreCase("--gp", "--gpu"), 0);
  EXPECT_NE(CompareIgnoreCase("--gpu=1", "--gpu"), 0);
  EXPECT_NE(CompareIgnoreCase("--gpü", "--gpu"), 0);
  EXPECT_LT(CompareIgnoreCase("a", "B"), 0);
}

}  // namespace
}  // namespace platform
