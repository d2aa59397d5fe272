#include <gtest/gtest.h>
#include <signal.h>

#include "platform/win32.h"
#include "support/child.h"

namespace kestrun::test {
namespace {

BOOL SayEvent(DWORD event) {
  Say(std::to_string(event));
  return TRUE;
}

KESTRUN_CHILD(SaysItsEvents) {
  SetConsoleCtrlHandler(&SayEvent, TRUE);
  Say("ready");
  while (!AwaitLine().empty()) {
  }
  return 0;
}

TEST(Console, AreTheEventsThatTheyStandFor) {
  Child child = Child::Self("SaysItsEvents");
  ASSERT_EQ(child.ReadLine(), "ready");
  const std::pair<int, DWORD> events[] = {
      {SIGINT, CTRL_C_EVENT}, {SIGTERM, CTRL_BREAK_EVENT}, {SIGQUIT, CTRL_BREAK_EVENT}, {SIGHUP, CTRL_CLOSE_EVENT}};
  for (const auto& [number, event] : events) {
    kill(static_cast<pid_t>(child.Pid()), number);
    EXPECT_EQ(child.ReadLine(), std::to_string(event));
  }
}

// As nohup and the background of a shell leave them.
TEST(Console, ThatWereIgnoredAtTheStartStaySo) {
  Child child =
      Child::Start({"/bin/sh", "-c", "trap '' HUP; exec \"$0\" --kestrun-child=SaysItsEvents", ProgramPath("")});
  ASSERT_EQ(child.ReadLine(), "ready");
  kill(static_cast<pid_t>(child.Pid()), SIGHUP);
  kill(static_cast<pid_t>(child.Pid()), SIGINT);
  EXPECT_EQ(child.ReadLine(), "0");
}

BOOL SaySecond(DWORD) {
  Say("second");
  return FALSE;
}
BOOL ExitOnEvent(DWORD event) {
  ExitProcess(40 + event);
}

KESTRUN_CHILD(HasThreeHandlers) {
  SetConsoleCtrlHandler(&ExitOnEvent, TRUE);
  SetConsoleCtrlHandler(&SayEvent, TRUE);
  SetConsoleCtrlHandler(&SaySecond, TRUE);
  Say("ready");
  AwaitLine();
  SetConsoleCtrlHandler(&SayEvent, FALSE);
  Say("again");
  AwaitLine();
  return 0;
}

TEST(Console, AskTheLastHandlerFirstUntilOneIsSatisfied) {
  Child child = Child::Self("HasThreeHandlers");
  ASSERT_EQ(child.ReadLine(), "ready");
  for (int i = 0; i < 2; ++i) {
    child.Interrupt();
    EXPECT_EQ(child.ReadLine(), "second");
    EXPECT_EQ(child.ReadLine(), "0");
  }
  child.Tell("go");
  ASSERT_EQ(child.ReadLine(), "again");
  child.Interrupt();
  EXPECT_EQ(child.Wait(), 40);
}

KESTRUN_CHILD(HasNoHandlerLeft) {
  SetConsoleCtrlHandler(&SayEvent, TRUE);
  SetConsoleCtrlHandler(&SayEvent, FALSE);
  Say("ready");
  AwaitLine();
  return 0;
}

TEST(Console, WithoutAHandlerEndTheProcessAsTheyAlwaysDo) {
  Child child = Child::Self("HasNoHandlerLeft");
  ASSERT_EQ(child.ReadLine(), "ready");
  kill(static_cast<pid_t>(child.Pid()), SIGTERM);
  EXPECT_EQ(child.Wait(), 128 + SIGTERM);
}

}  // namespace
}  // namespace kestrun::test
