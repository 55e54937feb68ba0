#include "platform/runtime_text.h"

#include <gtest/gtest.h>

#include <utility>

namespace gpuvet::platform {
namespace {

TEST(TextToInt, ReadsLikeTheRuntime) {
  constexpr int32_t kMax = 2147483647;
  constexpr int32_t kMin = -kMax - 1;
  const std::pair<const char*, int32_t> cases[] = {
      {"42", 42},           {"-7", -7},           {"+3", 3},          {" \t\n12", 12}, {"12ab", 12},
      {"abc", 0},           {"-", 0},             {"- 5", 0},         {"0x10", 0},     {"2147483647", kMax},
      {"2147483648", kMax}, {"-2147483649", kMin}, {"99999999999999999999999999", kMax},
  };
  for (const auto& [text, value] : cases) {
    EXPECT_EQ(TextToInt(text), value) << '"' << text << '"';
  }
}

}  // namespace
}  // namespace gpuvet::platform
