// Ctrl-C at a build. A test run on Windows has no console that control events could travel through.
#include "dorn_fixture.h"

namespace kestrun::test {
namespace {

TEST_F(Dorn, LeavesNothingBehindAfterAnInterrupt) {
  RunningBuild build = StartBuild();
  build.dorn.Interrupt();
  ExpectAllGone(build);
}

}  // namespace
}  // namespace kestrun::test
