#include <gtest/gtest.h>

#include <filesystem>

#include "platform/win32.h"
#include "support/child.h"
#include "support/names.h"
#include "tool_process.h"

namespace kestrun::test {
namespace {

TEST(Process, DoesNothingBeforeItIsResumed) {
  const TempFolder folder;
  Tool tool = StartTool("create \"" + folder.File("made") + "\" hold", {CREATE_SUSPENDED});
  ASSERT_EQ(tool.error, 0u);
  EXPECT_EQ(WaitForSingleObject(tool.process, 50), static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_EQ(tool.ExitCode(), static_cast<DWORD>(STILL_ACTIVE));
  EXPECT_FALSE(std::filesystem::exists(folder.File("made")));
  EXPECT_EQ(ResumeThread(tool.thread), 1u);
  TerminateProcess(tool.process, 4);
  EXPECT_EQ(tool.Wait(), 4u);
}

TEST(Process, TerminatedBeforeItIsResumedNeverRuns) {
  Tool tool = StartTool("print ran", {CREATE_SUSPENDED});
  ASSERT_TRUE(TerminateProcess(tool.process, 5));
  ResumeThread(tool.thread);
  EXPECT_EQ(tool.Wait(), 5u);
  EXPECT_EQ(ReadToEnd(tool.output), "");
}

KESTRUN_CHILD(StartsToolAndLeaves) {
  std::string line = "\"" + ProgramPath("test_tool") + "\" await " + words[0];
  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION information = {};
  const DWORD flags = words[1] == "suspended" ? CREATE_SUSPENDED : 0;
  if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, flags, nullptr, nullptr, &startup, &information)) {
    return 1;
  }
  if (flags != 0) ResumeThread(information.hThread);
  Say(std::to_string(information.dwProcessId));
  return 0;
}

TEST(Process, WithoutAJobOutlivesItsParent) {
  for (const char* const start : {"at once", "suspended"}) {
    const std::string name = UniqueName("leave");
    const ScopedHandle leave(CreateEventA(nullptr, TRUE, FALSE, name.c_str()));
    Child parent = Child::Self("StartsToolAndLeaves", {name, start});
    const unsigned long tool = std::stoul(parent.ReadLine());
    ASSERT_TRUE(parent.EndsWithin(60000));
    EXPECT_FALSE(ProcessEndsWithin(tool, 100)) << start;
    SetEvent(leave);
    EXPECT_TRUE(ProcessEndsWithin(tool, 60000)) << start;
  }
}

}  // namespace
}  // namespace kestrun::test
