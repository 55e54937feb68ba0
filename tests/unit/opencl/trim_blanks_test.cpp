#include <gtest/gtest.h>

#include <string>

#include "opencl/device_census.h"

namespace gpuvet {
namespace {

TEST(TrimBlanks, ErasesOnlyBlanksAtBothEnds) {
  const std::pair<std::string, std::string> cases[] = {
      {"  GeForce GTX  1080 ", "GeForce GTX  1080"},  // blanks inside stay
      {"   ", ""},
      {" \t x \n ", "\t x \n"},  // a tab or a line end is no blank
      {std::string(" a\0b ", 5), std::string("a\0b", 3)},
  };
  for (const auto& [in, out] : cases) {
    EXPECT_EQ(TrimBlanks(in), out) << "'" << in << "'";
  }
}

}  // namespace
}  // namespace gpuvet
