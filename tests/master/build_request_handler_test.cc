#include "master/build_request_handler.h"

#include <gtest/gtest.h>

#include "recording_channel.h"
#include "support/names.h"

namespace kestrun {
namespace {

using test::NumberOf;
using test::RecordingChannel;
using test::TextOf;

class RequestHandlerTest : public testing::Test {
 protected:
  static Options WithFlags(u32 flags) {
    Options options;
    options.flags = flags;
    return options;
  }
  rc_ptr<Message> Request(const std::string& arguments) {
    rc_ptr<Message> request = new Message(stub_->GetAddress(), MSG_BUILD_REQUEST, kStubService, kMasterService);
    request->AddString(SEG_TOOL, "c:\\a b\\cl.exe").AddString(SEG_WORKING_DIR, "d").AddString(SEG_ARGUMENTS, arguments);
    return request;
  }
  static void AddVariable(const rc_ptr<Message>& request, const char* name, const char* value) {
    rc_ptr<Message::Segment> variable = new Message::Segment(SEG_ENV_VAR);
    if (name != nullptr) variable->AddNested(Message::Segment::FromText(SEG_ENV_NAME, name).Get());
    if (value != nullptr) variable->AddNested(Message::Segment::FromText(SEG_ENV_VALUE, value).Get());
    request->AddSegment(variable.Get());
  }
  rc_ptr<BuildJob> JobOf(const rc_ptr<Message>& request) {
    handler_.SubmitRequest(request);
    for (;;) {
      if (const rc_ptr<BuildJob> job = handler_.NextJob()) return job;
      SwitchToThread();
    }
  }

  IniFile settings_;
  MessageDispatcher dispatcher_{"", 0, ""};
  const rc_ptr<RecordingChannel> stub_ = RecordingChannel::Add(dispatcher_, test::UniqueName());
  BuildRequestHandler handler_{&settings_, WithFlags(FLAG_KEEP_GOING), &dispatcher_};
};

TEST_F(RequestHandlerTest, MakesAJobOfARequest) {
  const rc_ptr<Message> request = Request("/c \"x y\"  ");
  request->AddString(SEG_PROJECT, "p").AddU32(SEG_FLAGS, FLAG_VERBOSE).AddString(SEG_ECHO_TEXT, "echo");
  request->AddU32(SEG_JOB_TIMEOUT, 120);
  const rc_ptr<BuildJob> job = JobOf(request);
  EXPECT_EQ(job->id, 1u);
  EXPECT_EQ(job->state, JOB_NEW);
  EXPECT_EQ(job->toolPath.ToString(), "c:\\a b\\cl.exe");
  EXPECT_EQ(job->workingDirectory.ToString(), "d");
  EXPECT_EQ(job->commandLine, "\"c:\\a b\\cl.exe\" /c \"x y\"  ");
  EXPECT_EQ(job->flags, FLAG_VERBOSE | FLAG_KEEP_GOING);
  EXPECT_EQ(job->projectName, "p");
  EXPECT_EQ(job->echoText, "echo");
  EXPECT_EQ(job->timeoutSeconds, 120u);
  EXPECT_EQ(job->clientAddress, stub_->GetAddress());
  EXPECT_FALSE(handler_.NextJob());
}

TEST_F(RequestHandlerTest, ParsesHereOnlyWhatComesBehindNoOther) {
  ASSERT_TRUE(handler_.TryRequestHere(Request("first")));
  EXPECT_EQ(handler_.NextJob()->commandLine, "\"c:\\a b\\cl.exe\" first");
  for (u32 id = 2; id < 500; ++id) {
    const std::string arguments = std::to_string(id);
    if (id % 3 == 0 || !handler_.TryRequestHere(Request(arguments))) handler_.SubmitRequest(Request(arguments));
  }
  for (u32 id = 2; id < 500;) {
    const rc_ptr<BuildJob> job = handler_.NextJob();
    if (!job) continue;
    ASSERT_EQ(job->id, id);
    ASSERT_EQ(job->commandLine, "\"c:\\a b\\cl.exe\" " + std::to_string(id));
    ++id;
  }
}

TEST_F(RequestHandlerTest, TakesWhatIsMissingOrMisshapenAsNotGiven) {
  const rc_ptr<Message> request = Request("");
  request->AddU64(SEG_FLAGS, 1).AddU8(SEG_JOB_TIMEOUT, 1);
  const rc_ptr<BuildJob> job = JobOf(request);
  EXPECT_EQ(job->commandLine, "\"c:\\a b\\cl.exe\" ");
  EXPECT_EQ(job->flags, FLAG_KEEP_GOING);
  EXPECT_EQ(job->projectName, "");
  EXPECT_EQ(job->timeoutSeconds, 0u);
  EXPECT_TRUE(job->environment->empty());
}

TEST_F(RequestHandlerTest, TakesTheLastOfARepeatedVariableAndNoneThatIsIncomplete) {
  const rc_ptr<Message> request = Request("");
  AddVariable(request, "A", "first");
  AddVariable(request, "B", nullptr);
  AddVariable(request, nullptr, "x");
  AddVariable(request, "A", "last");
  AddVariable(request, "", "drive");
  EXPECT_EQ(*JobOf(request)->environment, (Environment{{"", "drive"}, {"A", "last"}}));
}

TEST_F(RequestHandlerTest, SharesOneEnvironmentBetweenRequestsOfTheSame) {
  const auto environmentOf = [this](const Environment& variables) {
    const rc_ptr<Message> request = Request("");
    for (const auto& [name, value] : variables) AddVariable(request, name.c_str(), value.c_str());
    const rc_ptr<BuildJob> job = JobOf(request);
    EXPECT_EQ(*job->environment, variables);
    return job->environment;
  };
  const auto shared = environmentOf({{"A", "1"}, {"B", ""}});
  EXPECT_EQ(environmentOf({{"A", "1"}, {"B", ""}}), shared);
  for (const Environment& other : {Environment{{"A", "1"}},
                                   {{"A", "1"}, {"B", ""}, {"C", "x"}},
                                   {{"A", "1"}, {"B", "2"}},
                                   {{"A", "1"}, {"C", ""}},
                                   {}}) {
    EXPECT_NE(environmentOf(other), shared);
    environmentOf({{"A", "1"}, {"B", ""}});
  }
}

TEST_F(RequestHandlerTest, RefusesAMalformedRequestAndGoesOn) {
  rc_ptr<Message> bad = new Message(stub_->GetAddress(), MSG_BUILD_REQUEST, kStubService, kMasterService);
  bad->AddString(SEG_TOOL, "cl").AddString(SEG_ARGUMENTS, "");
  handler_.SubmitRequest(bad);
  const rc_ptr<Message> refusal = stub_->Next();
  EXPECT_EQ(refusal->GetType(), MSG_BUILD_RESULT);
  EXPECT_EQ(NumberOf(refusal, SEG_EXIT_CODE), 1);
  EXPECT_EQ(TextOf(refusal, SEG_STDERR), "No such segment\r\n");
  EXPECT_EQ(TextOf(refusal, SEG_STDOUT), "");
  EXPECT_FALSE(refusal->FindSegment(SEG_KEEP_GOING));
  rc_ptr<Message> unanswered = new Message(MSG_BUILD_REQUEST, kStubService, kMasterService);
  handler_.SubmitRequest(unanswered);
  EXPECT_EQ(JobOf(Request(""))->id, 1u);
}

}  // namespace
}  // namespace kestrun
