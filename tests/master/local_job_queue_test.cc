#include "master/local_job_queue.h"

#include <gtest/gtest.h>

#include <iterator>
#include <thread>
#include <vector>

#include "job_test.h"
#include "protocol/message_reader.h"
#include "support/becomes_true.h"

namespace kestrun {
namespace {

using test::NumberOf;
using test::TextOf;

using LocalJobQueueTest = test::JobTest;

TEST_F(LocalJobQueueTest, SendsTheEchoTextRunsTheToolAndPostsWhatItDid) {
  LocalJobQueue queue(1, settings_, dispatcher_);
  for (u32 id : {1u, 2u}) {
    const std::string number = std::to_string(id);
    const rc_ptr<BuildJob> job = Job(id, "p", "print o" + number + " , error e" + number + " , exit " + number);
    if (id == 1) job->echoText = "echo\r\n";
    queue.Push(job);
  }
  const rc_ptr<Message> echo = stub_->Next();
  EXPECT_EQ(TextOf(echo, SEG_STDOUT), "echo\r\n");
  EXPECT_FALSE(echo->FindSegment(SEG_EXIT_CODE));
  for (i32 id = 1; id <= 2; ++id) {
    const rc_ptr<Message> result = NextMessage();
    EXPECT_EQ(result->GetType(), MSG_LOCAL_JOB_RESULT);
    EXPECT_EQ(result->GetAddress().ToString(), "tcp:127.0.0.1/0");
    EXPECT_EQ(NumberOf(result, SEG_JOB_ID), id);
    EXPECT_EQ(NumberOf(result, SEG_EXIT_CODE), id);
    EXPECT_EQ(TextOf(result, SEG_STDOUT), "o" + std::to_string(id) + "\n");
    EXPECT_EQ(TextOf(result, SEG_STDERR), "e" + std::to_string(id) + "\n");
    u64 startTime = 0;
    EXPECT_TRUE(MessageReader(result).ReadLong(SEG_START_TIME, startTime));
    EXPECT_GE(NumberOf(result, SEG_ELAPSED), 0);
  }
  EXPECT_EQ(stub_->Count(), 0u);
}

TEST_F(LocalJobQueueTest, EndsAToolThatRunsLongerThanItsJobMay) {
  settings_.SetBool("Extensions/EnforceJobTimeout", true);
  LocalJobQueue queue(6, settings_, dispatcher_);
  const struct {
    const char* words;
    u32 seconds;
    i32 code;
    std::string out;
    std::string err;
  } cases[] = {
      {"print a , hold", 5, 124, "a\n", "KESTRUN: error: job ran longer than 5 seconds and was ended\r\n"},
      {"error b , hold", 5, 124, "", "b\nKESTRUN: error: job ran longer than 5 seconds and was ended\r\n"},
      {"fill 0 1 , hold", 5, 124, "", "\r\r\nKESTRUN: error: job ran longer than 5 seconds and was ended\r\n"},
      {"print c , exit 124", 3600, 124, "c\n", ""},
      {"exit 2", 0, 2, "", ""},
      {"exit 3", 0xFFFFFFFF, 3, "", ""},
  };
  for (u32 id = 0; id < std::size(cases); ++id) {
    const rc_ptr<BuildJob> job = Job(id, "p", cases[id].words);
    job->timeoutSeconds = cases[id].seconds;
    queue.Push(job);
  }
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const rc_ptr<Message> result = NextMessage();
    const auto& c = cases[NumberOf(result, SEG_JOB_ID)];
    EXPECT_EQ(NumberOf(result, SEG_EXIT_CODE), c.code) << c.words;
    EXPECT_EQ(TextOf(result, SEG_STDOUT), c.out) << c.words;
    EXPECT_EQ(TextOf(result, SEG_STDERR), c.err) << c.words;
  }
}

// Counts the bytes of the messages up to the result, which it takes one by one.
u64 CountParts(test::RecordingChannel& stub, u32 parts) {
  u64 bytes = 0;
  for (u32 i = 0; i < parts; ++i) bytes += TextOf(stub.Next(), SEG_STDOUT).size();
  return bytes;
}

TEST_F(LocalJobQueueTest, ATooFastToolWaitsForItsClientAndNoOther) {
  settings_.SetBool("Extensions/DiscardOutput", true);
  LocalJobQueue queue(2, settings_, dispatcher_, nullptr, 1 << 20);
  queue.Push(Job(1, "p", "fill 20000000 0 , exit 3"));
  // A job with little output is not held back by the first one.
  queue.Push(Job(2, "p", "print small"));
  EXPECT_EQ(NumberOf(NextMessage(), SEG_JOB_ID), 2);
  u64 bytes = CountParts(*stub_, 2);
  EXPECT_EQ(messages_.GetSize(), 0u);
  std::thread client([&] {
    while (const rc_ptr<Message> part = stub_->Next()) bytes += TextOf(part, SEG_STDOUT).size();
  });
  const rc_ptr<Message> result = NextMessage();
  stub_->Send(nullptr);
  client.join();
  EXPECT_EQ(NumberOf(result, SEG_EXIT_CODE), 3);
  EXPECT_EQ(bytes + TextOf(result, SEG_STDOUT).size(), 20000000u);
}

TEST_F(LocalJobQueueTest, AToolThatWaitsForItsClientCanBeCancelledAndRunsOutOfTime) {
  settings_.SetBool("Extensions/EnforceJobTimeout", true);
  LocalJobQueue queue(2, settings_, dispatcher_, nullptr, 1 << 20);
  const rc_ptr<BuildJob> cancelled = Job(1, "p", "fill 20000000 20000000");
  const rc_ptr<BuildJob> overdue = Job(2, "p", "fill 20000000 20000000");
  overdue->timeoutSeconds = 2;
  queue.Push(cancelled);
  queue.Push(overdue);
  stub_->Next();
  queue.Cancel(*cancelled);
  for (int i = 0; i < 2; ++i) {
    const rc_ptr<Message> result = NextMessage();
    EXPECT_EQ(NumberOf(result, SEG_EXIT_CODE), NumberOf(result, SEG_JOB_ID) == 1 ? -1 : 124);
  }
}

TEST_F(LocalJobQueueTest, InSlotsRunsToolsInTheClientsEnvironmentWithoutTheJobserversPipe) {
  JobSlots slots(1, [](u32) { return u32{0}; });
  LocalJobQueue queue(1, settings_, dispatcher_, &slots);
  const rc_ptr<BuildJob> job = Job(1, "p", "env MAKEFLAGS , env KT_OF_CLIENT");
  Environment environment = GetEnvironment();
  environment["MAKEFLAGS"] = "k -j8 --jobserver-auth=3,4";
  environment["KT_OF_CLIENT"] = "yes";
  job->environment = std::make_shared<const Environment>(environment);
  queue.Push(job);
  EXPECT_EQ(TextOf(NextMessage(), SEG_STDOUT), "k \nyes\n");
}

// The first job's limit of a second has no effect, because EnforceJobTimeout is off.
TEST_F(LocalJobQueueTest, AStopEndsTheToolsOfLostClientsAlone) {
  settings_.SetBool("Extensions/CancelOrphanedJobs", true);
  LocalJobQueue queue(2, settings_, dispatcher_);
  const rc_ptr<BuildJob> living = Job(1, "p", "create " + folder_.File("living") + " , sleep 1500 , exit 5");
  const rc_ptr<BuildJob> lost = Job(2, "p", "create " + folder_.File("lost") + " , hold");
  living->timeoutSeconds = 1;
  lost->clientAddress = Address(Address::kIpc, test::UniqueName());
  queue.Push(living);
  queue.Push(lost);
  ASSERT_TRUE(test::BecomesTrue(
      [this] { return Path(folder_.File("living")).Exists() && Path(folder_.File("lost")).Exists(); }));
  queue.Stop();
  for (int i = 0; i < 2; ++i) {
    const rc_ptr<Message> result = NextMessage();
    EXPECT_EQ(NumberOf(result, SEG_EXIT_CODE), NumberOf(result, SEG_JOB_ID) == 1 ? 5 : -1);
  }
}

TEST_F(LocalJobQueueTest, AToolThatStartsForAJobThatWasCancelledEndsAtOnce) {
  JobSlots slots(1, [](u32) { return u32{0}; });
  const JobSlots::Ticket other = slots.NewTicket();
  ASSERT_TRUE(slots.Ask(other, 0));
  LocalJobQueue queue(1, settings_, dispatcher_, &slots);
  const rc_ptr<BuildJob> job = Job(1, "p", "hold");
  queue.Push(job);
  ASSERT_TRUE(test::BecomesTrue([&] { return slots.CountWaiting() == 1; }));
  queue.Cancel(*job);
  slots.Leave(other);
  EXPECT_EQ(NumberOf(NextMessage(), SEG_EXIT_CODE), -1);
}

TEST_F(LocalJobQueueTest, PostsOnlyTheResultsThatTheTakerRefuses) {
  LocalJobQueue queue(1, settings_, dispatcher_);
  std::vector<i32> offered;
  queue.SetResultTaker([&](const rc_ptr<Message>& result) {
    offered.push_back(NumberOf(result, SEG_JOB_ID));
    return offered.back() != 3;
  });
  const rc_ptr<BuildJob> cancelled = Job(2, "p", "exit 0");
  queue.Cancel(*cancelled);
  queue.Push(Job(1, "p", "exit 0"));
  queue.Push(cancelled);
  queue.Push(Job(3, "p", "exit 5"));
  const rc_ptr<Message> posted = NextMessage();
  EXPECT_EQ(NumberOf(posted, SEG_JOB_ID), 3);
  EXPECT_EQ(NumberOf(posted, SEG_EXIT_CODE), 5);
  EXPECT_EQ(offered, (std::vector<i32>{1, 2, 3}));
}

TEST_F(LocalJobQueueTest, AnswersCancelledJobsInTheirTurnWithoutRunningThem) {
  const std::string mark = folder_.File("ran");
  LocalJobQueue queue(1, settings_, dispatcher_);
  const rc_ptr<BuildJob> running = Job(1, "p", "print started , hold");
  const rc_ptr<BuildJob> waiting = Job(2, "p", "create " + mark);
  waiting->echoText = "echo";
  queue.Push(running);
  queue.Push(waiting);
  queue.Cancel(*waiting);
  queue.Cancel(*running);
  for (i32 id : {1, 2}) {
    const rc_ptr<Message> result = NextMessage();
    EXPECT_EQ(NumberOf(result, SEG_JOB_ID), id);
    EXPECT_EQ(NumberOf(result, SEG_EXIT_CODE), -1);
  }
  EXPECT_EQ(stub_->Count(), 0u);
  EXPECT_FALSE(Path(mark).Exists());
}

}  // namespace
}  // namespace kestrun
