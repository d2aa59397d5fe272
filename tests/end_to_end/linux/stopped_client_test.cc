// A client that does nothing for a while, as under a debugger.
#include <signal.h>

#include "kill_support.h"

namespace kestrun::test {
namespace {

using StoppedClient = Build;

TEST_F(StoppedClient, KeepsItsPlaceWhileThoseOfDeadOnesReturn) {
  WriteSettings("MaxStubs=int:3\n\n[Extensions]\nReclaimPlaces=bool:true\nCancelOrphanedJobs=bool:true\n");
  StartMaster();
  NamedEvent started;
  Child stopped = StartTool({"signal", started.Name(), ",", "print", "late"});
  ASSERT_TRUE(started.Wait(kKillLimitMs));
  kill(static_cast<pid_t>(stopped.Pid()), SIGSTOP);
  // Each time the master has looked at all of them.
  for (int i = 0; i < 2; ++i) {
    Child killed = StartTool({"signal", started.Name(), ",", "hold"});
    ASSERT_TRUE(started.Wait(kKillLimitMs));
    killed.Kill();
    PlaceCount(id_).Expect(2);
  }
  kill(static_cast<pid_t>(stopped.Pid()), SIGCONT);
  EXPECT_EQ(stopped.Wait(), 0);
  EXPECT_EQ(stopped.Output(), "late\n");
  PlaceCount(id_).Expect(3);
}

}  // namespace
}  // namespace kestrun::test
