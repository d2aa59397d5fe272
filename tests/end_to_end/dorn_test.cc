// dorn: a build with its master, from start to end.
#include <filesystem>

#include "dorn_fixture.h"
#include "platform/host.h"
#include "protocol/dorn_session.h"

namespace kestrun::test {
namespace {

TEST_F(Dorn, RunsABuildWithAMasterAndPassesItsExitCode) {
  const RunResult result = RunDorn({"--", ProgramPath("kestrun"), tool_, "print", "through", ",", "exit", "13"});
  EXPECT_EQ(result.exitCode, 13);
  EXPECT_EQ(result.output, "through\n");
  EXPECT_EQ(LogCount("Build Job completed (FAIL)"), 1);
  EXPECT_EQ(LogCount("========== Client Build Finished =========="), 1);
  EXPECT_LE(LogCount("Finished Jobs"), 2);  // the finish event, if it was seen, and the stop
}

TEST_F(Dorn, UsesTheIdThatItIsGiven) {
  const RunResult result = RunDorn({"--id", "its_own_id", tool_, "env", "KESTRUN_ID", ",", "env", kDornVariable});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "its_own_id\n(unset)\n");
}

TEST_F(Dorn, WritesAFirstSettingsFileAndKeepsOneThatIsThere) {
  std::filesystem::remove_all(folder_.Path() / "common");
  const RunResult first = RunDorn({tool_, "exit", "0"});
  EXPECT_EQ(first.exitCode, 0);
  EXPECT_NE(first.errors.find("Zelvo.ini"), std::string::npos);
  const std::string written = folder_.Read("common/DORN/Zelvo.ini");
  EXPECT_NE(written.find("MaxConcurrentJobs=int:"), std::string::npos);
  for (const char* name : {"EagerScheduling", "CancelOrphanedJobs", "EnforceJobTimeout", "DiscardOutput",
                           "ReclaimPlaces", "TransparentTools"}) {
    EXPECT_NE(written.find(std::string(name) + "=bool:true"), std::string::npos) << name;
  }

  EXPECT_NE(written.find("LoggingEnabled=bool:false"), std::string::npos);

  WriteSettings("MaxConcurrentJobs=int:3\n");
  const std::string own = folder_.Read("common/DORN/Zelvo.ini");
  const RunResult second = RunDorn({tool_, "exit", "0"});
  EXPECT_EQ(second.errors, "");
  EXPECT_EQ(folder_.Read("common/DORN/Zelvo.ini"), own);
}

TEST_F(Dorn, WarnsOfSettingsThatDoNotHold) {
  WriteSettings("MaxConcurrentJobs=4\n# a comment\n\n[Extensions]\nEagerScheduling=bool:true\n");
  const RunResult form = RunDorn({tool_, "exit", "3"});
  EXPECT_EQ(form.exitCode, 3);
  EXPECT_NE(form.errors.find("DORN: warning: "), std::string::npos);
  EXPECT_NE(form.errors.find("Zelvo.ini:4: "), std::string::npos) << form.errors;

  WriteSettings("MaxConcurrentJobs=int:-2\n");
  const RunResult value = RunDorn({tool_, "exit", "3"});
  EXPECT_EQ(value.exitCode, 125);
  EXPECT_NE(value.errors.find("DORN: error: "), std::string::npos);
  EXPECT_NE(value.errors.find("Zelvo.ini:3: "), std::string::npos) << value.errors;
}

// What a newer version recommends is named once; older keys that the user took out are not named again.
TEST_F(Dorn, NamesNewSettingsOnceAndAddsThem) {
  std::filesystem::remove_all(folder_.Path() / "common");
  RunDorn({tool_, "exit", "0"});
  folder_.Write("common/DORN/Zelvo.known", "LocalSettings/MaxConcurrentJobs\r\nExtensions/DiscardOutput\r\n");
  WriteSettings("\n[Extensions]\nEagerScheduling=bool:true\nReclaimPlaces=bool:true\nEnforceJobTimeout=bool:false\n");
  const RunResult told = RunDorn({tool_, "exit", "0"});
  EXPECT_NE(told.errors.find(": Extensions/TransparentTools, Extensions/CancelOrphanedJobs, Extensions/BuildHistory ("),
            std::string::npos)
      << told.errors;
  EXPECT_EQ(RunDorn({tool_, "exit", "0"}).errors, "");
  EXPECT_EQ(RunDorn({"--settings", "update"}).exitCode, 0);
  const std::string text = folder_.Read("common/DORN/Zelvo.ini");
  EXPECT_NE(text.find("TransparentTools=bool:true"), std::string::npos);
  EXPECT_NE(text.find("EnforceJobTimeout=bool:false"), std::string::npos);
  const RunResult list = RunDorn({"--settings"});
  EXPECT_EQ(list.exitCode, 0);
  EXPECT_NE(list.output.find("EnforceJobTimeout"), std::string::npos);
}

TEST_F(Dorn, RunsNothingIfTheMasterCannotStart) {
  StartMaster();
  const std::string mark = folder_.File("ran");
  const RunResult result = RunDorn({tool_, "create", mark});
  EXPECT_NE(result.exitCode, 0);
  EXPECT_NE(result.errors.find("Another instance of Kestrun is already running."), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(mark));
}

TEST_F(Dorn, NamesABuildCommandThatIsMissing) {
  const RunResult result = RunDorn({"no-such-command", "x"});
  EXPECT_NE(result.exitCode, 0);
  EXPECT_NE(result.errors.find("no-such-command"), std::string::npos);
}

TEST_F(Dorn, TakesFilesAloneForProgramsAndTheKestrunBesideIt) {
  const std::string ending = std::filesystem::path(tool_).extension().string();
  for (const char* name : {"first/tool.exe", "second"}) std::filesystem::create_directories(folder_.Path() / name);
  std::filesystem::copy(tool_, folder_.File("first/kestrun" + ending));
  std::filesystem::copy(tool_, folder_.File("second/tool" + ending));
  ChildOptions options = Environment();
  options.environment["PATH"] = folder_.File("first") + platform::kPathListSeparator + folder_.File("second");
  const RunResult result = test::Run({ProgramPath("dorn"), "tool", "exit", "9"}, options);
  EXPECT_EQ(result.exitCode, 9) << result.errors;
}

TEST_F(Dorn, LeavesNothingBehindWhenItIsKilled) {
  RunningBuild build = StartBuild();
  build.dorn.Kill();
  ExpectAllGone(build);
}

}  // namespace
}  // namespace kestrun::test
