#include <gtest/gtest.h>

#include "master/failure_list.h"
#include "master/format_elapsed.h"

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

TEST(FailureList, NamesJobsInTheirOrderAndCountsThoseBeyondItsBound) {
  FailureList failures(2);
  Log::Fields fields;
  failures.Add(5, "five");
  failures.Add(3, "three");
  failures.AddTo(fields);
  EXPECT_EQ(fields, (Log::Fields{{"failed_file", "three"}, {"failed_file", "five"}}));
  failures.Add(1, "one");
  fields.clear();
  failures.AddTo(fields);
  EXPECT_EQ(fields, (Log::Fields{{"failed_file", "three"}, {"failed_file", "five"}, {"more_failed_files", "1"}}));
}

}  // namespace
}  // namespace kestrun
