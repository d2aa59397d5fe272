// One tool through a real master: exit codes, output, environment, and what becomes of processes left behind.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "build_fixture.h"

namespace kestrun::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class ToolRun : public Build {
 protected:
  void SetUp() override { StartMaster(); }
};

TEST_F(ToolRun, PassesExitCodeAndBothStreams) {
  for (const char* code : {"0", "1", "7", "255"}) {
    const RunResult result = Tool({"print", "to stdout", ",", "error", "to stderr", ",", "exit", code});
    EXPECT_EQ(result.exitCode, std::stoi(code));
    EXPECT_EQ(result.output, "to stdout\n");
    EXPECT_EQ(result.errors, "to stderr\n");
  }
  EXPECT_EQ(StopMaster(), 0);
  EXPECT_EQ(LogCount("Build Job completed (OK)"), 1);
  EXPECT_EQ(LogCount("Build Job completed (FAIL)"), 3);
  EXPECT_EQ(LogCount(" failed_file:"), 3);
}

TEST_F(ToolRun, PassesEveryByteOfLargeOutput) {
  const std::string bytes = std::to_string(Scaled(64u << 20));
  const RunResult direct = test::Run({tool_, "fill", bytes, bytes});
  ASSERT_EQ(std::to_string(direct.output.size()), bytes);
  Child client = StartTool({"fill", bytes, bytes, ",", "exit", "3"});
  EXPECT_EQ(client.Wait(550000), 3);
  EXPECT_TRUE(client.Output() == direct.output) << client.Output().size() << " bytes";
  EXPECT_TRUE(client.Errors() == direct.errors) << client.Errors().size() << " bytes";
}

TEST_F(ToolRun, RunsTheToolWhereTheClientStands) {
  std::filesystem::create_directories(folder_.Path() / "sub folder");
  ChildOptions options;
  options.workingDirectory = folder_.File("sub folder");
  const RunResult result = Tool({"cwd"}, options);
  EXPECT_EQ(std::filesystem::path(result.output.substr(0, result.output.find_last_not_of("\r\n") + 1)).filename(),
            "sub folder");
}

TEST_F(ToolRun, GivesTheToolTheMastersEnvironmentAndAnEmptyInput) {
  ChildOptions options;
  options.environment["ONLY_THE_CLIENT_HAS_THIS"] = "1";
  options.input = "some input";
  const RunResult result = Tool(
      {"env", "KESTRUN_ID", ",", "env", "KESTRUN_JOB", ",", "env", "ONLY_THE_CLIENT_HAS_THIS", ",", "input"}, options);
  EXPECT_EQ(result.output, id_ + "\n" + id_ + "\n(unset)\n0\n");
}

TEST_F(ToolRun, ServesAClientThatAToolStarts) {
  const RunResult nested = Kestrun({ProgramPath("kestrun"), tool_, "print", "inner", ",", "exit", "5"});
  EXPECT_EQ(nested.output, "inner\n");
  EXPECT_EQ(nested.exitCode, 5);
}

TEST_F(ToolRun, DoesNotWaitForABackgroundProcessAndEndsIt) {
  const auto start = Clock::now();
  const RunResult result = Tool({"background", "plain", "hold", "then", "print", "done", ",", "exit", "7"});
  EXPECT_EQ(result.exitCode, 7);
  EXPECT_LT(Clock::now() - start, 20s);
  const std::size_t end = result.output.find('\n');
  ASSERT_NE(end, std::string::npos);
  EXPECT_EQ(result.output.substr(end + 1), "done\n");
  EXPECT_TRUE(ProcessEndsWithin(std::stoul(result.output), 5000));
}

TEST_F(ToolRun, BuildsLocallyWhenTheMasterIsKilled) {
  NamedEvent started;
  NamedEvent release(true);
  Child client =
      StartTool({"signal", started.Name(), ",", "await", release.Name(), ",", "print", "tool ran", ",", "exit", "6"});
  ASSERT_TRUE(started.Wait(20000));
  const auto killed = Clock::now();
  Master().Kill();
  // The client starts the tool a second time, itself.
  ASSERT_TRUE(started.Wait(20000));
  EXPECT_LT(Clock::now() - killed, 3s);
  release.Signal();
  EXPECT_EQ(client.Wait(), 6);
  EXPECT_EQ(client.Output(), "tool ran\n");
  EXPECT_EQ(client.Errors(),
            "KESTRUN: error: Error waiting for response from master\nKESTRUN: warning: building locally...\n");
}

using Masters = Build;

