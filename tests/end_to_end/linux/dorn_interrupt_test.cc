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

// The build command hears of it and ends by itself: dorn passes its exit code, where one ended by force gives 130.
TEST_F(Dorn, LeavesNothingBehindWhenItAloneIsToldToEnd) {
  RunningBuild build = StartBuild();
  kill(static_cast<pid_t>(build.dorn.Pid()), SIGTERM);
  ExpectAllGone(build);
  EXPECT_EQ(build.dorn.Wait(), 1);
}

}  // namespace
}  // namespace kestrun::test
