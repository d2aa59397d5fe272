// Clients that are started in a folder that no request can carry, or with a script that is no plain file.
#include <filesystem>

#include "build_fixture.h"

namespace kestrun::test {
namespace {

using OddStart = Build;

TEST_F(OddStart, InADeepFolderBuildsLocallyAndRefusesScripts) {
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

TEST_F(OddStart, InADeletedFolderSaysSo) {
  StartMaster();
  const std::string gone = folder_.File("gone");
  const std::string enter = "mkdir " + gone + " && cd " + gone + " && rmdir " + gone + " && exec ";
  const RunResult tool = test::Run(
      {"/bin/sh", "-c", enter + ProgramPath("kestrun") + " " + tool_ + " print here , exit 3"}, WithEnvironment({}));
  EXPECT_EQ(tool.exitCode, 3);
  EXPECT_EQ(tool.output, "here\n");
  EXPECT_EQ(tool.errors,
            "KESTRUN: error: the working directory has been deleted\nKESTRUN: warning: building locally...\n");
}

// The user is told why the settings could not be read, and is not told to start a master.
TEST_F(OddStart, WithTooFewDescriptorsSaysSo) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers look at memory through a pipe";
#endif
  const RunResult tool = test::Run(
      {"/bin/sh", "-c", "ulimit -n 4; exec " + ProgramPath("kestrun") + " " + tool_ + " exit 0"}, WithEnvironment({}));
  EXPECT_EQ(tool.exitCode, 1);
  EXPECT_NE(tool.errors.find("Zelvo.ini: Too many open files\n"), std::string::npos) << tool.errors;
  EXPECT_EQ(tool.errors.find("run the build as"), std::string::npos) << tool.errors;
}

TEST_F(OddStart, ReadsAScriptFromAPipe) {
  StartMaster();
  ChildOptions options;
  options.input = "\xEF\xBB\xBF" + tool_ + " print a\n" + tool_ + " exit 4\n";
  const RunResult script = Kestrun({"-s", "/dev/stdin"}, options);
  EXPECT_EQ(script.exitCode, 4) << script.errors;
}

}  // namespace
}  // namespace kestrun::test
