#include "master/job_journal.h"

#include <gtest/gtest.h>

#include <thread>

namespace kestrun {
namespace {

// Process n has the parent n - 1, down to 0.
u32 Below(u32 processId) {
  return processId > 0 ? processId - 1 : 0;
}

rc_ptr<JobDescription> Text(const std::string& command) {
  JobText text;
  text.command = command;
  return new OwnedJobText(text);
}

class JobJournalTest : public testing::Test {
 protected:
  // Adds, starts and ends a job.
  u64 Run(const std::string& command, JobOutcome outcome = JobOutcome::kOk) {
    const u64 number = journal_.Add(Text(command), 0);
    journal_.Start(number, 0, 0);
    journal_.Finish(number, {outcome});
    return number;
  }
  std::vector<JobRecord> Take(JobJournal::Observer observer, std::size_t mostBytes = 1 << 20) {
    u64 position = 0;
    std::vector<JobRecord> records;
    EXPECT_TRUE(DecodeRecords(journal_.Take(observer, mostBytes, position), records));
    return records;
  }

  JobJournal journal_{4, Below, 10};
};

TEST_F(JobJournalTest, KeepsNothingButCountsOfEndedJobsThatNothingFollows) {
  Run("a");
  Run("b", JobOutcome::kFailed);
  Run("c", JobOutcome::kUnknown);
  Run("d", JobOutcome::kCancelled);
  const JournalState state = journal_.GetState(0);
  EXPECT_EQ(state.done, 4u);
  EXPECT_EQ(state.failed, 1u);
  EXPECT_EQ(state.unknown, 1u);
  EXPECT_EQ(journal_.Snapshot(1 << 20), "");
  EXPECT_TRUE(Take(journal_.Join(0)).empty());
}

TEST_F(JobJournalTest, TellsAFollowerOfEachJobAtItsLatestChange) {
  const u64 early = journal_.Add(Text("early"), 0);
  const JobJournal::Observer observer = journal_.Join(0);
  Run("short");
  std::vector<JobRecord> records = Take(observer);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].text.command, "early");
  EXPECT_EQ(records[0].outcome, JobOutcome::kWaiting);
  EXPECT_EQ(records[1].text.command, "short");
  EXPECT_EQ(records[1].outcome, JobOutcome::kOk);
  EXPECT_LE(records[1].queuedUs, records[1].startedUs);
  EXPECT_LE(records[1].startedUs, records[1].endedUs);
  EXPECT_TRUE(Take(observer).empty());
  journal_.Start(early, 3, 0);
  records = Take(observer);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].outcome, JobOutcome::kRunning);
  EXPECT_EQ(records[0].slot, 3);
}

TEST_F(JobJournalTest, TellsALaterFollowerNothingOfWhatHasEnded) {
  const JobJournal::Observer first = journal_.Join(0);
  Run("ended");
  journal_.Add(Text("waiting"), 0);
  const std::vector<JobRecord> records = Take(journal_.Join(0));
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].text.command, "waiting");
  EXPECT_EQ(Take(first).size(), 2u);
}

TEST_F(JobJournalTest, CountsWhatASlowFollowerMissesAndForgetsWhatAllHaveGot) {
  const JobJournal::Observer quick = journal_.Join(0);
  const JobJournal::Observer slow = journal_.Join(0);
  for (int i = 0; i < 25; ++i) {
    Run(std::to_string(i));
    EXPECT_EQ(Take(quick).size(), 1u);
  }
  EXPECT_EQ(journal_.GetState(quick).missed, 0u);
  EXPECT_EQ(journal_.GetState(slow).missed, 15u);
  const std::vector<JobRecord> rest = Take(slow);
  ASSERT_EQ(rest.size(), 10u);
  EXPECT_EQ(rest.front().text.command, "15");
  for (int i = 0; i < 25; ++i) Run("more");
  journal_.Leave(slow);
  EXPECT_EQ(Take(quick).size(), 10u);
  journal_.Leave(quick);
  EXPECT_FALSE(journal_.IsObserved());
}

TEST_F(JobJournalTest, BoundsTheBytesOfWhatASlowFollowerHasNotGot) {
  JobJournal journal(1, Below);
  const JobJournal::Observer slow = journal.Join(0);
  constexpr u64 kJobs = 40;
  for (u64 i = 0; i < kJobs; ++i) {
    journal.Finish(journal.Add(Text(std::string(1 << 20, 'x')), 0), {JobOutcome::kOk});
  }
  u64 position = 0;
  const std::string bytes = journal.Take(slow, 1 << 30, position);
  EXPECT_LE(bytes.size(), JobJournal::kMostEndedBytes);
  std::vector<JobRecord> records;
  EXPECT_TRUE(DecodeRecords(bytes, records));
  EXPECT_EQ(records.size() + journal.GetState(slow).missed, kJobs);
}

