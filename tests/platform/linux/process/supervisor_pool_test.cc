#include <gtest/gtest.h>
#include <signal.h>

#include <set>

#include "../../tool_process.h"
#include "../helper/parent_of.h"
#include "platform/linux/base/process_stat.h"
#include "platform/win32.h"
#include "support/becomes_true.h"
#include "support/child.h"

namespace kestrun::test {
namespace {

// Runs a tool in a job of its own, and gives its supervisor, which is to take another tool once it is idle.
pid_t RunToolUnderSupervisor() {
  const ScopedHandle job = MakeJob();
  Tool tool = StartToolIn(job, "print up input exit 5");
  EXPECT_EQ(ReadLineFrom(tool.output), "up");
  const pid_t supervisor = ParentOf(static_cast<pid_t>(tool.pid));
  tool.input = ScopedHandle();
  EXPECT_EQ(tool.Wait(), 5u);
  return supervisor;
}

// Runs tools until a supervisor serves for the second time; the test can't tell when it becomes idle.
pid_t FindReusedSupervisor() {
  std::set<pid_t> seen;
  for (int i = 0; i < 10000; ++i) {
    const pid_t supervisor = RunToolUnderSupervisor();
    if (!seen.insert(supervisor).second) return supervisor;
  }
  return 0;
}

// The process that an idle supervisor has made for its next tool, or is about to make.
pid_t NextToolOf(pid_t supervisor) {
  for (;;) {
    for (const auto& [pid, stat] : platform::DescendantsOf(supervisor)) {
      if (pid != supervisor) return pid;
    }
  }
}

TEST(SupervisorPool, ASupervisorThatDiesWhileIdleCostsNothing) {
  for (int round = 0; round < 10; ++round) {
    const pid_t supervisor = FindReusedSupervisor();
    ASSERT_GT(supervisor, 1);
    const pid_t next = NextToolOf(supervisor);
    kill(supervisor, SIGKILL);
    // Until both are gone, and with them their end of the socket, the supervisor may still be given a tool, which would
    // die with it. They are gone once their parents have waited for them.
    ASSERT_TRUE(BecomesTrue([&] { return kill(supervisor, 0) != 0 && kill(next, 0) != 0; }));
    EXPECT_NE(RunToolUnderSupervisor(), supervisor);
  }
}

TEST(SupervisorPool, AnIdleSupervisorServesOnlyWhileItsZygoteLives) {
  const pid_t supervisor = FindReusedSupervisor();
  ASSERT_GT(supervisor, 1);
  const pid_t zygote = ParentOf(supervisor);
  kill(zygote, SIGKILL);
  ASSERT_TRUE(ProcessEndsWithin(static_cast<unsigned long>(zygote), 60000));
  EXPECT_NE(RunToolUnderSupervisor(), supervisor);
  EXPECT_NE(ParentOf(FindReusedSupervisor()), zygote);
}

}  // namespace
}  // namespace kestrun::test
