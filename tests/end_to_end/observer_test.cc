// Compares what observers are told of a build with what really ran; and shows that observers can't disturb a build.
#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <thread>
#include <vector>

#include "build_fixture.h"
#include "dorn_fixture.h"
#include "protocol/journal_observer.h"
#include "support/json.h"

namespace kestrun::test {
namespace {

using Outcome = JournalObserver::Outcome;

class Observed : public Dorn {
 protected:
  void StartMasterWith(const std::string& settings, const std::string& extensions = "") {
    WriteSettings(settings + "\n[Extensions]\n" + extensions);
    StartMaster();
  }
  std::unique_ptr<JournalObserver> Observe() { return JournalObserver::Connect(id_, 10000); }
  std::unique_ptr<JournalObserver> Follow(u32 process = 0) {
    auto observer = Observe();
    if (observer) observer->Ask(OBSERVE_FOLLOW, process);
    // The answer to a flush is the sign that nothing from here on is missed.
    EXPECT_TRUE(observer && Flush(*observer));
    return observer;
  }
  // Receives until the master says that it has told everything.
  bool Flush(JournalObserver& observer) {
    observer.Ask(OBSERVE_FLUSH);
    JournalNews news;
    do {
      if (observer.Receive(20000, news) != Outcome::kNews || !news.refusal.empty()) return false;
      for (const JobRecord& job : news.jobs) jobs_[job.number] = job;
      state_ = news.state;
    } while (news.state.isLast == 0);
    return true;
  }
  std::map<std::string, int> CountOutcomes() const {
    std::map<std::string, int> counts;
    for (const auto& [number, job] : jobs_) ++counts[GetOutcomeName(job.outcome)];
    return counts;
  }
  // Expects that no two jobs without a parent were in one slot at the same time.
  void ExpectOneJobInASlotAtATime() const {
    std::map<i32, std::vector<const JobRecord*>> slots;
    for (const auto& [number, job] : jobs_) {
      if (job.startedUs >= 0 && job.parent == 0) slots[job.slot].push_back(&job);
    }
    for (auto& [slot, jobs] : slots) {
      std::sort(jobs.begin(), jobs.end(), [](auto* one, auto* other) { return one->startedUs < other->startedUs; });
      for (std::size_t i = 1; i < jobs.size(); ++i) {
        EXPECT_LE(jobs[i - 1]->endedUs, jobs[i]->startedUs) << jobs[i]->text.command;
      }
    }
  }

