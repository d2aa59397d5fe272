#include "client/master_connection.h"

#include <gtest/gtest.h>

#include <map>
#include <thread>
#include <vector>

#include "app/stub_base.h"
#include "fake_master.h"
#include "runtime/files/log.h"

namespace kestrun {
namespace {

using test::FakeMaster;

class MasterConnectionTest : public testing::Test {
 protected:
  FakeMaster master_;
  IniFile settings_;
  Options options_;
};

TEST_F(MasterConnectionTest, BuildsARequestOfToolOptionsAndEnvironment) {
  test::TempFolder folder;
  const std::string responseFile = folder.Write("a.rsp", "x y");
  options_.name = "my job";
  options_.flags = FLAG_KEEP_GOING;
  options_.timeoutSeconds = 60;
  SetEnvironmentVariableA("KT_VARIABLE", "a=b");
  MasterConnection connection(master_.Id(), settings_, options_);
  const rc_ptr<Message> request = connection.BuildRequest(Path("tool"), "/c \"a b\" @" + responseFile + "  $$I:x", "p");
  SetEnvironmentVariableA("KT_VARIABLE", nullptr);
  EXPECT_EQ(request->GetType(), MSG_BUILD_REQUEST);
  EXPECT_EQ(request->GetDestination(), kMasterService);
  std::vector<u32> order;
  std::map<std::string, std::string> environment;
  for (u32 i = 0; i < request->GetSegmentCount(); ++i) {
    const rc_ptr<Message::Segment> segment = request->GetSegment(i);
    if (segment->GetType() != SEG_ENV_VAR) {
      order.push_back(segment->GetType());
      continue;
    }
    std::string name;
    segment->FindNested(SEG_ENV_NAME)->GetString(name);
    segment->FindNested(SEG_ENV_VALUE)->GetString(environment[name]);
  }
  EXPECT_EQ(order, (std::vector<u32>{SEG_TOOL, SEG_WORKING_DIR, SEG_ARGUMENTS, SEG_PROJECT, SEG_FLAGS, SEG_JOB_TIMEOUT,
                                     SEG_JOB_NAME}));
  EXPECT_EQ(test::TextOf(request, SEG_TOOL), "tool");
  EXPECT_EQ(test::TextOf(request, SEG_WORKING_DIR), GetWorkingDirectory());
  EXPECT_EQ(test::TextOf(request, SEG_ARGUMENTS), "/c \"a b\"  x y  $$I:x");
  EXPECT_EQ(test::TextOf(request, SEG_PROJECT), "p");
  EXPECT_EQ(test::TextOf(request, SEG_JOB_NAME), "my job");
  EXPECT_EQ(test::NumberOf(request, SEG_FLAGS), FLAG_KEEP_GOING);
  EXPECT_EQ(test::NumberOf(request, SEG_JOB_TIMEOUT), 60);
  EXPECT_EQ(environment["KT_VARIABLE"], "a=b");
}

TEST_F(MasterConnectionTest, HoldsItsSlotToTheEndAndGivesNoneBackThatItDidNotGet) {
  const MasterConnection::WaitTexts texts{"still waiting", "timed out", "title", "x"};
  {
    MasterConnection connection(master_.Id(), settings_, options_);
    ASSERT_TRUE(connection.OpenClientAccess());
    EXPECT_TRUE(connection.WaitForAccess(texts, {2, 6}));
    EXPECT_FALSE(master_.HasFreePlace());
  }
  EXPECT_TRUE(master_.HasFreePlace());
  master_.TakePlace();
  testing::internal::CaptureStderr();
  {
    MasterConnection connection(master_.Id(), settings_, options_);
    EXPECT_TRUE(connection.OpenClientAccess());
    EXPECT_FALSE(connection.WaitForAccess(texts, {2, 6}));
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "still waiting\nstill waiting\nstill waiting\nKESTRUN: error: timed out\n");
  EXPECT_FALSE(master_.HasFreePlace());
}

constexpr char kNestingWarning[] =
    "KESTRUN: warning: waiting inside a job of the same build; with TransparentTools nested jobs share a slot\n";

TEST_F(MasterConnectionTest, WarnsOnceThatItWaitsInsideAJobOfItsOwnMaster) {
  const MasterConnection::WaitTexts texts{"still waiting", "timed out", "title", "x"};
  // An open log has a notice of its own, which comes later.
  const test::TempFolder folder;
  Log::InitFile(folder.File("log"));
  Log::Get()->SetEnabled(true);
  master_.TakePlace();
  for (const std::string& job : {std::string("another master"), master_.Id()}) {
    SetEnvironmentVariableA("KESTRUN_JOB", job.c_str());
    testing::internal::CaptureStderr();
    MasterConnection connection(master_.Id(), settings_, options_, 20);
    EXPECT_TRUE(connection.OpenClientAccess());
    EXPECT_FALSE(connection.WaitForAccess(texts, {40, 80}));
    const std::string expected = "still waiting\nstill waiting\nKESTRUN: error: timed out\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), (job == master_.Id() ? kNestingWarning : "") + expected);
  }
  SetEnvironmentVariableA("KESTRUN_JOB", nullptr);
  Log::Shutdown();
  EXPECT_EQ(MasterConnection::kNestedNoticeMs, 10000u);
  EXPECT_EQ(MasterConnection::WaitLimits().sliceMs, 120000u);
  EXPECT_EQ(MasterConnection::WaitLimits().totalMs, 3600000u);
}

TEST_F(MasterConnectionTest, WarnsWhileItWaitsForAResultAndGetsItAllTheSame) {
  SetEnvironmentVariableA("KESTRUN_JOB", master_.Id().c_str());
  testing::internal::CaptureStderr();
  master_.Listen();
  // A socket waits for whole seconds, so the wait for such a notice ends before its time.
  MasterConnection connection(master_.Id(), settings_, options_, 1300);
  SetEnvironmentVariableA("KESTRUN_JOB", nullptr);
  std::thread client([&] {
    EXPECT_TRUE(connection.Send(new Message(MSG_STOP, kStubService, kMasterService)));
    EXPECT_EQ(test::NumberOf(connection.Receive(-1), SEG_EXIT_CODE), 5);
  });
  Sleep(1200);  // a connector has ten seconds by default
  master_.Accept();
  EXPECT_TRUE(master_.Receive());
  Sleep(1600);
  master_.Send(FakeMaster::Result("", "", 5));
  client.join();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), kNestingWarning);
}

