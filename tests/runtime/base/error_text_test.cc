#include "runtime/base/error_text.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrun {
namespace {

TEST(ErrorText, IsTheSystemsWithItsLineEnd) {
  const std::string text = GetErrorText(2);
  ASSERT_GT(text.size(), 2u);
  EXPECT_EQ(text.substr(text.size() - 2), "\r\n");
  EXPECT_NE(text, GetErrorText(5));
  EXPECT_EQ(GetErrorText(0x2FFFFFFF), "");
}

}  // namespace
}  // namespace kestrun