TEST_F(Masters, OnlyOneRunsAtATime) {
  StartMaster();
  NamedEvent stopped(true);
  stopped.Signal();
  // The stop event of the last of them is already signalled when it starts.
  for (const Words& more : {Words{}, Words{"-es", stopped.Name()}}) {
    Words words{"-master", "-id", UniqueName("other")};
    words.insert(words.end(), more.begin(), more.end());
    const RunResult second = Kestrun(words);
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_EQ(second.errors, "KESTRUN: error: Another instance of Kestrun is already running.\n");
  }
  EXPECT_EQ(Tool({"exit", "9"}).exitCode, 9);
  EXPECT_EQ(StopMaster(), 0);
  StartMaster();
  EXPECT_EQ(StopMaster(), 0);
}

TEST_F(Masters, HaveAsManyPlacesAsTheyCanServe) {
  const struct {
    const char* settings;
    int places;
    const char* errors;
  } cases[] = {{"MaxStubs=int:0\nMaxConcurrentJobs=int:0\n", 30, ""},
               {"MaxStubs=int:100\n", 62, "KESTRUN: warning: MaxStubs is 100, using 62\n"}};
  for (const auto& c : cases) {
    WriteSettings(c.settings);
    StartMaster();
    EXPECT_EQ(Tool({"exit", "5"}).exitCode, 5);
    const HANDLE access = OpenSemaphoreA(SEMAPHORE_ALL_ACCESS, FALSE, ("zelvo_client_access_" + id_).c_str());
    int places = 0;
    while (WaitForSingleObject(access, 0) == WAIT_OBJECT_0) ++places;
    CloseHandle(access);
    EXPECT_EQ(places, c.places);
    EXPECT_EQ(StopMaster(), 0);
    EXPECT_EQ(Master().Errors(), c.errors);
  }
}

TEST_F(Masters, GoOnAfterTheFinishEventAndEndOnTheStopEvent) {
  StartMaster();
  FinishEvent().Signal();
  EXPECT_EQ(Tool({"exit", "2"}).exitCode, 2);
  EXPECT_EQ(StopMaster(), 0);
  EXPECT_GE(LogCount("Finished Jobs"), 2);
  EXPECT_EQ(LogCount("reason:STOP event from parent process"), 1);
}

// The times of all records of that title, in milliseconds of the day.
std::vector<long> TimesOf(const std::string& title, const std::string& log) {
  constexpr long kHour = 3600000, kMinute = 60000, kSecond = 1000;
  std::vector<long> times;
  for (std::size_t at = 0; (at = log.find(title, at)) != std::string::npos; ++at) {
    long hours = 0, minutes = 0, seconds = 0, milliseconds = 0;
    const std::size_t time = log.find(' ', log.find(" time:", at) + 1);
    EXPECT_EQ(std::sscanf(log.c_str() + time, "%ld:%ld:%ld.%ld", &hours, &minutes, &seconds, &milliseconds), 4);
    times.push_back(hours * kHour + minutes * kMinute + seconds * kSecond + milliseconds);
  }
  return times;
}

TEST_F(Masters, ScheduleAtOnceWhenTheyAreEager) {
  constexpr int kJobs = 4;
  constexpr auto kTick = 500ms;
  const auto timeOfJobs = [this] {
    StartMaster();
    const auto start = Clock::now();
    for (int i = 0; i < kJobs; ++i) EXPECT_EQ(Tool({"exit", std::to_string(i)}).exitCode, i);
    const auto time = Clock::now() - start;
    EXPECT_EQ(StopMaster(), 0);
    return time;
  };
  // One after the other: each job of a master that is not eager waits for a tick.
  EXPECT_GE(timeOfJobs(), (kJobs - 1) * kTick);
  EXPECT_EQ(LogCount("Job made of a request"), 0);
  WriteSettings("DiagnosticFlags=int:16\n\n[Extensions]\nEagerScheduling=bool:true\n");
  timeOfJobs();
  const std::vector<long> made = TimesOf("Job made of a request", LogText());
  std::vector<long> scheduled = TimesOf("Scheduled build-job", LogText());
  ASSERT_EQ(made.size(), std::size_t{kJobs});
  ASSERT_EQ(scheduled.size(), std::size_t{2 * kJobs});
  scheduled.erase(scheduled.begin(), scheduled.begin() + kJobs);
  int atOnce = 0;
  // A busy machine may stop the master between the two records, but hardly for each job.
  for (std::size_t i = 0; i < made.size(); ++i) atOnce += scheduled[i] - made[i] < kTick.count() / 2 ? 1 : 0;
  EXPECT_GE(atOnce, kJobs / 2);
}

}  // namespace
}  // namespace kestrun::test
