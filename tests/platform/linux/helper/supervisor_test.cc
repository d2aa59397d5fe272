// Nothing is left behind, whichever of the processes involved is killed, and in whatever order.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <fstream>
#include <random>
#include <thread>

#include "../../tool_process.h"
#include "parent_of.h"
#include "platform/linux/base/process_stat.h"
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

class Supervisor : public testing::Test {
 protected:
  ~Supervisor() override {
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

TEST_F(Supervisor, NothingIsLeftInWhateverOrderTheHelpersAndTheOwnerDie) {
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

TEST_F(Supervisor, AKilledSupervisorEndsItsToolAndTheOwnerSeesIt) {
  Child owner = StartOwner("OwnsOneFamily");
  const int tool = std::stoi(owner.ReadLine());
  kill(ParentOf(tool), SIGKILL);
  EXPECT_EQ(owner.ReadLine(), "ended");
  EXPECT_TRUE(ProcessEndsWithin(static_cast<unsigned long>(tool), 60000));
}

}  // namespace
}  // namespace kestrun::test
