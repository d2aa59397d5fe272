// dorn: a build with its master, from start to end.
#include <filesystem>

#include "dorn_fixture.h"

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
  const RunResult result = RunDorn({"--id", "its_own_id", tool_, "env", "KESTRUN_ID"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "its_own_id\n");
}

TEST_F(Dorn, WritesAFirstSettingsFileAndKeepsOneThatIsThere) {
  std::filesystem::remove_all(folder_.Path() / "common");
  const RunResult first = RunDorn({tool_, "exit", "0"});
  EXPECT_EQ(first.exitCode, 0);
  EXPECT_NE(first.errors.find("Zelvo.ini"), std::string::npos);
  const std::string written = folder_.Read("common/DORN/Zelvo.ini");
  EXPECT_NE(written.find("MaxConcurrentJobs=int:"), std::string::npos);
  for (const char* name :
       {"EagerScheduling", "CancelOrphanedJobs", "EnforceJobTimeout", "DiscardOutput", "ReclaimPlaces"}) {
    EXPECT_NE(written.find(std::string(name) + "=bool:true"), std::string::npos) << name;
  }

  WriteSettings("MaxConcurrentJobs=int:3\n");
  const std::string own = folder_.Read("common/DORN/Zelvo.ini");
  const RunResult second = RunDorn({tool_, "exit", "0"});
  EXPECT_EQ(second.errors, "");
  EXPECT_EQ(folder_.Read("common/DORN/Zelvo.ini"), own);
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

TEST_F(Dorn, LeavesNothingBehindWhenItIsKilled) {
  RunningBuild build = StartBuild();
  build.dorn.Kill();
  ExpectAllGone(build);
}

}  // namespace
}  // namespace kestrun::test
