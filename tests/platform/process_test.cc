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

// A tool in a job, with one child of each kind that the system has, all of them running.
struct Family {
  ScopedHandle job;
  Tool tool;
  std::vector<unsigned long> members;

  bool AllEndWithin(unsigned limitMs) const {
    bool all = true;
    for (const unsigned long pid : members) all &= ProcessEndsWithin(pid, limitMs);
    return all;
  }
};

Family StartFamily(const std::string& lastWords) {
  Family family;
  family.job = MakeJob();
  family.tool = StartToolIn(family.job, kFamilyWords + lastWords);
  for (int i = 0; i < 4; ++i) family.members.push_back(std::stoul(ReadLineFrom(family.tool.output)));
  for (const unsigned long pid : family.members) EXPECT_TRUE(ProcessExists(pid));
  family.members.push_back(family.tool.pid);
  return family;
}

TEST(Job, EndsEverythingInItWithItsLastHandle) {
  Family family = StartFamily("hold");
  family.job.Close();
  EXPECT_TRUE(family.AllEndWithin(60000));
  EXPECT_EQ(WaitForSingleObject(family.tool.process, 60000), static_cast<DWORD>(WAIT_OBJECT_0));
}

TEST(Job, EndsWhatAToolHasLeftBehind) {
  Family family = StartFamily("exit 6");
  EXPECT_EQ(family.tool.Wait(), 6u);
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(ProcessExists(family.members[static_cast<std::size_t>(i)]));
  family.tool.process.Close();
  family.job.Close();
  EXPECT_TRUE(family.AllEndWithin(60000));
}

TEST(Job, GivesItsExitCodeWhenTerminated) {
  Family family = StartFamily("hold");
  EXPECT_TRUE(TerminateJobObject(family.job, 0xFFFFFFFF));
  EXPECT_EQ(family.tool.Wait(), 0xFFFFFFFFu);
  EXPECT_TRUE(family.AllEndWithin(60000));
}

TEST(Job, WithoutTheLimitLeavesItsProcessesAlone) {
  const std::string name = UniqueName("go");
  const ScopedHandle go(CreateEventA(nullptr, TRUE, FALSE, name.c_str()));
  ScopedHandle job(CreateJobObjectA(nullptr, nullptr));
  Tool tool = StartTool("await " + name + " print done exit 2", {CREATE_SUSPENDED});
  EXPECT_TRUE(AssignProcessToJobObject(job, tool.process));
  BOOL inJob = FALSE;
  EXPECT_TRUE(IsProcessInJob(tool.process, job, &inJob));
  EXPECT_TRUE(inJob);
  ResumeThread(tool.thread);
  job.Close();
  SetEvent(go);
  EXPECT_EQ(ReadLineFrom(tool.output), "done");
  EXPECT_EQ(tool.Wait(), 2u);
}

TEST(Job, ClosedBeforeTheToolIsResumedEndsIt) {
  ScopedHandle job = MakeJob();
  Tool tool = StartTool("print ran", {CREATE_SUSPENDED});
  EXPECT_TRUE(AssignProcessToJobObject(job, tool.process));
  job.Close();
  EXPECT_EQ(WaitForSingleObject(tool.process, 60000), static_cast<DWORD>(WAIT_OBJECT_0));
  ResumeThread(tool.thread);
  EXPECT_EQ(ReadToEnd(tool.output), "");
}

KESTRUN_CHILD(RunsFamilyInJob) {
  Family family = StartFamily("hold");
  for (const unsigned long pid : family.members) Say(std::to_string(pid));
  AwaitLine();
  return 0;
}

TEST(Job, EndsEverythingWhenItsOwnerIsKilled) {
  Child owner = Child::Self("RunsFamilyInJob");
  Family family;
  for (int i = 0; i < 5; ++i) family.members.push_back(std::stoul(owner.ReadLine()));
  owner.Kill();
  EXPECT_TRUE(family.AllEndWithin(60000));
}

}  // namespace
}  // namespace kestrun::test
