#include "client/script_stub.h"

#include <gtest/gtest.h>

#include "fake_master.h"
#include "platform/host.h"
#include "support/child.h"

namespace kestrun {
namespace {

using test::Child;
using test::FakeMaster;

// Words: the master's id, the script, the marker, the flags.
KESTRUN_CHILD(RunsAScriptStub) {
  platform::SetStandardStreamsBinary();  // as the real process does
  IniFile settings;
  Options options;
  options.id = words[0];
  options.scriptPath = words[1];
  options.marker = words[2];
  options.flags = static_cast<u32>(std::stoul(words[3]));
  options.project = "p";
  ScriptStub stub(settings, options);
  return stub.Run();
}

class ScriptStubTest : public test::StubTest {
 protected:
  Child Start(const std::string& text, const std::string& marker = "$") {
    const std::string script = folder_.Write("script.kjs", text);
    return Child::Self("RunsAScriptStub", {master_.Id(), script, marker, "32"});
  }
  // A stub that has connected and announced its project.
  Child StartAndTakeDetails(const std::string& text, const std::string& marker = "$") {
    return TakeFirst([&] { return Start(text, marker); });
  }
  std::string Job(const std::string& arguments) const { return tool_ + " " + arguments + "\n"; }
  // A script of jobs, all of them taken.
  Child StartAndTakeJobs(int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += Job(std::to_string(i));
    Child child = StartAndTakeDetails(text);
    for (int i = 0; i < count; ++i) EXPECT_EQ(test::TextOf(master_.Receive(), SEG_ARGUMENTS), std::to_string(i));
    return child;
  }

