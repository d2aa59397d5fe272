// What a master costs while nothing is to be done.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "build_fixture.h"

namespace kestrun {
namespace {

using Idle = test::Build;

// How often each thread of a process has gone to sleep so far.
std::map<std::string, long> SleepsOfThreads(unsigned long pid) {
  std::map<std::string, long> sleeps;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    std::ifstream status(thread.path() / "status");
    const std::string wanted = "voluntary_ctxt_switches:";
    for (std::string word; status >> word;) {
      if (word == wanted) status >> sleeps[thread.path().filename()];
    }
  }
  return sleeps;
}

// One thread may wake more often, because ThreadSanitizer has one of its own. With a tick two would: the main thread
// and the message thread.
TEST_F(Idle, AnEagerMastersThreadsSleepLongerThanASecond) {
  WriteSettings("MaxConcurrentJobs=int:2\n[Extensions]\nEagerScheduling=bool:true\nTransparentTools=bool:true\n");
  StartMaster();
  ASSERT_EQ(Tool({"exit", "0"}).exitCode, 0);
  const auto before = SleepsOfThreads(Master().Pid());
  Sleep(4000);
  int restless = 0;
  for (const auto& [thread, sleeps] : SleepsOfThreads(Master().Pid())) {
    const auto earlier = before.find(thread);
    if (earlier != before.end() && sleeps - earlier->second > 8) ++restless;
  }
  EXPECT_FALSE(before.empty());
  EXPECT_LE(restless, 1);
  EXPECT_EQ(StopMaster(), 0);
}

}  // namespace
}  // namespace kestrun
