#include "runtime/version.h"

#include <gtest/gtest.h>

#include "runtime/error_text.h"
#include "support/names.h"

namespace kestrun {
namespace {

TEST(Version, PrintsItsPartsWithDots) {
  EXPECT_EQ(VersionNumber(1, 2, 3, 4).ToString(), "1.2.3.4");
  EXPECT_EQ(VersionNumber(0, 65535, 0, 10).ToString(), "0.65535.0.10");
}

TEST(Version, AFileWithoutOneLeavesTheNumberAlone) {
  const test::TempFolder folder;
  VersionNumber version(9, 9, 9, 9);
  EXPECT_FALSE(GetFileVersion(folder.File("missing"), version));
  EXPECT_FALSE(GetFileVersion(folder.Write("text.exe", "no program at all"), version));
  EXPECT_EQ(version, VersionNumber(9, 9, 9, 9));
}

TEST(ErrorText, IsTheSystemsWithItsLineEnd) {
  const std::string text = GetErrorText(2);
  ASSERT_GT(text.size(), 2u);
  EXPECT_EQ(text.substr(text.size() - 2), "\r\n");
  EXPECT_NE(text, GetErrorText(5));
  EXPECT_EQ(GetErrorText(0x2FFFFFFF), "");
}

}  // namespace
}  // namespace kestrun
