#include "client/script_file.h"

#include <gtest/gtest.h>

#include "support/names.h"

namespace kestrun {
namespace {

TEST(ScriptFile, GivesEveryByteButAByteOrderMarkAtTheStart) {
  const test::TempFolder folder;
  const std::string mark = "\xEF\xBB\xBF";
  const std::string large(100000, 'x');
  for (const std::string& text :
       {std::string(), mark.substr(0, 2), "a\r\n" + mark, std::string("\0\x1A\n", 3), large}) {
    for (const std::string& start : {std::string(), mark}) {
      std::string read = "before";
      EXPECT_TRUE(ReadScriptFile(Path(folder.Write("script", start + text)), read));
      EXPECT_EQ(read, text);
    }
  }
}

TEST(ScriptFile, IsNoFolderAndNotMissing) {
  const test::TempFolder folder;
  std::string text;
  EXPECT_FALSE(ReadScriptFile(Path(folder.Path().string()), text));
  EXPECT_FALSE(ReadScriptFile(Path(folder.File("missing")), text));
}

}  // namespace
}  // namespace kestrun
