// Builds that dorn runs, and what must be gone after them.
#ifndef KESTRUN_TESTS_END_TO_END_DORN_FIXTURE_H_
#define KESTRUN_TESTS_END_TO_END_DORN_FIXTURE_H_

#include <chrono>
#include <sstream>
#include <string>

#include "build_fixture.h"
#include "support/becomes_true.h"

namespace kestrun::test {

class Dorn : public Build {
 protected:
  using Clock = std::chrono::steady_clock;

  // A build under way: a tool that waits, and a background process that it started.
  struct RunningBuild {
    Child dorn;
    std::string pids;  // a file with the ids of the two, one a line
  };

  ChildOptions Environment() const {
    ChildOptions options = WithEnvironment({});
    options.environment["KESTRUN_ID"] = std::nullopt;
    return options;
  }

  RunResult RunDorn(const Words& words) {
    Words commandLine{ProgramPath("dorn")};
    commandLine.insert(commandLine.end(), words.begin(), words.end());
    return test::Run(commandLine, Environment());
  }

  RunningBuild StartBuild(bool ownGroup = true) {
    const std::string pids = UniqueName("pids");
    const std::string file = folder_.File(pids);
    NamedEvent started;
    ChildOptions options = Environment();
    options.ownGroup = ownGroup;
    RunningBuild build{
        Child::Start({ProgramPath("dorn"), ProgramPath("kestrun"), tool_, "note", file, ",", "background", "session",
                      "note", file, ",", "signal", started.Name(), ",", "hold", "then", "hold"},
                     options),
        pids};
    EXPECT_TRUE(started.Wait(30000)) << build.dorn.Errors();
    return build;
  }

  // The master of this build, or another one, runs.
  static bool HasMaster() {
    const HANDLE master = OpenEventA(SYNCHRONIZE, FALSE, "Global\\dorn_kr_project_stub");
    if (master != nullptr) CloseHandle(master);
    return master != nullptr;
  }
  static void ExpectNoMaster() {
    EXPECT_TRUE(BecomesTrue([] { return !HasMaster(); }));
  }

  // Within five seconds: tool and background process have ended, and the name of the one master is free again.
  void ExpectAllGone(RunningBuild& build) {
    const auto start = Clock::now();
    EXPECT_TRUE(build.dorn.EndsWithin(5000));
    std::istringstream lines(folder_.Read(build.pids));
    for (unsigned long pid = 0; lines >> pid;) EXPECT_TRUE(ProcessEndsWithin(pid, 5000));
    ExpectNoMaster();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    StartMaster();
    EXPECT_EQ(StopMaster(), 0);
  }
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_END_TO_END_DORN_FIXTURE_H_
