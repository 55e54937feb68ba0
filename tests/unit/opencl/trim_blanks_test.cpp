#include <gtest/gtest.h>

#include <string>

#include "opencl/device_census.h"

namespace gpuvet {
namespace {

TEST(TrimBlanks, ErasesOnlyBlanksAtBothEnds) {
  const struct {
    std::string in;
    std::string out;
  } cases[] = {
      {"GeForce", "GeForce"},
      {"  GeForce GTX  1080 ", "GeForce GTX  1080"},  // blanks inside stay
      {"   ", ""},
      {"", ""},
      {"\tRadeon\n", "\tRadeon\n"},  // a tab or a line end is no blank
      {" \t x \t ", "\t x \t"},
      {std::string(" a\0b ", 5), std::string("a\0b", 3)},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TrimBlanks(c.in), c.out) << "'" << c.in << "'";
  }
}

}  // namespace
}  // namespace gpuvet
