// Nothing is left behind, whichever of the processes involved is killed, and in whatever order.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include "../tool_process.h"
#include "platform/linux/process_stat.h"
#include "platform/win32.h"
#include "support/becomes_true.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

constexpr char kMark[] = "KESTRUN_TEST_MARK";

// The processes that have the mark in the environment that they were started with.
std::vector<pid_t> MarkedProcesses(const std::string& mark) {
  std::vector<pid_t> found;
  platform::ProcessList list;
  for (pid_t pid = list.Next(); pid != 0; pid = list.Next()) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/environ", std::ios::binary);
    const std::string environment(std::istreambuf_iterator<char>(file), {});
    if (environment.find(mark) != std::string::npos) found.push_back(pid);
  }
  return found;
}

pid_t ParentOf(pid_t pid) {
  platform::ProcessStat stat = {};
  return platform::ReadProcessStat(pid, stat) ? stat.parent : 0;
}

Tool StartHeldFamily(const ScopedHandle& job) {
  return StartToolIn(job, std::string(kFamilyWords) + "print up hold");
}

KESTRUN_CHILD(OwnsOneFamily) {
  const ScopedHandle job = MakeJob();
  const Tool tool = StartHeldFamily(job);
  while (ReadLineFrom(tool.output) != "up") {
  }
  Say(std::to_string(tool.pid));
  WaitForSingleObject(tool.process, INFINITE);
  Say("ended");
  AwaitLine();
  return 0;
}

KESTRUN_CHILD(KeepsStartingFamilies) {
  Say("go");
  for (;;) {
    std::vector<ScopedHandle> jobs;
    std::vector<Tool> tools;
    for (int i = 0; i < 3; ++i) {
      jobs.push_back(MakeJob());
      tools.push_back(StartHeldFamily(jobs.back()));
    }
    ReadLineFrom(tools[0].output);
  }
}

class Kill : public testing::Test {
 protected:
  ~Kill() override {
    for (const pid_t pid : MarkedProcesses(mark_)) kill(pid, SIGKILL);
  }
  Child StartOwner(const std::string& name) {
    ChildOptions options;
    options.environment[kMark] = mark_;
    return Child::Self(name, {}, options);
  }

  bool AllMarkedEnd() const {
    return BecomesTrue([this] { return MarkedProcesses(mark_).empty(); });
  }

  const std::string mark_ = UniqueName("mark");
};

TEST_F(Kill, NothingIsLeftInWhateverOrderTheHelpersAndTheOwnerDie) {
  std::mt19937 random(7);
  for (int round = 0; round < 24; ++round) {
    Child owner = StartOwner("OwnsOneFamily");
    const pid_t supervisor = ParentOf(std::stoi(owner.ReadLine()));
    const pid_t zygote = ParentOf(supervisor);
    ASSERT_GT(zygote, 1);
    if (round % 3 == 1) kill(supervisor, SIGKILL);
    if (round % 3 == 2) kill(zygote, SIGKILL);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
    owner.Kill();
    ASSERT_TRUE(AllMarkedEnd()) << "round " << round;
  }
}

TEST_F(Kill, NothingIsLeftOfToolsThatWereJustStarting) {
  std::mt19937 random(8);
  for (int round = 0; round < 26; ++round) {
    Child owner = StartOwner("KeepsStartingFamilies");
    ASSERT_EQ(owner.ReadLine(), "go");
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 40000));
    owner.Kill();
    ASSERT_TRUE(AllMarkedEnd()) << "round " << round;
  }
}

TEST_F(Kill, AKilledSupervisorEndsItsToolAndTheOwnerSeesIt) {
  Child owner = StartOwner("OwnsOneFamily");
  const int tool = std::stoi(owner.ReadLine());
  kill(ParentOf(tool), SIGKILL);
  EXPECT_EQ(owner.ReadLine(), "ended");
  EXPECT_TRUE(ProcessEndsWithin(static_cast<unsigned long>(tool), 60000));
}

TEST_F(Kill, AKilledZygoteIsReplaced) {
  Tool first = StartTool("print up hold");
  EXPECT_EQ(ReadLineFrom(first.output), "up");
  const pid_t zygote = ParentOf(ParentOf(static_cast<pid_t>(first.pid)));
  kill(zygote, SIGKILL);
  ASSERT_TRUE(ProcessEndsWithin(static_cast<unsigned long>(zygote), 60000));
  Tool second = StartTool("exit 3");
  EXPECT_EQ(second.error, 0u);
  EXPECT_EQ(second.Wait(), 3u);
  EXPECT_NE(ParentOf(ParentOf(static_cast<pid_t>(first.pid))), zygote);
  EXPECT_TRUE(TerminateProcess(first.process, 4));
  EXPECT_EQ(first.Wait(), 4u);
}

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

// Tools run until a supervisor is met for the second time: when it becomes idle is its own affair.
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

TEST_F(Kill, ASupervisorThatDiesWhileIdleCostsNothing) {
  for (int round = 0; round < 10; ++round) {
    const pid_t supervisor = FindReusedSupervisor();
    ASSERT_GT(supervisor, 1);
    const pid_t next = NextToolOf(supervisor);
    kill(supervisor, SIGKILL);
    // Until the last thread of both has gone, and with it their end of the socket, it may still be given a tool, which
    // would die with it. Not before that has anybody waited for them.
    ASSERT_TRUE(BecomesTrue([&] { return kill(supervisor, 0) != 0 && kill(next, 0) != 0; }));
    EXPECT_NE(RunToolUnderSupervisor(), supervisor);
  }
}

TEST_F(Kill, AnIdleSupervisorServesOnlyWhileItsZygoteLives) {
  const pid_t supervisor = FindReusedSupervisor();
  ASSERT_GT(supervisor, 1);
  const pid_t zygote = ParentOf(supervisor);
  kill(zygote, SIGKILL);
  ASSERT_TRUE(ProcessEndsWithin(static_cast<unsigned long>(zygote), 60000));
  EXPECT_NE(RunToolUnderSupervisor(), supervisor);
  EXPECT_NE(ParentOf(FindReusedSupervisor()), zygote);
}

TEST_F(Kill, AHelperIsNotReachedByItsArgumentsAlone) {
  std::string line = "kestrun-helper --helper-of-a-kestrun-process-4f1c9a";
  STARTUPINFOA startup = {};
  PROCESS_INFORMATION information = {};
  ASSERT_TRUE(CreateProcessA(ProgramPath("").c_str(), line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                             &startup, &information));
  const ScopedHandle process(information.hProcess);
  const ScopedHandle thread(information.hThread);
  EXPECT_EQ(WaitForSingleObject(process, 60000), WAIT_OBJECT_0);
  DWORD code = 0;
  EXPECT_TRUE(GetExitCodeProcess(process, &code));
  EXPECT_EQ(code, 127u);
}

}  // namespace
}  // namespace kestrun::test
