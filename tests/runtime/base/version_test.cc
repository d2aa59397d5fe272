#include "runtime/base/version.h"

#include <gtest/gtest.h>

#include <string>

#include "support/names.h"

namespace kestrun {
namespace {

TEST(Version, AFileWithoutOneLeavesTheNumberAlone) {
  const test::TempFolder folder;
  VersionNumber version(9, 9, 9, 9);
  EXPECT_FALSE(GetFileVersion(folder.File("missing"), version));
  EXPECT_FALSE(GetFileVersion(folder.Write("text.exe", "no program at all"), version));
  EXPECT_FALSE(GetFileVersion(folder.Write("short.exe", std::string("\x7f") + "ELF\x02\x01"), version));
  EXPECT_EQ(version.ToString(), "9.9.9.9");
}

}  // namespace
}  // namespace kestrun
