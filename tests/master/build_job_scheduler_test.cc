#include "master/build_job_scheduler.h"

#include <gtest/gtest.h>

#include "job_test.h"

namespace kestrun {
namespace {

using test::NumberOf;
using test::RecordingChannel;
using test::TextOf;

// A scheduler with one local build thread, and its message thread played by the test.
class SchedulerTest : public test::JobTest {
 protected:
  void Add(const rc_ptr<BuildJob>& job) {
    scheduler_.AddJob(job);
    scheduler_.ScheduleIfPending();
  }
  // Takes the next result as the message thread does, and gives its job.
  rc_ptr<BuildJob> Finish() {
    const rc_ptr<Message> result = NextMessage();
    EXPECT_EQ(result->GetType(), MSG_LOCAL_JOB_RESULT);
    const rc_ptr<BuildJob> job = scheduler_.JobResult(
        scheduler_.GetServer(), static_cast<u32>(NumberOf(result, SEG_JOB_ID)), NumberOf(result, SEG_EXIT_CODE),
        result->FindSegment(SEG_STDOUT), result->FindSegment(SEG_STDERR), 0, NumberOf(result, SEG_ELAPSED));
    if (job) scheduler_.JobCompleted(job);
    return job;
  }

  BuildJobScheduler scheduler_{1, &settings_, &dispatcher_};
};

TEST_F(SchedulerTest, HandsJobsOnInTheOrderOfTheirNumbers) {
  for (u32 id : {3u, 1u, 2u}) scheduler_.AddJob(Job(id, "p"));
  scheduler_.ScheduleIfPending();
  for (u32 id = 1; id <= 3; ++id) EXPECT_EQ(Finish()->id, id);
}

TEST_F(SchedulerTest, TakesOneResultForEachJob) {
  const rc_ptr<BuildJob> job = Job(1, "p", "print x , exit 2");
  Add(job);
  EXPECT_EQ(job->state, JOB_SCHEDULED);
  EXPECT_EQ(scheduler_.GetServer()->assignedJobs.count(1), 1u);
  EXPECT_EQ(Finish(), job);
  EXPECT_EQ(job->exitCode, 2);
  EXPECT_EQ(job->stdoutText->GetText(), "x\n");
  EXPECT_EQ(scheduler_.GetServer()->assignedJobs.count(1), 0u);
  EXPECT_EQ(scheduler_.GetServer()->completedCount, 1u);
  bool finished = false;
  EXPECT_FALSE(scheduler_.JobResult(scheduler_.GetServer(), 1, 0, nullptr, nullptr, 0, 0, &finished));
  EXPECT_FALSE(scheduler_.JobResult(scheduler_.GetServer(), 99, 0, nullptr, nullptr, 0, 0, &finished));
  EXPECT_FALSE(scheduler_.JobResult(nullptr, 1, 0, nullptr, nullptr, 0, 0, &finished));
  EXPECT_FALSE(finished);
  EXPECT_EQ(job->exitCode, 2);
}

TEST_F(SchedulerTest, EndsAnAnnouncedProjectOnceAllItsJobsAreDone) {
  scheduler_.NewProject("p", 2, 0, stub_->GetAddress());
  Add(Job(1, "p"));
  Finish();
  EXPECT_EQ(stub_->Count(), 0u);
  Add(Job(2, "p"));
  Finish();
  ASSERT_EQ(stub_->Count(), 1u);
  EXPECT_EQ(stub_->Next()->GetType(), MSG_PROJECT_COMPLETE);
  Add(Job(3, "p"));
  EXPECT_EQ(Finish()->project->totalJobs, 3u);
  EXPECT_EQ(stub_->Count(), 0u);
}

TEST_F(SchedulerTest, LetsJobsOfAReplacedProjectEndWithTheirOwnRecord) {
  const rc_ptr<BuildJob> old = Job(1, "p");
  scheduler_.NewProject("p", 1, 0, stub_->GetAddress());
  scheduler_.AddJob(old);
  const rc_ptr<RecordingChannel> other = RecordingChannel::Add(dispatcher_, test::UniqueName());
  scheduler_.NewProject("p", 1, 0, other->GetAddress());
  Add(Job(2, "p"));
  Finish();
  EXPECT_EQ(stub_->Next()->GetType(), MSG_PROJECT_COMPLETE);
  EXPECT_EQ(other->Count(), 0u);
  Finish();
  EXPECT_EQ(other->Next()->GetType(), MSG_PROJECT_COMPLETE);
}

// Another client announces a project of the same name after the first client's announcement and before its jobs.
TEST_F(SchedulerTest, KeepsTheJobsOfAClientInItsOwnProject) {
  const rc_ptr<RecordingChannel> other = RecordingChannel::Add(dispatcher_, test::UniqueName());
  scheduler_.NewProject("p", 2, 0, stub_->GetAddress());
  scheduler_.NewProject("p", 1, 0, other->GetAddress());
  for (u32 id : {1u, 2u}) {
    EXPECT_EQ(stub_->Count(), 0u);
    Add(Job(id, "p"));
    Finish();
  }
  ASSERT_EQ(stub_->Count(), 1u);
  EXPECT_EQ(other->Count(), 0u);
}

// The scheduler keeps projects that have jobs, and the latest few announcements of a live client. A job that comes too
// late gets a project of its name and not the announced one.
TEST_F(SchedulerTest, ForgetsAnnouncementsThatGetNoJob) {
  constexpr u32 kMost = BuildJobScheduler::kMostUnusedProjects;
  scheduler_.NewProject("used", 2, 0, stub_->GetAddress());
  scheduler_.AddJob(Job(1, "used"));
  for (u32 i = 0; i <= kMost; ++i) scheduler_.NewProject("p" + std::to_string(i), 7, 0, stub_->GetAddress());
  const std::pair<const char*, u32> totals[] = {{"used", 2}, {"p0", 1}, {"p1", 7}};
  u32 id = 1;
  for (const auto& [name, total] : totals) {
    const rc_ptr<BuildJob> job = Job(++id, name);
    scheduler_.AddJob(job);
    EXPECT_EQ(job->project->totalJobs, total) << name;
  }
  scheduler_.ClientGone(stub_->GetAddress());
  const std::pair<const char*, u32> later[] = {{"used", 3}, {"p1", 7}, {"p2", 1}};
  for (const auto& [name, total] : later) {
    const rc_ptr<BuildJob> job = Job(++id, name);
    scheduler_.AddJob(job);
    EXPECT_EQ(job->project->totalJobs, total) << name;
  }
}

TEST_F(SchedulerTest, StopsTheMasterForAJobWithoutAProject) {
  const rc_ptr<BuildJob> job = Job(7, "lost");
  testing::internal::CaptureStderr();
  scheduler_.JobCompleted(job);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "KESTRUN: error: unknown project [lost] in build-job 7\n");
  const rc_ptr<Message> stop = NextMessage();
  EXPECT_EQ(stop->GetType(), MSG_STOP);
  EXPECT_EQ(TextOf(stop, SEG_STOP_REASON), "Job is part of unknown project: lost");
}

TEST_F(SchedulerTest, CancelsTheJobsOfALostClientAndOfNoOther) {
  settings_.SetBool("Extensions/CancelOrphanedJobs", true);
  BuildJobScheduler scheduler(1, &settings_, &dispatcher_);
  const rc_ptr<RecordingChannel> other = RecordingChannel::Add(dispatcher_, test::UniqueName());
  const std::string mark = folder_.File("ran");
  scheduler.NewProject("p", 4, 0, other->GetAddress());
  // Of the client that leaves, one job may be running, one waits in the queue and one is not scheduled yet. The third
  // job belongs to another client, and the fifth to a client that has gone already.
  const rc_ptr<BuildJob> jobs[] = {Job(1, "p", "hold"), Job(2, "p", "create " + mark), Job(3, "p", "exit 6"),
                                   Job(4, "p", "create " + mark), Job(5, "p", "create " + mark)};
  jobs[2]->clientAddress = other->GetAddress();
  jobs[4]->clientAddress = Address(Address::kIpc, test::UniqueName());
  for (int i = 0; i < 3; ++i) scheduler.AddJob(jobs[i]);
  scheduler.ScheduleIfPending();
  scheduler.AddJob(jobs[3]);
  scheduler.AddJob(jobs[4]);
  scheduler.ClientGone(stub_->GetAddress());
  scheduler.ScheduleIfPending();
  for (i32 id = 1; id <= 5; ++id) {
    const rc_ptr<Message> result = NextMessage();
    ASSERT_EQ(NumberOf(result, SEG_JOB_ID), id);
    const i32 code = NumberOf(result, SEG_EXIT_CODE);
    EXPECT_EQ(code, id == 3 ? 6 : -1);
    EXPECT_EQ(other->Count(), 0u);
    scheduler.JobCompleted(
        scheduler.JobResult(scheduler.GetServer(), static_cast<u32>(id), code, nullptr, nullptr, 0, 0));
  }
  EXPECT_FALSE(Path(mark).Exists());
  EXPECT_EQ(jobs[0]->project->completed.size(), 5u);
  EXPECT_TRUE(scheduler.GetServer()->assignedJobs.empty());
  EXPECT_EQ(other->Next()->GetType(), MSG_PROJECT_COMPLETE);
}

TEST_F(SchedulerTest, CountsAFinishedJobAndLetsItGo) {
  settings_.SetBool("Extensions/DiscardOutput", true);
  BuildJobScheduler scheduler(1, &settings_, &dispatcher_);
  scheduler.NewProject("p", 2, 0, stub_->GetAddress());
  for (u32 id : {1u, 2u}) {
    EXPECT_EQ(stub_->Count(), 0u);
    const rc_ptr<BuildJob> job = Job(id, "p", "print x");
    job->environment = std::make_shared<const Environment>();
    scheduler.AddJob(job);
    scheduler.ScheduleIfPending();
    const rc_ptr<Message> result = NextMessage();
    ASSERT_EQ(scheduler.JobResult(scheduler.GetServer(), id, 0, result->FindSegment(SEG_STDOUT),
                                  result->FindSegment(SEG_STDERR), 0, 0),
              job);
    EXPECT_EQ(job->stdoutText->GetText(), "x\n");
    scheduler.JobCompleted(job);
    EXPECT_FALSE(job->stdoutText || job->stderrText);
    EXPECT_FALSE(job->environment);
    EXPECT_TRUE(job->project->completed.empty());
    EXPECT_EQ(job->project->CompletedCount(), id);
  }
  EXPECT_EQ(stub_->Next()->GetType(), MSG_PROJECT_COMPLETE);
}

}  // namespace
}  // namespace kestrun