  test::TempFolder folder_;
};

TEST_F(ScriptStubTest, AnnouncesItsProjectAndSendsItsJobsInOrder) {
  Child child = StartAndTakeDetails("echo one\n" + Job("##I:a") + "#\n" + Job(" b"), "##");
  const std::string project = "p(" + std::to_string(child.Pid()) + ")";
  EXPECT_EQ(first_->GetType(), MSG_PROJECT_DETAILS);
  EXPECT_EQ(test::TextOf(first_, SEG_PROJECT), project);
  EXPECT_EQ(test::NumberOf(first_, SEG_JOB_COUNT), 2);
  EXPECT_EQ(test::NumberOf(first_, SEG_FLAGS), FLAG_VERBOSE);
  const struct {
    const char* arguments;
    const char* echo;
  } jobs[] = {{"$I:a", "one\r\n"}, {" b", ""}};
  for (const auto& expected : jobs) {
    const rc_ptr<Message> job = master_.Receive();
    EXPECT_EQ(job->GetType(), MSG_BUILD_REQUEST);
    EXPECT_EQ(test::TextOf(job, SEG_PROJECT), project);
    EXPECT_EQ(test::TextOf(job, SEG_ARGUMENTS), expected.arguments);
    EXPECT_EQ(test::TextOf(job, SEG_ECHO_TEXT), expected.echo);
    EXPECT_EQ(job->GetSegment(job->GetSegmentCount() - 1)->GetType(), SEG_ECHO_TEXT);
  }
  EXPECT_FALSE(master_.HasFreePlace());
  master_.SendType(MSG_PROJECT_COMPLETE);
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_TRUE(master_.HasFreePlace());
}

TEST_F(ScriptStubTest, GoesOnAfterFailuresThatAreMarkedSoAndEndsWithTheLast) {
  Child child = StartAndTakeJobs(3);
  master_.Send(FakeMaster::Result("a", "", 3, true));
  master_.Send(FakeMaster::Output("b", "e"));
  master_.Send(FakeMaster::Result("c", "", 5, true));
  master_.Send(FakeMaster::Result("d", "", 0, true));
  master_.SendType(MSG_PROJECT_COMPLETE);
  EXPECT_EQ(child.Wait(), 5);
  EXPECT_EQ(child.Output(), "abcd");
  EXPECT_EQ(child.Errors(), "e");
}

// Silent results of a long script are gathered; each text is still written, in order, and none is left behind.
TEST_F(ScriptStubTest, TakesEveryResultOfALongScriptInOrder) {
  constexpr int kJobs = 200;
  Child child = StartAndTakeJobs(kJobs);
  std::string expected;
  for (int i = 0; i < kJobs; ++i) {
    const std::string text = i % 3 == 0 ? std::to_string(i) + "," : "";
    expected += text;
    master_.Send(FakeMaster::Result(text, "", i == kJobs - 1 ? 4 : 0, true));
  }
  master_.SendType(MSG_PROJECT_COMPLETE);
  EXPECT_EQ(child.Wait(), 4);
  EXPECT_EQ(child.Output(), expected);
}

TEST_F(ScriptStubTest, EndsWithTheFirstFailureThatIsNotMarked) {
  Child child = StartAndTakeJobs(3);
  master_.Send(FakeMaster::Result("", "", 0));
  master_.Send(FakeMaster::Result("", "refused\r\n", 7));
  EXPECT_EQ(child.Wait(), 7);
  EXPECT_EQ(child.Errors(), "refused\r\n");
}

TEST_F(ScriptStubTest, ShowsAFailureOfKestrunAsSuch) {
  Child child = StartAndTakeJobs(1);
  master_.Send(FakeMaster::Result("", "why", StubFailureCode));
  EXPECT_EQ(test::LowByte(child.Wait()), test::LowByte(StubFailureCode));
  EXPECT_EQ(child.Errors(), "KESTRUN: error: why\nwhy");
}

TEST_F(ScriptStubTest, FailsWhenTheMasterHangsUp) {
  Child child = StartAndTakeJobs(2);
  master_.HangUp();
  EXPECT_EQ(test::LowByte(child.Wait()), test::LowByte(StubFailureCode));
  EXPECT_EQ(child.Errors(), "KESTRUN: error: Comms Error waiting for response from master\n");
}

// The jobs are more than the ring holds (64 KiB) together with what the reader takes at once (1 MiB), so that the stub
// is still sending when the master hangs up.
TEST_F(ScriptStubTest, FailsWhenTheMasterHangsUpBeforeItHasAllJobs) {
  std::string text;
  for (int i = 0; i < 400; ++i) text += Job(std::string(4000, 'x'));
  Child child = StartAndTakeDetails(text);
  master_.HangUp();
  EXPECT_EQ(child.Wait(), 1);
  EXPECT_EQ(child.Errors(),
            "KESTRUN: error: Error sending build request to master\n"
            "KESTRUN: error: Could not send job information (project p(" +
                std::to_string(child.Pid()) + ")) to master\n");
}

TEST_F(ScriptStubTest, FailsOnAMessageThatItDoesNotKnow) {
  Child child = StartAndTakeJobs(1);
  master_.SendType(MSG_STOP);
  EXPECT_EQ(test::LowByte(child.Wait()), test::LowByte(StubFailureCode));
  EXPECT_EQ(child.Errors(), "KESTRUN: error: Unknown Error waiting for response from master\n");
}

// No master listens here: a stub that tried to connect would fail.
TEST_F(ScriptStubTest, DoesNotCallTheMasterWithoutJobsOrWithAToolThatIsMissing) {
  Child empty = Start("# nothing\n\necho unheard\n");
  EXPECT_EQ(empty.Wait(), 0);
  EXPECT_EQ(empty.Output() + empty.Errors(), "");
  Child missing = Start(Job("a") + "kt_no_such_tool x\n");
  EXPECT_EQ(missing.Wait(), 1);
  EXPECT_EQ(missing.Errors(), "KESTRUN: error: Cannot locate executable for \"kt_no_such_tool\"\n");
  EXPECT_TRUE(master_.HasFreePlace());
}

TEST_F(ScriptStubTest, RunsNothingWithoutItsScriptOrItsMaster) {
  const std::string script = folder_.File("missing.kjs");
  Child unreadable = Child::Self("RunsAScriptStub", {master_.Id(), script, "$", "0"});
  EXPECT_EQ(unreadable.Wait(), 1);
  EXPECT_EQ(unreadable.Errors(), "KESTRUN: error: Could not load script " + script + " - aborting...\n");
  Child alone = Start(Job("print local"));
  EXPECT_EQ(alone.Wait(), 1);
  EXPECT_EQ(alone.Output(), "");
  EXPECT_NE(alone.Errors().find("KESTRUN: error: Could not initiate build request to master\n"), std::string::npos);
}

}  // namespace
}  // namespace kestrun