TEST_F(JobJournalTest, GivesOutAsMuchAsFitsAndGoesOnBehindIt) {
  const JobJournal::Observer observer = journal_.Join(0);
  for (int i = 0; i < 5; ++i) Run(std::to_string(i));
  for (int i = 0; i < 5; ++i) {
    const std::vector<JobRecord> records = Take(observer, 1);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text.command, std::to_string(i));
  }
  EXPECT_TRUE(Take(observer, 1).empty());
}

TEST_F(JobJournalTest, FindsTheJobAndTheObserverAboveAClient) {
  const JobJournal::Observer observer = journal_.Join(100);
  const u64 outer = journal_.Add(Text("outer"), 110);
  journal_.Start(outer, 0, 0);
  journal_.FindParent(outer);
  const u64 inner = journal_.Add(Text("inner"), 120);
  journal_.FindParent(inner);
  const u64 other = journal_.Add(Text("other"), 50);
  journal_.FindParent(other);
  const std::vector<JobRecord> records = Take(observer);
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].parent, 0u);
  EXPECT_EQ(records[0].rootProcess, 100u);
  EXPECT_EQ(records[1].parent, outer);
  EXPECT_EQ(records[1].rootProcess, 100u);
  EXPECT_EQ(records[2].parent, 0u);
  EXPECT_EQ(records[2].rootProcess, 0u);
}

// Process 100 observes, and below it 110 does.
TEST_F(JobJournalTest, GivesAJobBelowTwoObserversToBoth) {
  const JobJournal::Observer outer = journal_.Join(100);
  const JobJournal::Observer inner = journal_.Join(110);
  const u64 job = journal_.Add(Text("job"), 120);
  journal_.FindParent(job);
  EXPECT_EQ(Take(outer).at(0).rootProcess, 100u);
  EXPECT_EQ(Take(inner).at(0).rootProcess, 110u);
}

TEST_F(JobJournalTest, KeepsTheLastSampleOfAJobWhoseEndTellsNoTime) {
  const JobJournal::Observer observer = journal_.Join(0);
  for (const std::int64_t told : {JobRecord::kNone, std::int64_t{70}}) {
    const u64 job = journal_.Add(Text("job"), 5);
    journal_.AddSample(job, {2000, 40});
    journal_.AddSample(job, {1000, 50});
    JobJournal::End end;
    end.cpuUs = told;
    journal_.Finish(job, end);
    const JobRecord record = Take(observer).at(0);
    EXPECT_EQ(record.cpuUs, std::max<std::int64_t>(told, 50));
    EXPECT_EQ(record.peakMemoryBytes, 2000);
  }
}

TEST_F(JobJournalTest, TakesTheFirstEndOfAJobAndNoneOfAnUnknownOne) {
  const JobJournal::Observer observer = journal_.Join(0);
  const u64 job = Run("a", JobOutcome::kFailed);
  journal_.Finish(job, {JobOutcome::kOk});
  journal_.Start(job, 1, 0);
  journal_.Finish(99, {JobOutcome::kOk});
  EXPECT_EQ(Take(observer).at(0).outcome, JobOutcome::kFailed);
  const JournalState state = journal_.GetState(observer);
  EXPECT_EQ(state.done, 1u);
  EXPECT_EQ(state.running + state.waiting, 0u);
}

TEST_F(JobJournalTest, ShowsWhatRunsBeforeWhatWaits) {
  journal_.Add(Text("waits"), 0);
  journal_.Start(journal_.Add(Text("runs"), 0), 0, 0);
  std::vector<JobRecord> records;
  ASSERT_TRUE(DecodeRecords(journal_.Snapshot(1 << 20), records));
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].text.command, "runs");
  EXPECT_EQ(records[1].text.command, "waits");
  records.clear();
  ASSERT_TRUE(DecodeRecords(journal_.Snapshot(1), records));
  EXPECT_EQ(records.size(), 1u);
}

// Each job is told to each follower with its end, or counted as missed by it, whatever the order of the threads.
TEST_F(JobJournalTest, RestsOnceAllIsToldAndCallsOnceAtTheNextJob) {
  int calls = 0;
  const JobJournal::Observer observer = journal_.Join(0);
  EXPECT_FALSE(journal_.Rest()) << "nothing would end the rest";
  journal_.SetListener([&] {
    ++calls;
    EXPECT_FALSE(journal_.Rest()) << "the new job is to be told";
  });
  EXPECT_TRUE(journal_.Rest());
  const u64 number = journal_.Add(Text("a"), 0);
  EXPECT_EQ(calls, 1);
  Take(observer);
  EXPECT_FALSE(journal_.Rest()) << "a job waits";
  journal_.Start(number, 0, 0);
  journal_.Finish(number, {JobOutcome::kOk});
  EXPECT_FALSE(journal_.Rest()) << "its end is to be told";
  Run("b");
  EXPECT_EQ(calls, 1);
  Take(observer);
  EXPECT_TRUE(journal_.Rest());
}

}  // namespace
}  // namespace kestrun
