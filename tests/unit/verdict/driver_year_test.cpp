#include <gtest/gtest.h>

#include "verdict/run_verdict.h"

namespace gpuvet {
namespace {

TEST(IsOldDriver, ComparesTheDateTextWithTheYearByteByByte) {
  const struct { const char* date; bool old; } cases[] = {
      {"2012", true},  // the date of a failed driver lookup
      {"", true},
      {"20171231000000.000000-000", true},
      {"2018", false},
      {"20180101000000.000000-000", false},
      {"20240517000000.000000-000", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(IsOldDriver(c.date), c.old) << "'" << c.date << "'";
  }
}

}  // namespace
}  // namespace gpuvet
