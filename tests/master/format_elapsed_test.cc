#include "master/format_elapsed.h"

#include <gtest/gtest.h>

namespace kestrun {
namespace {

TEST(FormatElapsed, GrowsFromMillisecondsToMinutes) {
  const struct {
    u32 ms;
    const char* text;
  } cases[] = {{0, "0ms"},       {999, "999ms"},   {1000, "1s"},        {2500, "2.5s"},           {9999, "9.999s"},
               {10000, "00:10"}, {65999, "01:05"}, {6000000, "100:00"}, {4294967295u, "71582:47"}};
  for (const auto& c : cases) EXPECT_EQ(FormatElapsed(c.ms), c.text);
}

}  // namespace
}  // namespace kestrun
