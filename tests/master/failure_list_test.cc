#include "master/failure_list.h"

#include <gtest/gtest.h>

namespace kestrun {
namespace {

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

TEST(FailureList, CutsACommandLineThatIsTooLongForTheLog) {
  FailureList failures(2);
  const std::string longest(FailureList::kMostBytes, 'x');
  failures.Add(1, longest);
  failures.Add(2, longest + "y");
  Log::Fields fields;
  failures.AddTo(fields);
  EXPECT_EQ(fields, (Log::Fields{{"failed_file", longest}, {"failed_file", longest + "..."}}));
}

}  // namespace
}  // namespace kestrun
