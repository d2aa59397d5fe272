#include "master/result_sender.h"

#include <gtest/gtest.h>

#include "recording_channel.h"

namespace kestrun {
namespace {

using test::NumberOf;
using test::TextOf;

TEST(ResultSender, MarksResultsThatAreNoReasonToStopAndFailsWithoutAChannel) {
  const rc_ptr<test::RecordingChannel> stub = new test::RecordingChannel("stub");
  EXPECT_TRUE(SendBuildResult(stub, "o", "e", -1, true));
  const rc_ptr<Message> marked = stub->Next();
  EXPECT_EQ(NumberOf(marked, SEG_EXIT_CODE), -1);
  EXPECT_EQ(NumberOf(marked, SEG_KEEP_GOING), 1);
  EXPECT_TRUE(SendBuildResult(stub, "o", "e", -1, false));
  EXPECT_FALSE(stub->Next()->FindSegment(SEG_KEEP_GOING));
  EXPECT_FALSE(SendBuildResult(nullptr, "o", "e", 0, false));
  EXPECT_FALSE(SendBuildOutput(nullptr, "o", "e"));
  EXPECT_FALSE(SendRefusal(nullptr, "r"));
  EXPECT_FALSE(SendProjectComplete(nullptr));
}

TEST(ResultSender, PassesOutputOnWithoutACopyAndAddsWhatIsMissing) {
  const rc_ptr<test::RecordingChannel> stub = new test::RecordingChannel("stub");
  Message result(MSG_LOCAL_JOB_RESULT, kMasterService, kMasterService);
  result.AddString(SEG_STDERR, "e");
  EXPECT_TRUE(PassResultOn(stub, result, 3, false));
  const rc_ptr<Message> sent = stub->Next();
  EXPECT_EQ(sent->GetType(), MSG_BUILD_RESULT);
  EXPECT_EQ(sent->FindSegment(SEG_STDERR), result.FindSegment(SEG_STDERR));
  ASSERT_TRUE(sent->FindSegment(SEG_STDOUT));
  EXPECT_EQ(TextOf(sent, SEG_STDOUT), "");
  EXPECT_EQ(NumberOf(sent, SEG_EXIT_CODE), 3);
}

}  // namespace
}  // namespace kestrun
