// What a tool finds when it starts.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "../../tool_process.h"
#include "platform/linux/objects/handle_table.h"
#include "platform/win32.h"
#include "support/child.h"

namespace kestrun::test {
namespace {

std::string OutputOf(const std::string& script, const ToolSettings& settings = {}) {
  const Tool tool = StartProgram("/bin/sh -c \"" + script + "\"", settings);
  EXPECT_EQ(tool.error, 0u);
  return ReadToEnd(tool.output);
}

KESTRUN_CHILD(HasOddState) {
  // Not closed on exec, as a careless parent leaves them.
  for (const int descriptor : {10, 251}) {
    if (dup2(STDIN_FILENO, descriptor) != descriptor) return 1;
  }
  signal(SIGUSR1, SIG_IGN);
  signal(SIGPIPE, SIG_IGN);
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, nullptr);
  for (const char* const script : {"ls /proc/$$/fd", "grep -E 'Sig(Ign|Blk)' /proc/self/status"}) {
    std::string output = OutputOf(script);
    std::replace(output.begin(), output.end(), '\n', ' ');
    Say(output);
  }
  return 0;
}

TEST(ChildProcess, HasThreeDescriptorsAndItsSignalsAtTheirDefaults) {
  Child child = Child::Self("HasOddState");
  EXPECT_EQ(child.ReadLine(), "0 1 2 ");
  EXPECT_EQ(child.ReadLine(), "SigBlk:\t0000000000000000 SigIgn:\t0000000000000000 ");
}

TEST(ChildProcess, HasTheUsersLimitOfDescriptors) {
  EXPECT_EQ(OutputOf("ulimit -n"), std::to_string(platform::OriginalDescriptorLimit().rlim_cur) + "\n");
}

TEST(ChildProcess, HasThePriorityOfItsClass) {
  const int own = getpriority(PRIO_PROCESS, 0);
  const auto expected = [&](int more) { return std::to_string(std::min(own + more, 19)) + "\n"; };
  EXPECT_EQ(OutputOf("nice"), expected(0));
  EXPECT_EQ(OutputOf("nice", {BELOW_NORMAL_PRIORITY_CLASS}), expected(4));
  EXPECT_EQ(OutputOf("nice", {IDLE_PRIORITY_CLASS}), expected(19));
}

constexpr char kGroupAndSession[] = "echo $$ $(cut -d' ' -f5,6 /proc/$$/stat)";

TEST(ChildProcess, WithAPipedInputHasItsOwnGroupAndNoTerminal) {
  int pid = 0, group = 0, session = 0;
  ASSERT_EQ(std::sscanf(OutputOf(kGroupAndSession).c_str(), "%d %d %d", &pid, &group, &session), 3);
  EXPECT_EQ(group, pid);
  EXPECT_NE(session, getsid(0));
  EXPECT_NE(session, pid);
}

TEST(ChildProcess, WithOurInputStaysInOurGroupUnlessItIsToHaveItsOwn) {
  ToolSettings settings;
  settings.sharesInput = true;
  int pid = 0, group = 0, session = 0;
  ASSERT_EQ(std::sscanf(OutputOf(kGroupAndSession, settings).c_str(), "%d %d %d", &pid, &group, &session), 3);
  EXPECT_EQ(group, getpgrp());
  EXPECT_EQ(session, getsid(0));
  settings.flags = CREATE_NEW_PROCESS_GROUP;
  ASSERT_EQ(std::sscanf(OutputOf(kGroupAndSession, settings).c_str(), "%d %d %d", &pid, &group, &session), 3);
  EXPECT_EQ(group, pid);
  EXPECT_EQ(session, getsid(0));
}

TEST(ChildProcess, DeathByASignalIsAnExitCode) {
  for (const int number : {SIGKILL, SIGSEGV, SIGTERM}) {
    Tool tool = StartProgram("/bin/sh -c \"kill -" + std::to_string(number) + " $$\"");
    EXPECT_EQ(tool.Wait(), 128u + static_cast<unsigned>(number));
  }
}

TEST(ChildProcess, AGroupIsInterruptedOnlyIfItWasStartedForThat) {
  Tool plain = StartTool("print up hold");
  EXPECT_EQ(ReadLineFrom(plain.output), "up");
  EXPECT_FALSE(GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, plain.pid));
  Tool group = StartTool("print up hold", {CREATE_NEW_PROCESS_GROUP});
  EXPECT_EQ(ReadLineFrom(group.output), "up");
  EXPECT_TRUE(GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, group.pid));
  EXPECT_EQ(group.Wait(), 128u + SIGTERM);
  EXPECT_FALSE(GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, group.pid));
}

}  // namespace
}  // namespace kestrun::test
