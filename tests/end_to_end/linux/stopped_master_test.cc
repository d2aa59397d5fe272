// A master that stands still, as under a debugger.
#include <signal.h>

#include <filesystem>

#include "dorn_fixture.h"
#include "kill_support.h"
#include "platform/host.h"

namespace kestrun::test {
namespace {

class StoppedMaster : public Dorn {
 protected:
  StoppedMaster() { EXPECT_EQ(RunDorn({"--settings", "update"}).exitCode, 0); }

  // A build that ends with code 3 once it is released, below a master that is stopped.
  Child StartBuild() {
    Child dorn = Child::Start({ProgramPath("dorn"), ProgramPath("kestrun"), tool_, "signal", started_.Name(), ",",
                               "await", release_.Name(), ",", "exit", "3"},
                              Environment());
    EXPECT_TRUE(started_.Wait(30000)) << dorn.Errors();
    master_ = MasterOfDorns();
    StopProcess(master_);
    EXPECT_TRUE(BecomesTrue([this] { return platform::IsStopped(master_); }));
    return dorn;
  }

  static void ExpectLine(Child& dorn, const std::string& line) {
    EXPECT_NE(dorn.Errors().find(line), std::string::npos) << dorn.Errors();
  }

  NamedEvent started_;
  NamedEvent release_;
  DWORD master_ = 0;
};

TEST_F(StoppedMaster, IsEndedByItsLastDorn) {
  for (const bool isInterrupted : {false, true}) {
    Child dorn = StartBuild();
    isInterrupted ? static_cast<void>(kill(static_cast<pid_t>(dorn.Pid()), SIGTERM)) : release_.Signal();
    EXPECT_EQ(dorn.Wait(), isInterrupted ? 128 + SIGTERM : 3);
    ExpectLine(dorn, "process " + std::to_string(master_) + ", is stopped and was ended by force");
    EXPECT_TRUE(ProcessEndsWithin(master_, 5000));
    ExpectNoMaster();
  }
}

TEST_F(StoppedMaster, KeepsNoOtherBuildFromRunning) {
  Child first = StartBuild();
  const RunResult second = RunDorn({ProgramPath("kestrun"), tool_, "exit", "5"});
  EXPECT_EQ(second.exitCode, 5);
  EXPECT_NE(second.errors.find("process " + std::to_string(master_) + ", is stopped and does not answer"),
            std::string::npos)
      << second.errors;
  first.Kill();
  first.Wait();
  const RunResult third = RunDorn({ProgramPath("kestrun"), tool_, "exit", "6"});
  EXPECT_EQ(third.exitCode, 6);
  EXPECT_NE(third.errors.find("ended by force"), std::string::npos) << "no other dorn has it: " << third.errors;
  ExpectNoMaster();
  for (const auto& entry : std::filesystem::directory_iterator(platform::NamedObjectFolder())) {
    EXPECT_FALSE(entry.path().filename().string().starts_with("stream.")) << "the next master removes " << entry.path();
  }
}

}  // namespace
}  // namespace kestrun::test