  std::map<u64, JobRecord> jobs_;  // the latest of each
  JournalState state_;
};

TEST_F(Observed, ScriptIsToldAsItRan) {
  StartMasterWith("MaxConcurrentJobs=int:3\n");
  const auto observer = Follow();
  ASSERT_TRUE(observer);
  const unsigned count = Scaled(200);
  std::string script;
  for (unsigned i = 0; i < count; ++i) {
    script += "$TOOL sleep " + std::to_string(i % 7) + " , fill 100 " + std::to_string(i) + " , exit " +
              std::to_string(i % 5 == 0 ? 3 : 0) + "\n";
  }
  EXPECT_EQ(Script(script, {"-k", "-n", "the name", "-p", "proj"}).exitCode, 3);
  ASSERT_TRUE(Flush(*observer));
  ASSERT_EQ(jobs_.size(), count);
  EXPECT_EQ(state_.done, count);
  EXPECT_EQ(state_.running + state_.waiting + state_.missed, 0u);
  unsigned i = 0;
  for (const auto& [number, job] : jobs_) {
    EXPECT_TRUE(
        job.text.command.ends_with(" fill 100 " + std::to_string(i) + " , exit " + std::to_string(i % 5 == 0 ? 3 : 0)))
        << job.text.command;
    EXPECT_EQ(job.outcome, i % 5 == 0 ? JobOutcome::kFailed : JobOutcome::kOk);
    EXPECT_EQ(job.exitCode, i % 5 == 0 ? 3 : 0);
    EXPECT_EQ(job.outputBytes, 100 + i);
    EXPECT_GE(job.endedUs - job.startedUs, (i % 7) * 1000);
    EXPECT_LE(job.queuedUs, job.startedUs);
    EXPECT_TRUE(job.slot >= 0 && job.slot < 3);
    EXPECT_EQ(job.text.name, "the name");
    EXPECT_EQ(job.text.project.substr(0, 5), "proj(");
    // The head of the output is kept for failures only, and is that of the standard error stream if there is any.
    EXPECT_EQ(job.outputHead.size(), i % 5 != 0 ? 0 : i == 0 ? 100 : i);
    EXPECT_NE(job.cpuUs, 0);
    ++i;
  }
  ExpectOneJobInASlotAtATime();
  EXPECT_EQ(StopMaster(), 0);
}

TEST_F(Observed, CancelledAndOverdueJobsAreToldAsSuch) {
  StartMasterWith("MaxConcurrentJobs=int:1\n", "CancelOrphanedJobs=bool:true\nEnforceJobTimeout=bool:true\n");
  const auto observer = Follow();
  ASSERT_TRUE(observer);
  NamedEvent started;
  const std::string script = WriteScript("$TOOL signal " + started.Name() + " , hold\n$TOOL exit 0\n$TOOL exit 0\n");
  Child client = StartKestrun({"-s", script});
  ASSERT_TRUE(started.Wait(20000));
  client.Kill();
  EXPECT_TRUE(BecomesTrue([&] { return Flush(*observer) && state_.done == 3; }));
  EXPECT_EQ(CountOutcomes(), (std::map<std::string, int>{{"cancelled", 3}}));
  EXPECT_EQ(state_.failed, 0u);
  EXPECT_EQ(StopMaster(), 0);
}

TEST_F(Observed, ThoseThatDieOrDoNotReadHoldUpNoBuild) {
  StartMasterWith("MaxConcurrentJobs=int:4\n", "EagerScheduling=bool:true\n");
  // Neither of the two observers reads anything from here on, and one is dropped in the middle of the build.
  const auto silent = Observe();
  auto lost = Observe();
  ASSERT_TRUE(silent && lost && silent->Ask(OBSERVE_FOLLOW) && lost->Ask(OBSERVE_FOLLOW));
  const auto observer = Follow();
  ASSERT_TRUE(observer);
  std::string script;
  const unsigned count = Scaled(300);
  for (unsigned i = 0; i < count; ++i) script += "$TOOL exit 0 , " + std::string(4000, 'x') + "\n";
  EXPECT_EQ(Script(script).exitCode, 0);
  lost.reset();
  EXPECT_EQ(Script(script).exitCode, 0);
  ASSERT_TRUE(Flush(*observer));
  EXPECT_EQ(state_.missed, 0u);
  EXPECT_EQ(jobs_.size(), 2 * count);
  for (unsigned i = 0; i < 100; ++i) silent->Ask(OBSERVE_SNAPSHOT);
  EXPECT_TRUE(Flush(*observer));
  EXPECT_EQ(StopMaster(), 0);
}

TEST_F(Observed, NoMoreThanTheMasterHasRoomForAreServed) {
  StartMasterWith("MaxStubs=int:61\n");
  const auto first = Follow();
  ASSERT_TRUE(first);
  const auto second = Observe();
  ASSERT_TRUE(second);
  second->Ask(OBSERVE_SNAPSHOT);
  JournalNews news;
  ASSERT_EQ(second->Receive(20000, news), Outcome::kNews);
  EXPECT_EQ(news.refusal, "the master has no room for another observer");
  EXPECT_EQ(second->Receive(20000, news), Outcome::kGone);
  EXPECT_TRUE(Flush(*first));
  EXPECT_EQ(StopMaster(), 0);
}

// The whole way: dorn with its first settings, clients that become their tools, and the files.
TEST_F(Observed, BuildOfDornWritesWhatItSaw) {
  const std::string kestrun = ProgramPath("kestrun");
  const std::string record = folder_.File("record.json");
  const std::string trace = folder_.File("trace.json");
  std::filesystem::remove(folder_.File("common/DORN/Zelvo.ini"));
  const RunResult result = RunDorn({"--summary", "--record", record, "--trace", trace, "-j", "2", kestrun, "-n",
                                    "outer 1", kestrun, tool_, "sleep", "20", ",", "exit", "7"});
  EXPECT_EQ(result.exitCode, Seen(7));
  const Json json = Json::Parse(folder_.Read("record.json"));
  EXPECT_EQ(json["build"]["exit_code"].Int(), Seen(7));
  EXPECT_EQ(json["build"]["slots"].Int(), 2);
  EXPECT_GE(json["jobs"].elements.size(), 1u);
  bool hasFailed = false;
  for (const Json& job : json["jobs"].elements) {
    EXPECT_GE(job["ended_us"].Int() - job["started_us"].Int(), 20000);
    EXPECT_GT(job["client_pid"].Int(), 0);
    hasFailed |= job["outcome"].string == "failed" && job["exit_code"].Int() == Seen(7);
  }
  EXPECT_TRUE(hasFailed) << folder_.Read("record.json");
  EXPECT_EQ(json["jobs"].elements.at(0)["name"].string, "outer 1");
  EXPECT_FALSE(Json::Parse(folder_.Read("trace.json"))["traceEvents"].elements.empty());
  EXPECT_NE(result.errors.find("DORN: "), std::string::npos);
  EXPECT_NE(result.errors.find(" failed:"), std::string::npos) << result.errors;
  const RunResult history = RunDorn({"--history"});
  EXPECT_EQ(Json::Parse(history.output)["exit_code"].Int(), Seen(7));
}

TEST_F(Observed, StatusTellsOfABuildAndOfNone) {
  RunResult none = RunDorn({"--status", "--json"});
  EXPECT_EQ(none.exitCode, 1);
  EXPECT_FALSE(Json::Parse(none.output)["build_runs"].boolean);
  std::filesystem::remove(folder_.File("common/DORN/Zelvo.ini"));
  RunningBuild build = StartBuild();
  const RunResult status = RunDorn({"--status", "--json"});
  EXPECT_EQ(status.exitCode, 0);
  const Json json = Json::Parse(status.output);
  EXPECT_EQ(json["jobs_running"].Int(), 1) << status.output;
  EXPECT_EQ(json["running"].elements.size(), 1u);
  EXPECT_NE(RunDorn({"--status"}).output.find(", 1 running, 0 waiting"), std::string::npos);
  build.dorn.Kill();
  ExpectAllGone(build);
}

}  // namespace
}  // namespace kestrun::test
