// Ctrl-C at a build. A test run on Windows has no console that control events could travel through.
#include <signal.h>

#include "dorn_fixture.h"

namespace kestrun::test {
namespace {

TEST_F(Dorn, LeavesNothingBehindAfterAnInterrupt) {
  RunningBuild build = StartBuild();
  build.dorn.Interrupt();
  ExpectAllGone(build);
}

// The build command hears of it and ends by itself, with its own exit code; on a machine that is too busy for that it
// is ended by force, as the signal would have ended it.
TEST_F(Dorn, LeavesNothingBehindWhenItAloneIsToldToEnd) {
  RunningBuild build = StartBuild();
  kill(static_cast<pid_t>(build.dorn.Pid()), SIGTERM);
  ExpectAllGone(build);
  const int code = build.dorn.Wait();
  EXPECT_TRUE(code == 1 || code == 128 + SIGTERM) << code;
}

// What the caller sees of each signal to dorn alone, whether the build ends by itself, when it is asked, or never.
TEST_F(Dorn, EndsAsAShellExpectsItOfASignal) {
  const struct {
    int signal;
    int code;
  } signals[] = {{SIGINT, 130}, {SIGTERM, 143}, {SIGHUP, 129}};
  const std::string ready = "echo ready; ";
  const std::pair<std::string, int> builds[] = {{ready + "exec sleep 60", 0},
                                                {"trap '' INT TERM HUP; " + ready + "sleep 60; sleep 60", 0},
                                                {"trap 'exit 5' TERM; " + ready + "while :; do sleep 0.05; done", 5}};
  EXPECT_EQ(RunDorn({"--settings", "update"}).exitCode, 0);
  for (const auto& [script, ownCode] : builds) {
    for (const auto& [signal, code] : signals) {
      Child dorn = Child::Start({ProgramPath("dorn"), "sh", "-c", script}, Environment());
      ASSERT_EQ(dorn.ReadLine(), "ready");
      kill(static_cast<pid_t>(dorn.Pid()), signal);
      EXPECT_EQ(dorn.Wait(), ownCode != 0 ? ownCode : code) << script << ", signal " << signal;
    }
  }
  ExpectNoMaster();
}

}  // namespace
}  // namespace kestrun::test
