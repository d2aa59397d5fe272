#include "runtime/files/text_file.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/win32.h"
#include "runtime/base/handle.h"
#include "support/names.h"

namespace kestrun {
namespace {

TEST(TextFile, ReadGivesTheBytesAndTheirNumber) {
  const test::TempFolder folder;
  const std::string bytes("a\r\nb\0c\n", 7);
  std::string text = "old";
  std::string error;
  u32 size = 99;
  EXPECT_TRUE(ReadTextFile(Path(folder.Write("some", bytes)), &text, &size, &error));
  EXPECT_EQ(text, bytes);
  EXPECT_EQ(size, 7u);
  EXPECT_TRUE(ReadTextFile(Path(folder.Write("empty", "")), &text, &size, &error));
  EXPECT_EQ(text, "");
  EXPECT_EQ(size, 0u);
  EXPECT_TRUE(ReadTextFile(Path(folder.File("some")), nullptr, nullptr, &error));
  EXPECT_EQ(error, "");
  const UniqueFile held(CreateFileA(folder.File("some").c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  for (const std::string& file : {folder.File("missing"), folder.File("some"), folder.File("")}) {
    error.clear();
    EXPECT_FALSE(ReadTextFile(Path(file), &text, &size, &error));
    EXPECT_EQ(error, "Could not open mapped file") << file;
  }
}

}  // namespace
}  // namespace kestrun
