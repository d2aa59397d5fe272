#include "client/tool_lookup.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/host.h"
#include "platform/win32.h"
#include "support/names.h"

namespace kestrun {
namespace {

namespace fs = std::filesystem;

class ToolLookup : public testing::Test {
 protected:
  void AddTool(const std::string& name) {
    const fs::path file = folder_.Path() / name;
    fs::create_directories(file.parent_path());
    std::ofstream(file).put('x');
    fs::permissions(file, fs::perms::owner_all);
  }
  // What the name below the test's folder means, relative to that folder.
  std::string Find(const std::string& name) {
    return fs::path(FindTypedTool(folder_.File(name)).ToString()).lexically_relative(folder_.Path()).generic_string();
  }

  test::TempFolder folder_;
};

TEST_F(ToolLookup, TakesTheNameAsTypedBeforeTheLowerCasedOne) {
  AddTool("tools/cc.exe");
  EXPECT_FALSE(FindTypedTool(folder_.File("tools/CC")).IsEmpty());
  if (platform::kFileNamesIgnoreCase) return;
  EXPECT_EQ(Find("Tools/CC"), "tools/cc.exe");
  AddTool("Tools/cc.exe");
  AddTool("Tools/Cxx.exe");
  AddTool("tools/CC.exe");
  EXPECT_EQ(Find("Tools/cc"), "Tools/cc.exe");
  EXPECT_EQ(Find("Tools/CXX"), "Tools/Cxx.exe");
  EXPECT_EQ(Find("tools/CC"), "tools/CC.exe");
  EXPECT_EQ(Find("tools/CC.EXE"), "tools/cc.exe");
  EXPECT_EQ(Find("TOOLS/cc"), "tools/cc.exe");
}

TEST_F(ToolLookup, NamesTheMissingOneInLowerCase) {
  testing::internal::CaptureStderr();
  EXPECT_TRUE(FindTypedTool("No-Such-Tool").IsEmpty());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "KESTRUN: error: Cannot locate executable for \"no-such-tool\"\n");
}

}  // namespace
}  // namespace kestrun