TEST_F(MasterConnectionTest, ConnectsAnewOnceAChannelHasFailed) {
  master_.Listen();
  MasterConnection connection(master_.Id(), settings_, options_);
  const auto send = [&] { return connection.Send(new Message(MSG_STOP, kStubService, kMasterService)); };
  for (int round = 0; round < 2; ++round) {
    std::thread client([&] { EXPECT_TRUE(send()) << round; });
    master_.Accept();
    client.join();
    EXPECT_TRUE(master_.Receive());
    master_.HangUp();
    testing::internal::CaptureStderr();
    while (send()) continue;  // the first ones still find room in the ring
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "KESTRUN: error: Error sending build request to master\n");
  }
}

TEST_F(MasterConnectionTest, StopEndsAReceiveThatWaits) {
  master_.Listen();
  MasterConnection connection(master_.Id(), settings_, options_);
  std::thread client([&] {
    EXPECT_TRUE(connection.Send(new Message(MSG_STOP, kStubService, kMasterService)));
    EXPECT_FALSE(connection.Receive(-1));
    EXPECT_TRUE(connection.IsStopped());
  });
  master_.Accept();
  EXPECT_TRUE(master_.Receive());
  EXPECT_FALSE(connection.IsStopped());
  connection.Stop();
  client.join();
}

}  // namespace
}  // namespace kestrun
