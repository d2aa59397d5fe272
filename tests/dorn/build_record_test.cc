#include "dorn/build_record.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "dorn/history.h"
#include "dorn/status.h"
#include "dorn/summary.h"
#include "platform/win32.h"
#include "support/json.h"
#include "support/names.h"

namespace kestrun::dorn {
namespace {

using test::Json;

constexpr std::int64_t kStart = 1000000;

JobRecord Job(u64 number, i32 slot, std::int64_t started, std::int64_t ended, u64 parent = 0) {
  JobRecord job;
  job.number = number;
  job.parent = parent;
  job.slot = slot;
  job.queuedUs = kStart + started - 5;
  job.startedUs = kStart + started;
  job.endedUs = kStart + ended;
  job.outcome = JobOutcome::kOk;
  job.hasExitCode = true;
  job.text = {"p", "", "gcc", "gcc -c f" + std::to_string(number) + ".c", "/f"};
  return job;
}

BuildRecord Build(std::vector<JobRecord> jobs) {
  BuildRecord build;
  build.startedUs = kStart;
  build.startedUnixUs = 5;
  build.durationUs = 1000;
  build.command = "make \"x\"\x01\xFF";
  build.folder = "/\xE2\x82\xAC";
  build.slots = 2;
  build.jobs = std::move(jobs);
  return build;
}

TEST(BuildRecordTest, WritesWhatIsKnownAndNullForWhatIsNot) {
  JobRecord failed = Job(1, 0, 10, 20);
  failed.outcome = JobOutcome::kFailed;
  failed.exitCode = 3;
  failed.cpuUs = 7;
  failed.outputHead = "line\n\"quoted\"";
  JobRecord waiting;
  waiting.number = 2;
  waiting.queuedUs = kStart + 1;
  const Json json = Json::Parse(GetRecordText(Build({failed, waiting})));
  EXPECT_EQ(json["kestrun_build_record"].Int(), 1);
  EXPECT_EQ(json["build"]["command"].string, "make \"x\"\x01\xEF\xBF\xBD");
  EXPECT_EQ(json["build"]["folder"].string, "/\xE2\x82\xAC");
  EXPECT_EQ(json["build"]["duration_us"].Int(), 1000);
  const Json& one = json["jobs"].elements.at(0);
  EXPECT_EQ(one["queued_us"].Int(), 5);
  EXPECT_EQ(one["started_us"].Int(), 10);
  EXPECT_EQ(one["ended_us"].Int(), 20);
  EXPECT_EQ(one["outcome"].string, "failed");
  EXPECT_EQ(one["exit_code"].Int(), 3);
  EXPECT_EQ(one["cpu_us"].Int(), 7);
  EXPECT_EQ(one["output_head"].string, "line\n\"quoted\"");
  const Json& two = json["jobs"].elements.at(1);
  EXPECT_EQ(two["outcome"].string, "waiting");
  for (const char* key : {"started_us", "ended_us", "slot", "exit_code", "cpu_us", "peak_memory_bytes"}) {
    EXPECT_TRUE(two.Has(key) && two[key].IsNull()) << key;
  }
}

TEST(BuildRecordTest, CountsASlotAsBusyOnceAndNestedTimeOnce) {
  BuildRecord build = Build({Job(1, 0, 0, 500), Job(2, 0, 100, 300, 1), Job(3, 1, 0, 100), Job(4, 1, 400, 600)});
  for (JobRecord& job : build.jobs) job.cpuUs = 100;
  build.jobs[1].outcome = JobOutcome::kSignalled;
  build.jobs[2].outcome = JobOutcome::kCancelled;
  build.jobs[3].peakMemoryBytes = 12;
  const BuildFigures figures = GetFigures(build);
  EXPECT_EQ(figures.jobs, 4u);
  EXPECT_EQ(figures.failures, 1u);
  EXPECT_EQ(figures.busyUs, 500 + 100 + 200);
  EXPECT_EQ(figures.cpuUs, 300);
  EXPECT_EQ(figures.peakMemoryBytes, 12);
  // If the time of the outer job is not known, the time of the inner job counts.
  build.jobs[0].cpuUs = JobRecord::kNone;
  build.jobs[1].cpuUs = 70;
  EXPECT_EQ(GetFigures(build).cpuUs, 270);
  EXPECT_EQ(GetFigures(build).withoutCpu, 1u);
}

// What readers of the format rely on: every event has a phase, a row and a time, spans of a row nest, asynchronous
// spans come in pairs, and counters never go below 0.
TEST(BuildRecordTest, WritesATraceThatReadersTake) {
  // 2 lies within 1; 3 begins within 1 and ends behind it; 4 begins as 1 ends; 5 never started.
  JobRecord never = Job(5, -1, 0, 50);
  never.startedUs = JobRecord::kNone;
  const Json json = Json::Parse(
      GetTraceText(Build({Job(1, 0, 0, 500), Job(2, 0, 100, 300), Job(3, 0, 400, 600), Job(4, 0, 500, 800), never})));
  std::map<long long, std::vector<std::pair<long long, long long>>> rows;
  std::map<long long, int> open;
  std::set<std::string> names;
  for (const Json& event : json["traceEvents"].elements) {
    const std::string phase = event["ph"].string;
    for (const char* key : {"pid", "tid", "ts"}) EXPECT_EQ(event[key].kind, Json::Kind::kNumber) << key;
    EXPECT_GE(event["ts"].Int(), 0);
    EXPECT_EQ(event["name"].kind, Json::Kind::kString);
    if (phase == "X") rows[event["tid"].Int()].emplace_back(event["ts"].Int(), event["ts"].Int() + event["dur"].Int());
    if (phase == "b") ++open[event["id"].Int()];
    if (phase == "e") --open[event["id"].Int()];
    if (phase == "C") {
      EXPECT_GE(event["args"]["jobs"].Int(), 0);
    }
    if (phase == "M") names.insert(event["args"]["name"].string);
  }
  EXPECT_EQ(rows.size(), 2u);
  for (const auto& [row, spans] : rows) {
    for (const auto& one : spans) {
      for (const auto& other : spans) {
        const bool crosses = one.first < other.first && other.first < one.second && one.second < other.second;
        EXPECT_FALSE(crosses) << row;
      }
    }
  }
  EXPECT_EQ(open.size(), 5u);
  for (const auto& [id, count] : open) EXPECT_EQ(count, 0);
  EXPECT_TRUE(names.contains("slot 0") && names.contains("slot 0 (2)"));
}

TEST(SummaryTest, NamesFailuresAndTheSlowest) {
  std::vector<JobRecord> jobs;
  for (u64 n = 1; n <= 20; ++n) {
    jobs.push_back(Job(n, 0, 0, static_cast<std::int64_t>(n) * 1000000));
    jobs.back().outcome = n > 8 ? JobOutcome::kFailed : JobOutcome::kOk;
    jobs.back().exitCode = 4;
  }
  jobs[19].outcome = JobOutcome::kSignalled;
  jobs[19].signal = 9;
  const std::vector<std::string> lines = GetSummary(Build(jobs), 60);
  ASSERT_EQ(lines.size(), 1 + 1 + 10 + 1 + 1 + 5u);
  EXPECT_EQ(lines[0].substr(0, 7), "20 jobs");
  EXPECT_EQ(lines[1], "12 failed:");
  EXPECT_EQ(lines[2], "  gcc f9.c (exit code 4): gcc -c f9.c");
  EXPECT_EQ(lines[12], "  and 2 more");
  EXPECT_EQ(lines[14], "  20.0 s  gcc f20.c");
  EXPECT_TRUE(GetSummary(Build({}), 60).empty());
  const std::vector<std::string> narrow = GetSummary(Build(jobs), 30);
  EXPECT_EQ(narrow[0] + narrow[1].substr(1), lines[0]);
}

TEST(SummaryTest, FormatsSpansForPeople) {
  EXPECT_EQ(FormatSpan(0), "0.00 s");
  EXPECT_EQ(FormatSpan(9990000), "9.99 s");
  EXPECT_EQ(FormatSpan(10000000), "10.0 s");
  EXPECT_EQ(FormatSpan(185000000), "3 min 5 s");
  EXPECT_EQ(FormatSpan(7620000000), "2 h 7 min");
}

TEST(StatusTest, ShowsAsManyJobsAsFitAndCountsTheOthers) {
  JournalNews news;
  news.state.nowUs = kStart + 100;
  news.state.slots = 2;
  news.state.running = 3;  // one of them in the slot of another
  news.state.waiting = 50;
  for (u64 n = 1; n <= 53; ++n) {
    news.jobs.push_back(Job(n, 0, 0, 0));
    news.jobs.back().outcome = n <= 3 ? JobOutcome::kRunning : JobOutcome::kWaiting;
  }
  const std::string text = GetStatusText(news, 10, 40);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 10);
  EXPECT_NE(GetStatusText(news, 10, 200).find("; 2 of 2 slots busy\n"), std::string::npos);
  EXPECT_NE(text.find("  gcc f1.c\n"), std::string::npos);
  EXPECT_NE(text.find("  and 45 more\n"), std::string::npos);
  const Json json = Json::Parse(GetStatusJson(&news, "i"));
  EXPECT_TRUE(json["build_runs"].boolean);
  EXPECT_EQ(json["jobs_waiting"].Int(), 50);
  EXPECT_EQ(json["running"].elements.at(1)["running_age_us"].Int(), 100);
  EXPECT_FALSE(Json::Parse(GetStatusJson(nullptr, ""))["build_runs"].boolean);
}

TEST(HistoryTest, HasOneLineOfJsonForABuild) {
  const std::string line = GetHistoryLine(Build({Job(1, 0, 0, 1)}));
  EXPECT_EQ(line.find('\n'), line.size() - 1);
  EXPECT_EQ(Json::Parse(line)["jobs_done"].Int(), 1);
}

TEST(HistoryTest, LosesItsOlderHalfBeyondFourMebibytes) {
  const test::TempFolder folder;
  SetEnvironmentVariableA("RV_COMMON_PATH", folder.Path().string().c_str());
  std::filesystem::create_directory(folder.Path() / "DORN");
  std::string builds;
  for (const char build : {'1', '2', '3', '4', '5'}) builds += std::string((1 << 20) - 1, build) + '\n';
  folder.Write("DORN/Builds.jsonl", builds);
  AddToHistory(Build({}));
  SetEnvironmentVariableA("RV_COMMON_PATH", nullptr);
  const std::string left = folder.Read("DORN/Builds.jsonl");
  EXPECT_EQ(left[0], '5');
  EXPECT_EQ(left.substr(1 << 20), GetHistoryLine(Build({})));
}

}  // namespace
}  // namespace kestrun::dorn
