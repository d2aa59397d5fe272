#include "client/script_progress.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace kestrun {
namespace {

constexpr u32 kOwn = 7;

JobRecord Job(u64 number, JobOutcome outcome, u32 client = kOwn) {
  JobRecord job;
  job.number = number;
  job.clientProcess = client;
  job.outcome = outcome;
  if (outcome != JobOutcome::kWaiting) job.startedUs = 1;
  job.text.name = "j" + std::to_string(number);
  return job;
}

class ScriptProgressTest : public testing::Test {
 protected:
  ~ScriptProgressTest() override { std::fclose(file_); }

  // What was written since the last call.
  std::string Written() {
    std::string text;
    std::fseek(file_, static_cast<long>(read_), SEEK_SET);
    for (int c = std::fgetc(file_); c != EOF; c = std::fgetc(file_)) text += static_cast<char>(c);
    read_ += text.size();
    std::fseek(file_, 0, SEEK_END);
    return text;
  }
  void Tell(std::vector<JobRecord> jobs) {
    JournalNews news;
    news.jobs = std::move(jobs);
    progress_.Take(news, kOwn);
  }

  std::FILE* const file_ = std::tmpfile();
  std::size_t read_ = 0;
  ScriptProgress progress_{
      {{2, "cc a", "cc a.c"}, {4, "cc b", "cc b.c"}, {9, "cc c", "cc c.c"}, {10, "cc d", "cc d.c"}}, file_, 24};
};

TEST_F(ScriptProgressTest, ShowsWhatIsDoneAndWhatRunsOfItsOwnJobs) {
  Tell({Job(5, JobOutcome::kRunning), Job(6, JobOutcome::kRunning, 99), Job(8, JobOutcome::kWaiting)});
  EXPECT_EQ(Written(), "\r\x1b[K[0/4] running: j5");
  Tell({Job(5, JobOutcome::kOk), Job(8, JobOutcome::kRunning)});
  progress_.OnResult(2, 0);
  EXPECT_EQ(Written(), "\r\x1b[K[0/4] running: j8\r\x1b[K[1/4] running: j8");
  Tell({Job(9, JobOutcome::kRunning), Job(11, JobOutcome::kRunning)});
  EXPECT_EQ(Written(), "\r\x1b[K[1/4] running: j8, j9...");
}

TEST_F(ScriptProgressTest, WritesALineOnceAndNothingThatRunsBehindTheLastResult) {
  progress_.Show();
  progress_.Show();
  EXPECT_EQ(Written(), "\r\x1b[K[0/4]");
  Tell({Job(5, JobOutcome::kRunning)});
  for (const u32 line : {2u, 4u, 9u}) progress_.OnResult(line, 0);
  Written();
  progress_.OnResult(10, 0);
  EXPECT_EQ(Written(), "\r\x1b[K[4/4]");
}

TEST_F(ScriptProgressTest, IsOutOfTheWayWhileJobsPrint) {
  progress_.Show();
  Written();
  progress_.Hide();
  EXPECT_EQ(Written(), "\r\x1b[K");
  Tell({Job(5, JobOutcome::kRunning)});
  EXPECT_EQ(Written(), "");
  progress_.Show();
  EXPECT_EQ(Written(), "\r\x1b[K[0/4] running: j5");
}

TEST_F(ScriptProgressTest, NamesAFailureAtOnceAndAtTheEndWhatNeverStarted) {
  Tell({Job(5, JobOutcome::kOk), Job(6, JobOutcome::kFailed), Job(7, JobOutcome::kRunning),
        Job(8, JobOutcome::kWaiting)});
  progress_.OnResult(2, 0);
  Written();
  progress_.OnResult(4, 3);
  EXPECT_EQ(Written(), "\r\x1b[KKESTRUN: line 4 failed with exit code 3: cc b.c\n\r\x1b[K[2/4] running: j7");
  progress_.Finish(false);
  EXPECT_EQ(Written(), "\r\x1b[KKESTRUN: never started: cc d\n");
}

TEST_F(ScriptProgressTest, ListsTheFailuresWhereARunGoesOnBehindThem) {
  for (const auto& [line, code] : {std::pair(2, 1), std::pair(4, 0), std::pair(9, 0), std::pair(10, 2)}) {
    progress_.OnResult(static_cast<u32>(line), code);
  }
  Written();
  progress_.Finish(true);
  EXPECT_EQ(Written(),
            "\r\x1b[KKESTRUN: 2 of 4 jobs failed:\n"
            "KESTRUN: line 2 failed with exit code 1: cc a.c\n"
            "KESTRUN: line 10 failed with exit code 2: cc d.c\n");
}

}  // namespace
}  // namespace kestrun
