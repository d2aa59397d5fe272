#include "runtime/base/assertion.h"

#include <gtest/gtest.h>

namespace kestrun {
namespace {

TEST(Assertion, OnlyReports) {
  testing::internal::CaptureStderr();
  AssertFailed("a == b", "x.cc", 12);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ASSERTION FAILED(a == b) at x.cc:12\n");
}

}  // namespace
}  // namespace kestrun
