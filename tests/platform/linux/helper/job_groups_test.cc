#include "platform/linux/helper/job_groups.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "../../tool_process.h"
#include "parent_of.h"
#include "platform/linux/base/process_stat.h"
#include "platform/win32.h"
#include "support/becomes_true.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

namespace fs = std::filesystem;

TEST(GroupPath, IsThatOfVersionTwoBelowTheRoot) {
  const std::pair<const char*, const char*> cases[] = {
      {"0::/user.slice/a b.scope\n", "/user.slice/a b.scope"},
      {"4:memory:/job\n1:cpu:/\n0::/mine\n", "/mine"},
      {"4:memory:/job\n0::/\n", ""},
      {"4:memory:/0::/x\n", ""},
      {"", ""},
  };
  for (const auto& [text, path] : cases) EXPECT_EQ(platform::GroupPath(text), path) << text;
}

// A folder that plays the part of a group: the files of the inner groups are there before, and keep what was written.
class PlayedGroups : public testing::Test {
 protected:
  std::string Make(const std::string& name) {
    const fs::path group = folder_.Path() / name;
    fs::create_directory(group);
    std::ofstream(group / "cgroup.procs");
    std::ofstream(group / "cgroup.kill");
    return group.string();
  }
  static std::string Read(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  TempFolder folder_;
  const platform::JobGroups groups_{folder_.Path().string(), "7"};
};

TEST_F(PlayedGroups, AreEnteredAndEndedByTheNumberOfTheSupervisor) {
  const std::string group = Make("kestrun-job-7-4711");
  EXPECT_TRUE(groups_.Enter(4711));
  EXPECT_EQ(Read(group + "/cgroup.procs"), "4711");
  groups_.End(4711);
  EXPECT_EQ(Read(group + "/cgroup.kill"), "1");
  EXPECT_FALSE(platform::JobGroups("", "7").Enter(4711)) << "where there are no groups";
}

TEST_F(PlayedGroups, AreSweptOnceTheirSupervisorHasEnded) {
  Child ended = Child::Start({ProgramPath("test_tool"), "exit", "0"});
  ended.Wait();
  const std::string gone = std::to_string(ended.Pid());
  const std::string left = Make("kestrun-job-7-" + gone);
  const std::string others[] = {Make("kestrun-job-7-" + std::to_string(getpid())), Make("kestrun-job-8-" + gone),
                                Make("kestrun-job-7-x"), Make("another-" + gone)};
  fs::create_directory(folder_.Path() / ("kestrun-job-7-" + gone) / "kestrun-job-9-1");
  groups_.Sweep();
  EXPECT_EQ(Read(left + "/cgroup.kill"), "1");
  EXPECT_FALSE(fs::exists(left + "/kestrun-job-9-1")) << "the groups inside are removed first";
  for (const std::string& other : others) EXPECT_EQ(Read(other + "/cgroup.kill"), "") << other;
}

// A group of the system that was given to the test, where it may have one.
class RealGroups : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* const mount : {"/sys/fs/cgroup", "/sys/fs/cgroup/unified"}) {
      if (!fs::exists(mount + std::string("/cgroup.procs"))) continue;
      std::error_code error;
      const std::string folder = mount + ("/" + UniqueName("kestrun_test"));
      if (fs::create_directory(folder, error) && fs::exists(folder + "/cgroup.kill")) folder_ = folder;
    }
    if (folder_.empty()) GTEST_SKIP() << "no group of version 2 can be made here";
  }
  void TearDown() override {
    if (folder_.empty()) return;
    std::ofstream(folder_ + "/cgroup.kill") << "1";
    EXPECT_TRUE(BecomesTrue([this] { return RemoveAll(folder_); }));
  }
  static bool RemoveAll(const std::string& folder) {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
      if (entry.is_directory(error)) RemoveAll(entry.path().string());
    }
    return rmdir(folder.c_str()) == 0 || errno == ENOENT;
  }
  std::size_t CountGroups() const {
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator(folder_)) count += entry.is_directory();
    return count;
  }
  // The processes of the family that a child has started, by the ids that it says.
  static std::vector<unsigned long> ReadFamily(Child& owner) {
    std::vector<unsigned long> family;
    for (std::string line = owner.ReadLine(); !line.empty() && line != "up"; line = owner.ReadLine()) {
      family.push_back(std::stoul(line));
    }
    return family;
  }

  std::string folder_;
};

// Words: the folder of the group to be in. Says the ids of a tool's family, and the tool's own last.
KESTRUN_CHILD(OwnsAFamilyInAGroup) {
  std::ofstream(words[0] + "/cgroup.procs") << getpid() << std::flush;
  const ScopedHandle job = MakeJob();
  const Tool tool = StartToolIn(job, std::string(kFamilyWords) + "print up hold");
  for (std::string line = ReadLineFrom(tool.output); line != "up"; line = ReadLineFrom(tool.output)) Say(line);
  Say(std::to_string(tool.pid));
  Say("up");
  WaitForSingleObject(tool.process, INFINITE);
  AwaitLine();
  return 0;
}

TEST_F(RealGroups, FindWhatIsLeftOnceAllHelpersAreKilled) {
  // By the process itself, which lives; and where it is killed too, by the next one that starts tools there.
  for (const bool killsOwner : {false, true}) {
    Child owner = Child::Self("OwnsAFamilyInAGroup", {folder_});
    const std::vector<unsigned long> family = ReadFamily(owner);
    ASSERT_GE(family.size(), 4u);
    const pid_t supervisor = ParentOf(static_cast<pid_t>(family.back()));
    const pid_t zygote = ParentOf(supervisor);
    if (killsOwner) kill(static_cast<pid_t>(owner.Pid()), SIGSTOP);
    // Both stand still, so that neither ends what is below the other.
    for (const pid_t helper : {zygote, supervisor}) kill(helper, SIGSTOP);
    for (const pid_t helper : {zygote, supervisor}) kill(helper, SIGKILL);
    if (killsOwner) {
      owner.Kill();
      owner.Wait();
      Child next = Child::Self("OwnsAFamilyInAGroup", {folder_});
      ASSERT_GE(ReadFamily(next).size(), 4u);
      for (const unsigned long pid : family) EXPECT_TRUE(ProcessEndsWithin(pid, 60000));
      continue;
    }
    for (const unsigned long pid : family) EXPECT_TRUE(ProcessEndsWithin(pid, 60000));
  }
}

KESTRUN_CHILD(RunsToolsInAGroup) {
  std::ofstream(words[0] + "/cgroup.procs") << getpid() << std::flush;
  for (int i = 0; i < 3; ++i) {
    if (StartTool("exit 3").Wait() != 3) return 1;
  }
  return 0;
}

TEST_F(RealGroups, AreGoneWithTheProcess) {
  EXPECT_EQ(Child::Self("RunsToolsInAGroup", {folder_}).Wait(), 0);
  EXPECT_TRUE(BecomesTrue([this] { return CountGroups() == 0; }));
}

}  // namespace
}  // namespace kestrun::test
