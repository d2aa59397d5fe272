// A working directory whose name no request can carry.
#include <filesystem>

#include "build_fixture.h"

namespace kestrun::test {
namespace {

using DeepFolder = Build;

TEST_F(DeepFolder, BuildsLocallyAndRefusesScripts) {
  StartMaster();
  const std::filesystem::path deep = folder_.Path() / std::string(150, 'd') / std::string(150, 'e');
  std::filesystem::create_directories(deep);
  ChildOptions options;
  options.workingDirectory = deep.string();
  const RunResult tool = Tool({"cwd", ",", "exit", "3"}, options);
  EXPECT_EQ(tool.exitCode, 3);
  EXPECT_EQ(tool.output, deep.string() + "\n");
  EXPECT_NE(tool.errors.find("building locally..."), std::string::npos);

  const RunResult script = Kestrun({"-s", WriteScript("$TOOL exit 0\n")}, options);
  EXPECT_EQ(script.exitCode, 1);
  EXPECT_NE(script.errors.find("the name of the working directory is too long"), std::string::npos);
}

}  // namespace
}  // namespace kestrun::test
